/* docs/commands.md, docs/records.md and docs/fleet.md against the tables: what the documents
 * promise is what both programs go by. */
#include "fleet/file.h"
#include "protocol/commands.h"
#include "protocol/record_types.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using protocol::command_effect;
using protocol::field_kind;
using protocol::value_role;
using protocol::value_type;
using strings = std::vector<std::string>;

strings lines_of(const std::string& page) {
    std::ifstream file(std::string(VINDRAL_DOCS) + "/" + page);
    EXPECT_TRUE(file) << page;
    strings lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

strings split(const std::string& text, const std::string& between) {
    strings parts;
    size_t at = 0;
    for (size_t end; (end = text.find(between, at)) != text.npos; at = end + between.size()) {
        parts.push_back(text.substr(at, end - at));
    }
    parts.push_back(text.substr(at));
    return parts;
}

/* The cells of a row of a table, none for any other line. */
strings cells_of(const std::string& line) {
    if (!line.starts_with("| ") || !line.ends_with(" |")) {
        return {};
    }
    return split(line.substr(2, line.size() - 4), " | ");
}

bool has(const std::string& text, const std::string& piece) {
    return text.find(piece) != text.npos;
}

/* ---- commands ---- */

/* A row: "test id, location id, max 1 min [, host]". */
struct command_row {
    std::string code, effect;
    strings fields;
    size_t optional = 0; /* of them, the last ones */
};

std::vector<command_row> documented_commands() {
    std::vector<command_row> rows;
    std::map<std::string, strings> fields; /* the texts of each code's rows */
    for (const std::string& line : lines_of("commands.md")) {
        strings cells = cells_of(line);
        if (cells.size() != 3 || !std::regex_match(cells[0], std::regex("[A-Z]{3}"))) {
            continue;
        }
        bool same = cells[1].starts_with("as "); /* "as LAA": as all of its rows */
        strings texts = same ? fields[cells[1].substr(3, 3)] : strings{cells[1]};
        EXPECT_FALSE(texts.empty()) << line;
        for (const std::string& text : texts) {
            fields[cells[0]].push_back(text);
            rows.push_back({cells[0], cells[2],
                            split(std::regex_replace(text, std::regex(" \\[|\\]"), ""), ", "),
                            static_cast<size_t>(std::count(text.begin(), text.end(), '['))});
        }
    }
    return rows;
}

/* What the table calls a field that the document calls so. */
void expect_same_field(const protocol::field_def& field, const std::string& documented) {
    static const std::pair<const char*, const char*> words[] = {
        {"test id", "test id"}, {"location id", "location id"},
        {"host", "host"},       {"port", "port"},
        {"version", "version"}, {"retries", "number of retries"},
        {"path", "path"},       {"addresses", "list of addresses"}};
    for (auto [word, name] : words) {
        /* Where the document is vague, the table may be, too: a page's port is any text. */
        if (documented == word && field.name != std::string("text")) {
            EXPECT_EQ(field.name, std::string(name));
        }
    }
    EXPECT_EQ(field.name == std::string("test id"), documented == "test id" || documented == "id");
    EXPECT_EQ(field.name == std::string("location id"), documented == "location id");
    EXPECT_EQ(field.kind == field_kind::ignored, documented == "ignored");
    EXPECT_EQ(field.kind == field_kind::useless, documented == "0");
    bool number = field.kind == field_kind::number || field.kind == field_kind::real;
    EXPECT_TRUE(number || !std::regex_search(documented, std::regex("^(max|min) ")));
}

/* By how the effect is told. */
command_effect effect_of(const std::string& text) {
    static const std::pair<const char*, command_effect> begins[] = {
        {"add ", command_effect::adds},       {"scan ", command_effect::adds},
        {"listen ", command_effect::adds},    {"change ", command_effect::modifies},
        {"remove ", command_effect::removes}, {"stop ", command_effect::removes}};
    for (auto [begin, effect] : begins) {
        if (text.starts_with(begin)) {
            return effect;
        }
    }
    return command_effect::none;
}

} // namespace

TEST(docs, each_command_has_its_row) {
    std::set<std::string> documented, known;
    for (const command_row& row : documented_commands()) {
        documented.insert(row.code);
    }
    for (const protocol::command_def& command : protocol::commands) {
        if (command.does != command_effect::ignored) {
            known.insert(std::string(command.code));
        }
    }
    EXPECT_EQ(documented, known);
}

