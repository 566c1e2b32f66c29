#include "api/metric_text.h"

#include "base/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <strings.h>

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd"; /* U+FFFD */

void append_number(std::string& to, double value) {
    if (std::isnan(value)) {
        to += "NaN";
    } else if (std::isinf(value)) {
        to += value > 0 ? "+Inf" : "-Inf";
    } else {
        char text[32];
        auto [end, failure] = std::to_chars(text, text + sizeof(text), value);
        to.append(text, end);
    }
}

bool is_plain(char c) {
    return c >= ' ' && c < 0x7f && c != '"' && c != '\\';
}

/* Of UTF-8. */
void append_escaped(std::string& to, std::string_view text) {
    for (size_t i = 0; i < text.size(); i++) {
        auto c = static_cast<unsigned char>(text[i]);
        auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (c == '"' || c == '\\') {
            to += '\\';
            to += text[i];
        } else if (c == '\n') {
            to += "\\n";
        } else if (c < 0x20 || c == 0x7f) {
            to += replacement;
        } else if (c == 0xc2 && next < 0xa0) {
            to += replacement;
            i++;
        } else {
            to += text[i];
        }
    }
}

void append_label(std::string& to, std::string_view name, std::string_view value) {
    to.append(to.empty() ? "" : ",").append(name).append("=\"");
    if (std::all_of(value.begin(), value.end(), is_plain)) {
        to += value;
    } else {
        append_escaped(to, valid_utf8(value));
    }
    to += '"';
}

std::string_view type_word(metric_type type, metric_format format) {
    switch (type) {
    case metric_type::gauge:
        return "gauge";
    case metric_type::counter:
        return "counter";
    case metric_type::histogram:
        return "histogram";
    case metric_type::information:
        break;
    }
    return format == metric_format::open_metrics ? "info" : "gauge";
}

std::string_view suffix_of(metric_type type) {
    return type == metric_type::counter       ? "_total"
           : type == metric_type::information ? "_info"
                                              : "";
}

/* ---- Accept ---- */

std::string_view trimmed(std::string_view text) {
    size_t begin = text.find_first_not_of(" \t");
    return begin == text.npos ? std::string_view()
                              : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

bool same(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/* Calls `each` with what stands between the separators. */
template <typename Each>
void for_each_part(std::string_view text, char separator, const Each& each) {
    for (size_t end = 0; end != text.npos; text.remove_prefix(end == text.npos ? 0 : end + 1)) {
        end = text.find(separator);
        each(trimmed(text.substr(0, end)));
    }
}

/* What is asked for: a type, perhaps in a certain version, and how much. */
struct wanted_type {
    std::string_view type, version = {};
    double weight = 1;

    explicit wanted_type(std::string_view text) : type(trimmed(text.substr(0, text.find(';')))) {
        text.remove_prefix(std::min(text.find(';'), text.size() - 1) + 1);
        for_each_part(text, ';', [&](std::string_view parameter) {
            std::string_view name = trimmed(parameter.substr(0, parameter.find('=')));
            std::string_view value =
                trimmed(parameter.substr(std::min(name.size() + 1, parameter.size())));
            if (same(name, "version")) {
                version = value.starts_with('"') && value.size() > 1
                              ? value.substr(1, value.size() - 2)
                              : value;
            } else if (same(name, "q") &&
                       std::from_chars(value.data(), value.data() + value.size(), weight).ec !=
                           std::errc()) {
                weight = 1;
            }
        });
    }
};

/* How much a type is wanted: by the most exact of what is asked for. */
class weight_of_type {
public:
    weight_of_type(std::string_view type, std::string_view version)
        : names_{"*/*", std::string(type.substr(0, type.find('/') + 1)) + "*", std::string(type)},
          version_(version) {}

    void take(const wanted_type& what) {
        for (size_t i = 0; i < names_.size(); i++) {
            if (same(what.type, names_[i]) && (what.version.empty() || what.version == version_) &&
                (!exactness_ || i >= *exactness_)) {
                weight_ = exactness_ == i ? std::max(weight_, what.weight) : what.weight;
                exactness_ = i;
            }
        }
    }
    double get() const { return weight_; }

private:
    const std::array<std::string, 3> names_; /* the least exact one first */
    const std::string_view version_;
    std::optional<size_t> exactness_;
    double weight_ = 0;
};

} // namespace

metric_format metric_format_of(std::string_view accept) {
    if (trimmed(accept).empty()) {
        return metric_format::open_metrics;
    }
    weight_of_type open_metrics("application/openmetrics-text", "1.0.0");
    weight_of_type text("text/plain", "0.0.4");
    for_each_part(accept, ',', [&](std::string_view part) {
        if (!part.empty()) {
            wanted_type what(part);
            open_metrics.take(what);
            text.take(what);
        }
    });
    return open_metrics.get() > 0 && open_metrics.get() >= text.get() ? metric_format::open_metrics
                                                                      : metric_format::text;
}

std::string
label_text(std::initializer_list<std::pair<std::string_view, std::string_view>> labels) {
    std::string text;
    for (const auto& [name, value] : labels) {
        append_label(text, name, value);
    }
    return text;
}

void append_sample(std::string& to, std::string_view name, std::string_view labels, double value) {
    to += name;
    if (!labels.empty()) {
        to.append("{").append(labels).append("}");
    }
    to += ' ';
    append_number(to, value);
    to += '\n';
}

void metric_text::begin(std::string_view name, metric_type type, std::string_view unit,
                        std::string_view help) {
    const bool is_open = format_ == metric_format::open_metrics;
    name_ = name;
    sample_ = name_ + std::string(suffix_of(type));
    const std::string& family = is_open ? name_ : sample_;
    text_.append("# HELP ").append(family).append(" ").append(help).append("\n");
    text_.append("# TYPE ")
        .append(family)
        .append(" ")
        .append(type_word(type, format_))
        .append("\n");
    if (is_open && !unit.empty()) {
        text_.append("# UNIT ").append(family).append(" ").append(unit).append("\n");
    }
}

void metric_text::add(double value, std::string_view labels) {
    append_sample(text_, sample_, labels, value);
}

/* It is counted while it is read: the counts are made to rise. */
void metric_text::add(const duration_counter& histogram) {
    uint64_t count = 0;
    for (size_t i = 0; i < duration_counter::bounds.size(); i++) {
        count = std::max(count, histogram.count(i));
        std::string bound;
        append_number(bound, duration_counter::bounds[i]);
        bound += bound.find('.') == std::string::npos ? ".0" : ""; /* as OpenMetrics writes it */
        append_sample(text_, name_ + "_bucket", label_text({{"le", bound}}),
                      static_cast<double>(count));
    }
    auto all = static_cast<double>(std::max(count, histogram.all()));
    append_sample(text_, name_ + "_bucket", label_text({{"le", "+Inf"}}), all);
    append_sample(text_, name_ + "_sum", {}, histogram.sum());
    append_sample(text_, name_ + "_count", {}, all);
}

std::string metric_text::take() {
    if (format_ == metric_format::open_metrics) {
        text_ += "# EOF\n";
    }
    return std::move(text_);
}
