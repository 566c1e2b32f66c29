/* Checking the lines of a plan one after the other: what each does to the tests of an agent that
 * began without any, and whether it is to be sent. */
#ifndef VINDRAL_COLLECTOR_PLAN_CHECK_H
#define VINDRAL_COLLECTOR_PLAN_CHECK_H

#include "plan/line.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

struct checked_line {
    int number = 0;
    std::string_view text;
    protocol::command_effect does = protocol::command_effect::none;
    test_place test = {}; /* when it does something to one */
    uint64_t serial = 0;

    bool adds() const { return does == protocol::command_effect::adds; }
    bool removes() const { return does == protocol::command_effect::removes; }
};

/* The lines of a text that are no comments, one after the other. */
class line_reader {
public:
    explicit line_reader(std::string_view text) : rest_(text) {}

    /* Number and text of the next line; false at the end. */
    bool next(checked_line& line);

private:
    std::string_view rest_;
    int number_ = 0;
};

/* Which tests a list of commands leaves behind, for an agent that starts without any. */
class presence {
public:
    /* `earlier`: tests that agents may have from lines which are no longer in the file. Must
     * outlive this. */
    explicit presence(const std::map<test_place, bool>& earlier) : earlier_(earlier) {}

    /* Fills what the line does; returns the reason why it is not to be sent, "" when it is. */
    std::string apply(checked_line& line);

    bool has(const test_place& test) const;

private:
    std::string apply(protocol::command_effect does, const test_place& test);

    const std::map<test_place, bool>& earlier_;
    std::map<test_place, bool> tests_;
};

/* What is wrong with the first line of a text in which none is to be sent, although there are some;
 * "" for any other text. */
std::string why_none(std::string_view text, const std::map<test_place, bool>& earlier);

#endif