TEST(docs, commands_have_the_fields_of_their_rows) {
    std::map<std::string, std::pair<size_t, size_t>> counts; /* least and most, the code included */
    for (const command_row& row : documented_commands()) {
        SCOPED_TRACE(row.code);
        const protocol::command_def* command = protocol::find_command(row.code);
        ASSERT_NE(command, nullptr);
        ASSERT_LE(row.fields.size(), command->fields.size());
        for (size_t i = 0; i < row.fields.size(); i++) {
            SCOPED_TRACE(row.fields[i]);
            expect_same_field(command->fields[i], row.fields[i]);
        }
        EXPECT_EQ(effect_of(row.effect), command->does);
        auto [count, first] = counts.try_emplace(row.code, SIZE_MAX, 0);
        size_t most = 1 + row.fields.size();
        count->second.first = std::min(count->second.first, most - row.optional);
        count->second.second = std::max(count->second.second, most);
    }
    for (const auto& [code, count] : counts) {
        const protocol::command_def* command = protocol::find_command(code);
        EXPECT_EQ(count.first, command->least) << code;
        EXPECT_EQ(count.second, 1 + command->fields.size()) << code;
        EXPECT_TRUE(command->most == protocol::any_more || command->most == count.second) << code;
    }
}

/* ---- records ---- */

namespace {

const char* const type_words[] = {"I32", "UI32", "I64", "UI64", "D64", "string"};

/* "4 UI32, 1 I64, up to 2 strings": how many of each type. */
std::map<value_type, size_t> counts_in(const std::string& text) {
    std::map<value_type, size_t> counts;
    static const std::regex count("\\b(\\d+) (I32|UI32|I64|UI64|D64|string)s?\\b");
    for (std::sregex_iterator at(text.begin(), text.end(), count), end; at != end; ++at) {
        for (size_t type = 0; type < std::size(type_words); type++) {
            if (at->str(2) == type_words[type]) {
                counts[static_cast<value_type>(type)] = std::stoul(at->str(1));
            }
        }
    }
    return counts;
}

std::map<value_type, size_t> counts_in(std::span<const protocol::value_def> table) {
    std::map<value_type, size_t> counts;
    for (const protocol::value_def& row : table) {
        counts[row.type]++;
    }
    return counts;
}

struct record_page {
    std::string name, text; /* of the heading; of everything below it */
    std::string before; /* of that, what comes before the first table or blank line behind text */
    std::map<std::pair<value_type, size_t>, std::string> values; /* meaning, by type and index */
    strings nested;
};

/* "UI32 0 to 2", "D64 1, 2", "string 0": the rows that a cell is about. */
void add_meaning(record_page& page, const std::string& values, const std::string& meaning) {
    if (values.starts_with("nested")) {
        page.nested.push_back(meaning);
        return;
    }
    std::smatch found;
    if (!std::regex_match(values, found, std::regex("(\\w+) (\\d+)(?: to (\\d+)|((?:, \\d+)*))"))) {
        return;
    }
    for (size_t type = 0; type < std::size(type_words); type++) {
        if (found[1] != type_words[type]) {
            continue;
        }
        size_t first = std::stoul(found[2]);
        size_t last = found[3].matched ? std::stoul(found[3]) : first;
        std::set<size_t> all;
        for (size_t i = first; i <= last; i++) {
            all.insert(i);
        }
        for (const std::string& more : split(found[4], ", ")) {
            if (!more.empty()) {
                all.insert(std::stoul(more));
            }
        }
        for (size_t index : all) {
            bool added =
                page.values.emplace(std::pair(static_cast<value_type>(type), index), meaning)
                    .second;
            EXPECT_TRUE(added) << page.name << ": " << values << " is there twice";
        }
    }
}

std::map<uint32_t, record_page> documented_records() {
    std::map<uint32_t, record_page> pages;
    record_page* page = nullptr;
    bool in_table = false;
    for (const std::string& line : lines_of("records.md")) {
        std::smatch heading;
        if (std::regex_match(line, heading, std::regex("### (\\d+): (.*)"))) {
            page = &pages[static_cast<uint32_t>(std::stoul(heading[1]))];
            page->name = heading[2];
            in_table = false;
        } else if (page != nullptr) {
            page->text += line + " ";
            strings cells = cells_of(line);
            in_table = in_table || !cells.empty();
            if (!in_table) {
                page->before += line + " ";
            } else if (cells.size() == 2) {
                add_meaning(*page, cells[0], cells[1]);
            }
        }
    }
    return pages;
}

const char* word_of(value_role role) {
    switch (role) {
    case value_role::test:
        return "test id";
    case value_role::location:
        return "location id";
    case value_role::status:
        return "status: ";
    case value_role::time:
        return "time of the ";
    default:
        return "";
    }
}

/* How a section tells the unit. */
std::regex words_of(const std::string& unit) {
    static const std::map<std::string, const char*> words = {{"", ""},
                                                             {"%", "percent"},
                                                             {" MB", "MB|megabytes"},
                                                             {" GB", "GB"},
                                                             {" ms", "\\bms\\b"},
                                                             {"/s", "per second"},
                                                             {" B/s", "per second"},
                                                             {" bytes", "bytes"}};
    auto found = words.find(unit);
    return std::regex(found != words.end() ? found->second : "a unit that this test does not know");
}

} // namespace

