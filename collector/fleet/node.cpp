#include "fleet/node.h"

#include "fleet/text_check.h"

#include <algorithm>
#include <exception>
#include <istream>
#include <set>
#include <streambuf>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/parser.h>

const node* node::find(std::string_view key) const {
    for (const auto& [name, value] : members) {
        if (name.text == key) {
            return &value;
        }
    }
    return nullptr;
}

namespace {

/* yaml-cpp keeps what stands on one line until it is sure that no key has begun there, some 240
 * bytes for each of these characters: a text made of them would take a quarter of a gigabyte. */
constexpr std::string_view structure = "[]{},";
constexpr ptrdiff_t most_structure = 400'000;

/* Ends the parser from within. */
struct found_wrong {
    remark what;
};

/* Lines and columns of a text by offset in bytes. Offsets are asked for in rising order, or nearly
 * so: a step back is as long as it is. */
class place_finder {
public:
    explicit place_finder(std::string_view text) : text_(text) {}

    /* Of anything beyond the end, the end. */
    text_place of(size_t offset) {
        offset = std::min(offset, text_.size());
        while (at_ < offset) {
            forward();
        }
        while (at_ > offset) {
            back();
        }
        return {line_, column_};
    }

private:
    static bool begins_character(char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }

    void forward() {
        if (text_[at_] == '\n') {
            line_++;
            column_ = 1;
        } else if (begins_character(text_[at_])) {
            column_++;
        }
        at_++;
    }

    void back() {
        at_--;
        if (text_[at_] == '\n') {
            line_--;
            size_t begin = at_ == 0 ? 0 : text_.rfind('\n', at_ - 1) + 1;
            column_ = 1 + static_cast<int>(std::count_if(
                              text_.begin() + static_cast<ptrdiff_t>(begin),
                              text_.begin() + static_cast<ptrdiff_t>(at_), begins_character));
        } else if (begins_character(text_[at_])) {
            column_--;
        }
    }

    std::string_view text_;
    size_t at_ = 0;
    int line_ = 1, column_ = 1;
};

/* Makes the tree of what the parser reports, or throws what is wrong. */
class tree_maker : public YAML::EventHandler {
public:
    tree_maker(std::string_view text, node& root) : text_(text), places_(text), root_(root) {}

    text_place place_of(const YAML::Mark& mark) {
        return places_.of(mark.pos < 0 ? 0 : static_cast<size_t>(mark.pos));
    }

    void OnDocumentStart(const YAML::Mark& mark) override {
        if (documents_++ > 0) {
            refuse(mark, "a second document begins here: the file is one, without \"---\"");
        }
    }
    void OnDocumentEnd() override {}

    void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
        put(mark, "", anchor, {});
    }

    void OnAlias(const YAML::Mark& mark, YAML::anchor_t) override {
        refuse(mark, "aliases (\"*NAME\") are not read here: write it out, or in quotes");
    }

    void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                  const std::string& value) override {
        node made;
        made.is = node::kind::text;
        made.text = value;
        made.is_quoted = tag == "!";
        check_end_of_quotes(mark);
        if (first_no_utf8(value) != value.npos) { /* what the parser makes of "\\N" and "\\_" */
            refuse(mark, "an escape in these quotes is not read here: write the character itself");
        }
        put(mark, tag, anchor, std::move(made));
    }

    void OnSequenceStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value) override {
        open(mark, tag, anchor, node::kind::list);
    }
    void OnSequenceEnd() override { close(); }

    void OnMapStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value) override {
        open(mark, tag, anchor, node::kind::map);
    }
    void OnMapEnd() override { close(); }

    void OnAnchor(const YAML::Mark& mark, const std::string&) override {
        refuse(mark, "anchors (\"&NAME\") are not read here: write it out, or in quotes");
    }

