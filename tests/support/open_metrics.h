/* Whether a text is OpenMetrics 1.0, as far as the collector uses it. Written apart from what makes
 * it: a line that is not known here is an error. */
#ifndef OPEN_METRICS_H
#define OPEN_METRICS_H

#include <cmath>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class open_metrics {
public:
    /* "" when it is; else which line is not, and why. */
    std::string read(std::string_view text) {
        samples.clear();
        families_.clear();
        size_t number = 0;
        bool ended = false;
        while (!text.empty()) {
            size_t end = text.find('\n');
            std::string line(text.substr(0, end));
            std::string at = "line " + std::to_string(++number) + " (" + line + "): ";
            if (end == text.npos) {
                return at + "has no end";
            }
            text.remove_prefix(end + 1);
            if (ended) {
                return at + "stands behind the end";
            }
            ended = line == "# EOF";
            std::string why = ended ? "" : line.starts_with("# ") ? meta(line) : sample(line);
            if (!why.empty()) {
                return at + why;
            }
        }
        return ended ? finish() : "there is no # EOF";
    }

    /* 'name{label="value",...}', labels by name and as they are meant, not as they are written. */
    std::map<std::string, double> samples;

    /* NaN when there is none. */
    double value(const std::string& series) const {
        auto found = samples.find(series);
        return found != samples.end() ? found->second : std::nan("");
    }
    /* How many series there are of a name. */
    size_t count(const std::string& name) const {
        size_t all = 0;
        for (const auto& [series, value] : samples) {
            all += series == name || series.starts_with(name + "{") ? 1 : 0;
        }
        return all;
    }