TEST(docs, each_type_of_record_has_its_section) {
    std::set<uint32_t> documented, known;
    for (const auto& [code, page] : documented_records()) {
        documented.insert(code);
    }
    for (const protocol::record_def* type : protocol::record_types) {
        known.insert(type->code);
    }
    EXPECT_EQ(documented, known);
}

TEST(docs, records_hold_what_their_sections_count) {
    std::map<uint32_t, record_page> pages = documented_records();
    for (const protocol::record_def* type : protocol::record_types) {
        SCOPED_TRACE(type->name);
        const record_page& page = pages[type->code];
        EXPECT_EQ(counts_in(page.before), counts_in(type->values));
        EXPECT_EQ(page.nested.size(), type->parts != nullptr ? 1u : type->is_table ? 2u : 0u);
        if (type->parts != nullptr && page.nested.size() == 1) {
            EXPECT_EQ(counts_in(page.nested[0]), counts_in(type->parts->values));
        }
    }
}

TEST(docs, each_value_of_a_test_is_explained) {
    std::map<uint32_t, record_page> pages = documented_records();
    for (const protocol::record_def* type : protocol::record_types) {
        SCOPED_TRACE(type->name);
        const record_page& page = pages[type->code];
        size_t explained = 0;
        for (size_t i = 0; i < type->values.size(); i++) {
            const protocol::value_def& value = type->values[i];
            SCOPED_TRACE(value.name);
            EXPECT_TRUE(std::regex_search(page.text, words_of(value.unit)));
            if (find_role(type->values, value_role::test) == nullptr ||
                value.role == value_role::unused) {
                continue; /* an inventory: its introduction says all */
            }
            auto meaning = page.values.find({value.type, index_of(type->values, i)});
            ASSERT_NE(meaning, page.values.end());
            explained++;
            EXPECT_TRUE(has(meaning->second, word_of(value.role))) << meaning->second;
            if (value.role == value_role::code) {
                EXPECT_EQ(std::stoul(meaning->second), type->code);
            }
        }
        EXPECT_EQ(explained, page.values.size());
    }
}

/* The table of what statuses mean names the types of which 2 or 3 means that the test failed. */
TEST(docs, statuses_mean_what_the_types_say) {
    std::map<std::string, std::string> meanings;
    for (const std::string& line : lines_of("records.md")) {
        strings cells = cells_of(line);
        if (cells.size() == 2 && std::regex_match(cells[0], std::regex("\\d+"))) {
            meanings.emplace(cells[0], cells[1]); /* those of the first table */
        }
    }
    for (uint32_t status : {protocol::status_ok, protocol::status_limit, protocol::status_not_found,
                            protocol::status_remote_failed}) {
        EXPECT_TRUE(meanings.contains(std::to_string(status))) << status;
    }
    for (const auto& [code, page] : documented_records()) {
        const protocol::record_def* type = protocol::find_record(code);
        ASSERT_NE(type, nullptr) << code;
        auto failed = [&](const char* status) {
            strings parts = split(meanings[status], "; ");
            return std::regex_search(parts.back(), std::regex("\\b" + page.name + "\\b")) &&
                   parts.back().ends_with("has failed");
        };
        EXPECT_EQ(failed("2"), std::string(type->failed) == "failed") << type->name;
        EXPECT_EQ(failed("3"), std::string(type->not_found) == "failed") << type->name;
    }
}

/* ---- the fleet file ---- */

namespace {

/* What stands in the table for a form. */
std::string words_for(const key_def& key) {
    switch (key.form) {
    case value_form::text:
    case value_form::name:
        return "text";
    case value_form::secret_text:
        return "text, kept from others";
    case value_form::host:
        return "host";
    case value_form::url:
        return "address";
    case value_form::addresses:
        return "range";
    case value_form::percent:
        return "percent";
    case value_form::megabytes:
        return "size";
    case value_form::gigabytes:
        return "size or percent";
    case value_form::seconds:
        return "seconds";
    case value_form::milliseconds:
        return "time";
    case value_form::rate:
        return "rate";
    case value_form::flag:
        return "true, false";
    case value_form::choice:
        return std::regex_replace(key.choices, std::regex("\\|"), ", ");
    case value_form::list:
        return "list";
    case value_form::limits:
    case value_form::whole_limits:
        return "names with limits";
    default:
        return "number";
    }
}

strings row_for(const key_def& key, bool is_word) {
    return {"`" + std::string(key.name) + "`", words_for(key),
            key.help + std::string(key.required && !is_word ? " (required)" : "")};
}

/* Rows of the section of each kind, and its examples as lines. */
struct kind_section {
    std::vector<strings> rows;
    std::string examples;
};

std::map<std::string, kind_section> documented_kinds(strings& order) {
    std::map<std::string, kind_section> sections;
    std::string section, kind;
    bool is_example = false;
    for (const std::string& line : lines_of("fleet.md")) {
        if (line.starts_with("## ")) {
            section = line.substr(3);
        } else if (section == "Kinds of tests" && line.starts_with("### ")) {
            kind = line.substr(4);
            order.push_back(kind);
        } else if (section == "Kinds of tests" && !kind.empty()) {
            strings cells = cells_of(line);
            if (cells.size() == 3 && cells[0] != "key") {
                sections[kind].rows.push_back(cells);
            }
            if (line.starts_with("```")) {
                is_example = line != "```";
            } else if (is_example) {
                sections[kind].examples += "    " + line + "\n";
            }
        }
    }
    return sections;
}

} // namespace