private:
    /* A list or a map that is not at its end. */
    struct level {
        node* of;
        std::set<std::string, std::less<>> keys = {};
        bool has_key = false; /* of a map: a key without its value */
        node key = {};
    };

    [[noreturn]] void refuse(const YAML::Mark& mark, std::string why) {
        throw found_wrong{{place_of(mark), std::move(why)}};
    }

    /* The parser takes the end of the text for that of the quotes. */
    void check_end_of_quotes(const YAML::Mark& mark) {
        size_t at = mark.pos < 0 ? text_.size() : static_cast<size_t>(mark.pos);
        if (at >= text_.size() || (text_[at] != '"' && text_[at] != '\'')) {
            return;
        }
        const char quote = text_[at];
        for (size_t i = at + 1; i < text_.size(); i++) {
            if (text_[i] == '\\' && quote == '"') {
                i++;
            } else if (text_[i] == quote) {
                if (quote == '"' || i + 1 == text_.size() || text_[i + 1] != quote) {
                    return;
                }
                i++;
            }
        }
        refuse(mark, "the quotes that begin here have no end");
    }

    /* Where the next node belongs, with its place and what no node may have refused. */
    node& put(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor, node made) {
        if (anchor != 0) {
            refuse(mark, "anchors (\"&NAME\") are not read here: write it out, or in quotes");
        }
        if (!tag.empty() && tag != "?" && tag != "!") {
            refuse(mark, "tags (\"!NAME\") are not read here: leave it out, or write it in quotes");
        }
        made.at = place_of(mark);
        if (levels_.empty()) {
            return root_ = std::move(made);
        }
        level& above = levels_.back();
        if (above.of->is == node::kind::list) {
            return above.of->items.emplace_back(std::move(made));
        }
        if (!above.has_key) {
            return take_key(above, std::move(made));
        }
        above.has_key = false;
        if (made.is == node::kind::nothing && made.at.line != above.key.at.line) {
            made.at = above.key.at; /* an empty place: the parser names what comes behind it */
        }
        return above.of->members.emplace_back(std::move(above.key), std::move(made)).second;
    }

    static node& take_key(level& above, node key) {
        if (key.is != node::kind::text) {
            /* A bracket without an end is reported so, too. */
            const bool may_be_open = key.at == above.of->at;
            throw found_wrong{{key.at, may_be_open ? "a key is a text, or the bracket that begins "
                                                     "here has no end"
                                                   : "a key is a text: \"key: value\""}};
        }
        if (!above.keys.insert(key.text).second) {
            throw found_wrong{{key.at, in_ticks(key.text) + ": this key is there already"}};
        }
        above.has_key = true;
        return above.key = std::move(key);
    }

    void open(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
              node::kind is) {
        if (levels_.size() == deepest_fleet_text) {
            refuse(mark, "more than " + std::to_string(deepest_fleet_text) +
                             " levels of lists and maps within each other");
        }
        node made;
        made.is = is;
        /* The address holds: what is above grows only when this is closed. */
        levels_.push_back({.of = &put(mark, tag, anchor, std::move(made))});
    }

    void close() { levels_.pop_back(); }

    std::string_view text_;
    place_finder places_;
    node& root_;
    std::vector<level> levels_;
    int documents_ = 0;
};

/* A stream of bytes that lie somewhere already. */
class bytes_in_place : public std::streambuf {
public:
    explicit bytes_in_place(std::string_view text) {
        char* begin = const_cast<char*>(text.data()); // NOLINT: only read
        setg(begin, begin, begin + text.size());
    }
};