private:
    struct bucket {
        double bound, count;
    };
    struct histogram {
        std::vector<bucket> buckets;
        double count = -1;
        bool has_sum = false;
    };
    struct family {
        std::string type, unit;
        bool has_help = false, has_samples = false;
        std::map<std::string, histogram> histograms; /* by labels */
    };

    static bool is_letter(char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    }
    static bool is_name(std::string_view text) {
        if (text.empty() || !is_letter(text[0])) {
            return false;
        }
        for (char c : text) {
            if (!is_letter(c) && (c < '0' || c > '9')) {
                return false;
            }
        }
        return true;
    }

    /* Well-formed, shortest form, no surrogates; and no control characters. */
    static bool is_text(std::string_view text) {
        for (size_t i = 0; i < text.size();) {
            auto first = static_cast<unsigned char>(text[i]);
            int more = first < 0x80                    ? 0
                       : first >= 0xc2 && first < 0xe0 ? 1
                       : first >= 0xe0 && first < 0xf0 ? 2
                       : first >= 0xf0 && first < 0xf5 ? 3
                                                       : -1;
            if (more < 0 || i + static_cast<size_t>(more) >= text.size() || first < 0x20 ||
                first == 0x7f) {
                return false;
            }
            unsigned value = more == 0 ? first : first & (0x3fu >> more);
            for (int k = 1; k <= more; k++) {
                auto next = static_cast<unsigned char>(text[i + static_cast<size_t>(k)]);
                if ((next & 0xc0) != 0x80) {
                    return false;
                }
                value = value << 6 | (next & 0x3fu);
            }
            if ((more == 2 && value < 0x800) || (more == 3 && value < 0x10000) ||
                value > 0x10ffff || (value >= 0xd800 && value < 0xe000) ||
                (value >= 0x80 && value < 0xa0)) {
                return false;
            }
            i += static_cast<size_t>(more) + 1;
        }
        return true;
    }

    std::string meta(const std::string& line) {
        size_t word_end = line.find(' ', 2);
        size_t name_end = word_end == line.npos ? line.npos : line.find(' ', word_end + 1);
        if (name_end == line.npos) {
            return "is no comment of this format";
        }
        const std::string word = line.substr(2, word_end - 2);
        const std::string name = line.substr(word_end + 1, name_end - word_end - 1);
        const std::string rest = line.substr(name_end + 1);
        if (!is_name(name)) {
            return name + " is no name";
        }
        if (name != current_) {
            if (families_.contains(name)) {
                return name + " was begun before";
            }
            current_ = name;
        }
        family& of = families_[name];
        if (of.has_samples) {
            return "stands behind samples";
        }
        if (word == "HELP") {
            if (of.has_help || rest.empty() || !is_text(rest) ||
                rest.find_first_of("\\\"") != rest.npos) {
                return "is a wrong help";
            }
            of.has_help = true;
        } else if (word == "TYPE") {
            static const std::set<std::string> types = {"gauge", "counter", "histogram", "info"};
            if (!of.type.empty() || !types.contains(rest)) {
                return "is a wrong type";
            }
            of.type = rest;
        } else if (word == "UNIT") {
            if (!of.unit.empty() || !is_name(rest) || !name.ends_with("_" + rest)) {
                return "is a wrong unit";
            }
            of.unit = rest;
        } else {
            return word + " is not known";
        }
        return "";
    }

    using labels = std::map<std::string, std::string>;

    /* From behind the brace; `at` is then behind the other. */
    static std::string read_labels(const std::string& line, size_t& at, labels& found) {
        while (at < line.size()) {
            size_t equals = line.find('=', at);
            if (equals == line.npos || equals + 1 >= line.size() || line[equals + 1] != '"') {
                return "a label has no value";
            }
            std::string name = line.substr(at, equals - at), value;
            bool is_open = true;
            for (at = equals + 2; at < line.size() && is_open; at++) {
                if (line[at] == '"') {
                    is_open = false;
                } else if (line[at] == '\\') {
                    at++;
                    char c = at < line.size() ? line[at] : '\0';
                    if (c != '\\' && c != '"' && c != 'n') {
                        return "a wrong escape";
                    }
                    value += c == 'n' ? '\n' : c;
                } else {
                    value += line[at];
                }
            }
            std::string plain = value;
            for (char& c : plain) {
                c = c == '\n' ? ' ' : c;
            }
            if (is_open || !is_name(name) || !is_text(plain)) {
                return "a wrong label " + name;
            }
            if (!found.emplace(name, value).second) {
                return "a label twice";
            }
            char next = at < line.size() ? line[at] : '\0';
            at++;
            if (next == '}') {
                return "";
            }
            if (next != ',') {
                return "no comma between labels";
            }
        }
        return "labels without an end";
    }

    static std::string series(const std::string& name, const labels& all) {
        std::string text;
        for (const auto& [label, value] : all) {
            text += (text.empty() ? "{" : ",") + label + "=\"" + value + "\"";
        }
        return name + text + (text.empty() ? "" : "}");
    }

    std::string sample(const std::string& line) {
        size_t at = line.find_first_of("{ ");
        if (at == line.npos) {
            return "is no sample";
        }
        const std::string name = line.substr(0, at);
        labels found;
        if (line[at] == '{') {
            at++;
            std::string why = read_labels(line, at, found);
            if (!why.empty()) {
                return why;
            }
        }
        if (at >= line.size() || line[at] != ' ') {
            return "has no space before its value";
        }
        const std::string number = line.substr(at + 1);
        char* end = nullptr;
        double value = std::strtod(number.c_str(), &end);
        if (number.empty() || *end != '\0' || number.find_first_of(" xX") != number.npos) {
            return "is no number";
        }
        if (!samples.emplace(series(name, found), value).second) {
            return "is there twice";
        }
        if (families_.empty()) {
            return "is of no family";
        }
        family& of = families_[current_];
        of.has_samples = true;
        return check_sample(of, name, found, value);
    }

    std::string check_sample(family& of, const std::string& name, labels& found, double value) {
        const std::string suffix =
            name.starts_with(current_) ? name.substr(current_.size()) : "none";
        if (of.type.empty() || !of.has_help) {
            return "has no type or help";
        }
        if (of.type == "gauge") {
            return suffix.empty() ? "" : "is not of the family";
        }
        if (of.type == "info") {
            return suffix == "_info" && value == 1 ? "" : "is no information";
        }
        if (std::isnan(value) || value < 0) {
            return "is no count";
        }
        if (of.type == "counter") {
            return suffix == "_total" ? "" : "is not of the family";
        }
        auto bound = found.find("le");
        if ((suffix == "_bucket") != (bound != found.end())) {
            return "has a bound, or has none";
        }
        if (suffix == "_bucket") {
            const std::string text = bound->second;
            if (text.find('.') == text.npos && text.find('e') == text.npos && text != "+Inf") {
                return "has a bound that is written otherwise";
            }
            found.erase(bound);
            std::vector<bucket>& all = of.histograms[series("", found)].buckets;
            double least = std::strtod(text.c_str(), nullptr);
            if (!all.empty() && (all.back().bound >= least || all.back().count > value)) {
                return "does not rise";
            }
            all.push_back({least, value});
        } else if (suffix == "_count") {
            of.histograms[series("", found)].count = value;
        } else if (suffix == "_sum") {
            of.histograms[series("", found)].has_sum = true;
        } else {
            return "is not of the family";
        }
        return "";
    }

    std::string finish() const {
        for (const auto& [name, of] : families_) {
            for (const auto& [series, all] : of.histograms) {
                if (all.buckets.empty() || !std::isinf(all.buckets.back().bound) || !all.has_sum ||
                    all.count != all.buckets.back().count) {
                    return "the histogram " + name + " is not whole";
                }
            }
        }
        return "";
    }

    std::map<std::string, family> families_;
    std::string current_;
};

#endif
