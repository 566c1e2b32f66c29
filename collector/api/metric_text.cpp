#include "api/metric_text.h"

#include "api/accept.h"
#include "base/text.h"

#include <algorithm>
#include <charconv>
#include <cmath>

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

} // namespace

metric_format metric_format_of(std::string_view accept) {
    if (accept.find_first_not_of(" \t") == accept.npos) {
        return metric_format::open_metrics;
    }
    const double open_metrics = wanted(accept, "application/openmetrics-text", "1.0.0");
    return open_metrics > 0 && open_metrics >= wanted(accept, "text/plain", "0.0.4")
               ? metric_format::open_metrics
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