/* What the parser says, in words for those who write such files. */
std::string in_our_words(const std::string& said, std::string_view line) {
    static constexpr struct {
        std::string_view said, ours;
    } words[] = {
        {"alias not found after *",
         "a star that begins a text means something else to YAML: write it in quotes, \"*\""},
        {"referenced anchor",
         "aliases (\"*NAME\") are not read here: a text that begins with a star goes into quotes"},
        {"illegal map value",
         "a colon with a blank behind it cannot stand here: a text that has one goes into quotes, "
         "a key stands below the one before"},
        {"unknown token", "this character cannot begin a text: write the text in quotes"},
        {"end of map not found", "this line is indented differently from the others of its map"},
        {"end of sequence not found",
         "this line is indented differently from the others of its list"},
        {"end of map flow not found", "a \"{\" before here has no \"}\", or a comma is missing"},
        {"end of sequence flow not found",
         "a \"[\" before here has no \"]\", or a comma is missing"},
        {"illegal block entry", "a list that begins with \"-\" cannot begin here"},
        {"unknown escape character", "no such escape in quotes: a backslash is written \"\\\\\""},
        {"illegal EOF in scalar", "quotes before here have no end"},
        {"invalid unicode", "this \\u is no character"},
    };
    size_t first = line.find_first_not_of(" \t\r");
    if (line.substr(0, first).find('\t') != line.npos) {
        return "the line begins with a tab: indent with blanks";
    }
    for (const auto& each : words) {
        if (said.find(each.said) != said.npos) {
            return std::string(each.ours);
        }
    }
    return "this is no YAML: " + one_line(said);
}

std::string_view line_at(std::string_view text, int number) {
    for (; number > 1; number--) {
        size_t end = text.find('\n');
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
    return text.substr(0, text.find('\n'));
}

/* Nothing but "%": what the parser takes for directives, and mostly passes over. */
bool begins_with_directive(std::string_view text, size_t& at) {
    for (at = 0; at < text.size();) {
        if (text[at] == '%') {
            return true;
        }
        size_t end = std::min(text.find('\n', at), text.size());
        size_t first = text.find_first_not_of(" \t\r", at);
        if (first < end && text[first] != '#') {
            return false;
        }
        at = end + 1;
    }
    return false;
}

/* What is wrong with the bytes, whatever they say. */
bool is_sound(std::string_view text, place_finder& places, remark& wrong) {
    size_t at = 0;
    if (text.size() > longest_fleet_text) {
        wrong = {places.of(longest_fleet_text),
                 "the text is longer than 1 MB (" + std::to_string(text.size()) + " bytes)"};
    } else if ((at = first_no_utf8(text)) != text.npos) {
        wrong = {places.of(at), "this is not UTF-8"};
    } else if ((at = first_control(text, "\n\r\t")) != text.npos) {
        wrong = {places.of(at), "a control character stands here"};
    } else if ((at = first_lone_return(text)) != text.npos) {
        wrong = {places.of(at), "a carriage return stands here without a line feed"};
    } else if (std::count_if(text.begin(), text.end(), [](char c) {
                   return structure.find(c) != structure.npos;
               }) > most_structure) {
        wrong = {{1, 1}, "there are too many brackets and commas for a text of this size"};
    } else if (begins_with_directive(text, at)) {
        wrong = {places.of(at), "directives (\"%NAME\") are not read here"};
    } else {
        return true;
    }
    return false;
}

} // namespace

bool read_nodes(std::string_view text, node& root, remark& wrong) {
    root = {.at = {1, 1}};
    if (text.starts_with("\xef\xbb\xbf")) {
        text.remove_prefix(3);
    }
    place_finder places(text);
    if (!is_sound(text, places, wrong)) {
        return false;
    }
    tree_maker maker(text, root);
    try {
        bytes_in_place bytes(text);
        std::istream stream(&bytes);
        YAML::Parser parser(stream);
        while (parser.HandleNextDocument(maker)) {
        }
        return true;
    } catch (const found_wrong& w) {
        wrong = w.what;
    } catch (const YAML::Exception& e) {
        text_place at = maker.place_of(e.mark);
        wrong = {at, in_our_words(e.msg, line_at(text, at.line))};
    } catch (const std::exception& e) {
        wrong = {{1, 1}, "this cannot be read: " + one_line(e.what())};
    }
    root = {.at = {1, 1}};
    return false;
}
