/* YAML as the fleet file has it: a tree in which every node knows where it stands. Read by
 * yaml-cpp's events, so that nothing is made of a text before it is known to be sound. Anchors,
 * aliases, tags, keys that are no texts, keys given twice, more than one document, more than 1 MB,
 * more than 20 levels, what is no UTF-8 and control characters other than tab and line feed, with
 * or without a carriage return before it, are errors. The first error ends it. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_NODE_H
#define VINDRAL_COLLECTOR_FLEET_NODE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

constexpr size_t longest_fleet_text = 1'000'000; /* bytes */
constexpr int deepest_fleet_text = 20;

/* Where something stands; lines and columns from 1, columns in characters. */
struct text_place {
    int line = 0, column = 0;
    bool operator==(const text_place&) const = default;
};

/* What is wrong with a text, or worth knowing: what was found, what was expected, what is close. */
struct remark {
    text_place at;
    std::string text; /* a sentence; of the text at most some words, without control characters */
};

struct node {
    enum class kind : unsigned char { nothing, text, list, map };
    kind is = kind::nothing; /* `nothing`: "~", "null" or an empty place */
    text_place at = {};
    std::string text = {};  /* of a text */
    bool is_quoted = false; /* likewise: it stands in quotes, so that it is no number */
    std::vector<node> items = {};
    std::vector<std::pair<node, node>> members = {}; /* of a map, in order; the keys are texts */

    /* The value of that key; null when there is none. */
    const node* find(std::string_view key) const;
};

/* False with `wrong`. An empty text is a node that is nothing. */
bool read_nodes(std::string_view text, node& root, remark& wrong);

#endif