TEST(docs, each_kind_of_a_fleets_tests_has_its_keys) {
    strings order;
    const std::map<std::string, kind_section> sections = documented_kinds(order);
    ASSERT_EQ(order.size(), test_kinds().size());
    for (size_t i = 0; i < order.size(); i++) {
        const test_kind& kind = test_kinds()[i];
        SCOPED_TRACE(kind.word);
        ASSERT_EQ(order[i], kind.word);
        std::vector<strings> rows;
        if (!kind.keys_inside) {
            rows.push_back(row_for(kind.value, true));
        }
        for (const key_def& key : kind.keys) {
            rows.push_back(row_for(key, false));
        }
        EXPECT_EQ(sections.at(kind.word).rows, rows);
    }
}

TEST(docs, the_examples_of_each_kind_are_sound_and_of_that_kind) {
    strings order;
    for (const auto& [word, section] : documented_kinds(order)) {
        fleet found;
        std::vector<remark> wrong;
        ASSERT_TRUE(read_fleet("version: 1\ngroups:\n- name: g\n  agents: \"*\"\n  tests:\n" +
                                   section.examples,
                               found, wrong))
            << word << ": " << wrong.at(0).text << "\n"
            << section.examples;
        EXPECT_FALSE(found.groups[0].tests.empty()) << word;
        for (const auto& test : found.groups[0].tests) {
            EXPECT_EQ(test->kind, find_kind(word)) << test->name;
        }
    }
}

/* Those above the kinds: each is a file of its own, or what stands below "tests:" or beside
 * "groups:" in one. */
TEST(docs, the_examples_of_the_fleet_file_are_sound) {
    std::string example;
    size_t count = 0;
    bool is_example = false;
    for (const std::string& line : lines_of("fleet.md")) {
        if (line == "```yaml") {
            is_example = true;
            example.clear();
        } else if (line == "```" && is_example) {
            is_example = false;
            const bool is_file = example.starts_with("version: 1\n");
            const bool is_part = example.starts_with("groups:\n") || example.starts_with("smtp: ");
            std::string text =
                is_file   ? example
                : is_part ? "version: 1\n" + example
                          : "version: 1\ngroups:\n- name: web servers\n  agents: []\n  "
                            "tests:\n" +
                                std::regex_replace(example, std::regex("(^|\n)(?=.)"), "$1    ");
            if (example.starts_with("smtp: ")) {
                text += "groups: [{name: web servers, agents: []}]\n";
            }
            fleet found;
            std::vector<remark> wrong;
            const bool is_two = example.starts_with("web site:\n"); /* one test, spelled twice */
            if (!example.starts_with("#") && !is_two) {
                EXPECT_TRUE(read_fleet(text, found, wrong)) << wrong.at(0).text << "\n" << text;
                count++;
            }
        } else if (is_example) {
            example += line + "\n";
        }
    }
    EXPECT_GE(count, 16u);
}

/* "`htttp`: no such test; `http`?" and the like: said as they are shown. */
TEST(docs, mistakes_of_the_fleet_file_are_said_as_shown) {
    fleet found;
    std::vector<remark> wrong;
    EXPECT_FALSE(read_fleet("version: 1\ngroups:\n  - name: everything\n    agents: [\"*\"]\n"
                            "    tests:\n      # a mistake in each\n"
                            "      web site:     {htttp: \"https://shop.example.org/\"}\n"
                            "      root disk:    {disk: /, free: 5}\n"
                            "      load:         {load: {1m: 1.5}}\n",
                            found, wrong));
    std::string page;
    for (const std::string& line : lines_of("fleet.md")) {
        page += line + "\n";
    }
    ASSERT_EQ(wrong.size(), 3u);
    for (const remark& each : wrong) {
        const std::string said = "my-fleet.yaml:" + std::to_string(each.at.line) + ":" +
                                 std::to_string(each.at.column) + ": " + each.text + "\n";
        EXPECT_TRUE(has(page, said)) << said;
    }
}
