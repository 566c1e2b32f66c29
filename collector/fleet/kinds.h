/* The kinds of tests that a fleet file may have: one table, by which files are read, from which the
 * JSON Schema for editors is made, and to which docs/fleet.md is held. Every kind of which results
 * come has a row. */
#ifndef VINDRAL_COLLECTOR_FLEET_KINDS_H
#define VINDRAL_COLLECTOR_FLEET_KINDS_H

#include "protocol/commands.h"
#include "protocol/record_types.h"

#include <cstdint>
#include <span>
#include <string_view>

/* What a value has to be. */
enum class value_form : uint8_t {
    text,         /* one line of it, not empty */
    name,         /* likewise; no placeholder for a secret */
    secret_text,  /* likewise; nobody's business but the agent's */
    host,         /* a host name or an address */
    url,          /* http or https */
    addresses,    /* IPv4: "10.0.0.1 - 10.0.0.254", both included */
    whole,        /* a whole number; `least` and `most` are of it, or of the unit of the form */
    percent,      /* "80 %": whole ones */
    megabytes,    /* "500 MB": whole ones, or nearly so */
    gigabytes,    /* "5 GB", or a share of the whole: "10 %" */
    seconds,      /* "5s": whole ones */
    milliseconds, /* "250ms", "1s" */
    rate,         /* bytes per second: "10 MB", "100 Mbit" */
    flag,         /* true, false */
    choice,       /* one of `choices`, "md5|sha" */
    list,         /* of texts */
    limits,       /* names, each with limits: {NAME: {at least: 1, at most: 5}} */
    whole_limits, /* likewise, whole numbers */
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct key_def {
    const char* name;
    value_form form;
    const char* help; /* for people: what it means, with the default */
    double least = 0, most = 2147483647;
    const char* choices = "";
    bool required = false;
    bool beside = false; /* stands beside the word where the other keys stand within its value */
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct test_kind {
    const char* word; /* "http": a test is of the kind of which it has the word as a key */
    const char* help; /* what is tested */
    const protocol::record_def* record; /* what its results are */
    const protocol::command_def *add, *modify, *remove;
    /* What stands behind the word: a value of that form, or a map with `keys` (value_form::limits:
     * there is no value of its own). The other keys stand beside the word. */
    key_def value;
    bool keys_inside; /* load: {1m: 8}, but for those `beside`; elsewhere all stand beside it */
    std::span<const key_def> keys;
    bool runs_once = false; /* its results do not come again and again */
};

std::span<const test_kind> test_kinds();
const test_kind* find_kind(std::string_view word);
/* By the type of its records: its results' kind. */
const test_kind* kind_of_record(uint32_t type);

#endif
