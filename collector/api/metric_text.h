/* Measurements as Prometheus reads them: OpenMetrics 1.0, or the older text format 0.0.4, which
 * differs in a few lines. No knowledge of what is measured.
 *
 * FAMILIES  All samples of a name stand together, behind the lines that say what it is. Its name is
 * given without the suffix of its samples: a counter's are "_total", an information's "_info"; of a
 * unit the name ends in it. The older format names counters and informations with the suffix, and
 * has neither units nor "# EOF".
 *
 * LABELS  hold any text: what is no UTF-8, and control characters but the line end, become U+FFFD,
 * because one such byte would have the whole answer refused. */
#ifndef VINDRAL_COLLECTOR_API_METRIC_TEXT_H
#define VINDRAL_COLLECTOR_API_METRIC_TEXT_H

#include "ingest/counters.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

enum class metric_format : uint8_t { open_metrics, text };
enum class metric_type : uint8_t { gauge, counter, histogram, information };

/* Of the answer: "application/openmetrics-text; version=1.0.0; charset=utf-8". */
inline constexpr const char* open_metrics_type =
    "application/openmetrics-text; version=1.0.0; charset=utf-8";
inline constexpr const char* metric_text_type = "text/plain; version=0.0.4; charset=utf-8";

/* What an Accept header (empty: none) wants: OpenMetrics unless it wants the other more. */
metric_format metric_format_of(std::string_view accept);

/* 'name="value",name="value"'. Names are ours, values anybody's. */
std::string label_text(std::initializer_list<std::pair<std::string_view, std::string_view>> labels);

/* A line 'name{labels} value'. */
void append_sample(std::string& to, std::string_view name, std::string_view labels, double value);

class metric_text {
public:
    explicit metric_text(metric_format format) : format_(format) {}

    /* Begins a family; `help` is a sentence for people, in one line. */
    void begin(std::string_view name, metric_type type, std::string_view unit,
               std::string_view help);
    /* Of the family that was begun last; labels as of label_text(). */
    void add(double value, std::string_view labels = {});
    void add(const duration_counter& histogram);
    /* Lines of append_sample(), of that family. */
    void add_lines(std::string_view lines) { text_ += lines; }

    /* A family of one sample. */
    void one(std::string_view name, metric_type type, std::string_view unit, std::string_view help,
             double value) {
        begin(name, type, unit, help);
        add(value);
    }

    std::string take();

private:
    const metric_format format_;
    std::string text_, name_, sample_; /* of the family, and of its samples */
};

#endif
