/* series: the curves of a test's values. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/plot.h"
#include "ctl/text.h"
#include "ctl/times.h"

#include <algorithm>

namespace json = boost::json;

namespace {

constexpr int64_t rows_of_one = 12, rows_of_several = 6;

std::vector<double> reals_in(const json::object& of, std::string_view name, size_t count) {
    std::vector<double> all;
    for (const json::value& each : list_in(of, name)) {
        all.push_back(real_of(each));
    }
    all.resize(count, real_of(nullptr));
    return all;
}

std::vector<int64_t> numbers_in(const json::object& of, std::string_view name, size_t count) {
    std::vector<int64_t> all;
    for (const json::value& each : list_in(of, name)) {
        all.push_back(each.is_int64() ? each.get_int64() : 0);
    }
    all.resize(count, 0);
    return all;
}

int64_t time_in(const json::object& of, std::string_view name) {
    return read_rfc3339(text_in(of, name)).value_or(0);
}

plot_series series_of(const json::object& answer) {
    plot_series all;
    all.from = time_in(answer, "from");
    all.to = time_in(answer, "to");
    all.resolution = std::max<int64_t>(number_in(answer, "resolution"), 0);
    int64_t last = all.from;
    for (const json::value& each : list_in(answer, "time")) {
        std::string text = each.is_string() ? std::string(each.get_string()) : "";
        last = std::max(last, read_rfc3339(text).value_or(last));
        all.time.push_back(last);
    }
    const size_t count = all.time.size();
    const json::object& state = object_in(answer, "state");
    all.ok = numbers_in(state, "ok", count);
    all.problem = numbers_in(state, "problem", count);
    all.unknown = numbers_in(state, "unknown", count);
    for (const json::key_value_pair& each : object_in(answer, "values")) {
        if (each.value().is_object()) {
            const json::object& value = each.value().get_object();
            all.curves.push_back({std::string(each.key()), text_in(value, "unit"),
                                  reals_in(value, "min", count), reals_in(value, "mean", count),
                                  reals_in(value, "max", count)});
        }
    }
    return all;
}

/* Those that --value names, in its order; all that have values when it is not given. */
std::vector<const plot_curve*> chosen_curves(const given& said, const plot_series& all) {
    std::vector<const plot_curve*> chosen;
    std::string names;
    for (const plot_curve& each : all.curves) {
        names += (names.empty() ? "" : ", ") + printable(each.name);
        if (said.values.empty() && each.has_values()) {
            chosen.push_back(&each);
        }
    }
    for (const std::string& wanted : said.values) {
        auto found = std::find_if(all.curves.begin(), all.curves.end(),
                                  [&](const plot_curve& each) { return each.name == wanted; });
        if (found == all.curves.end()) {
            throw failure{status_absent,
                          "the test has no value \"" + printable(wanted) + "\"" +
                              (names.empty() ? " in this time" : "; it has " + names)};
        }
        chosen.push_back(&*found);
    }
    return chosen;
}

std::string points_text(const plot_series& all) {
    return std::to_string(all.time.size()) +
           (all.resolution == 0 ? " results" : " points of " + span_text(all.resolution));
}

json::object ask_series(const place& here, int64_t test, const std::string& from) {
    /* As many as there are dots across. */
    const auto usual_points = static_cast<int64_t>(2 * here.on.picture_width());
    return here.with.get("/api/v1/tests/" + std::to_string(test) + "/series",
                         {{"from", from},
                          {"to", time_parameter(here, here.said.to, "--to")},
                          {"points", here.said.points != not_given || here.said.json
                                         ? number_parameter(here.said.points)
                                         : std::to_string(usual_points)},
                          {"rate", here.said.rate ? "1" : ""}});
}

/* When the first result is so late that half of the picture would be empty; 0 when it is not. */
int64_t late_begin(const json::object& answer) {
    const plot_series all = series_of(answer);
    const std::vector<int64_t> count = numbers_in(answer, "count", all.time.size());
    const auto first = std::find_if(count.begin(), count.end(), [](int64_t n) { return n > 0; });
    if (first == count.end()) {
        return 0;
    }
    const int64_t begin = all.time[static_cast<size_t>(first - count.begin())];
    return begin - all.from > (all.to - all.from) / 2 ? begin : 0;
}

} // namespace

int run_series(const place& here) {
    const found_thing test = find_test(here.with, here.said.word);
    json::object answer = ask_series(here, test.id, time_parameter(here, here.said.from, "--from"));
    if (!here.said.json && here.said.from.empty()) { /* the last day; a new test has less */
        /* Each time the points are finer. */
        for (int64_t begin = late_begin(answer), i = 0; begin != 0 && i < 3; i++) {
            answer = ask_series(here, test.id, rfc3339(begin));
            begin = late_begin(answer);
        }
    }
    const std::string incomplete = printable(text_in(answer, "incomplete"));
    if (here.said.json) {
        put(json_text(answer) + "\n");
    } else {
        const plot_series all = series_of(answer);
        const std::vector<const plot_curve*> curves = chosen_curves(here.said, all);
        const int64_t rows = here.said.height != not_given ? here.said.height
                             : curves.size() == 1          ? rows_of_one
                                                           : rows_of_several;
        std::string text = tinted(printable(test.called, here.on.ascii), tint::strong, here.on) +
                           ", " + local_time(all.from) + " to " + local_time(all.to) + ", " +
                           points_text(all) + "\n";
        for (const plot_curve* each : curves) {
            text += "\n" + plot_text(all, *each, static_cast<size_t>(rows), here.on);
        }
        put(text);
        if (curves.empty()) {
            tell("there are no values in this time");
        }
    }
    if (!incomplete.empty()) {
        tell("this is not everything: " + incomplete);
        return status_wrong;
    }
    return status_well;
}
