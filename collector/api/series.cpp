/* Curves of a test's values. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/find.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "state/history.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace json = boost::json;

namespace {

constexpr int64_t usual_span_s = 86400, usual_points = 400;

const parameter_def series_parameters[] = {
    {.name = "from",
     .kind = parameter_kind::time,
     .text = "Where it begins; a day before `to` when it is not given."},
    {.name = "to",
     .kind = parameter_kind::time,
     .text = "Where it ends; now when it is not given, or lies in the future."},
    {.name = "points",
     .kind = parameter_kind::number,
     .text = "About how many points, or fewer; 400 when it is not given. By them and by what is "
             "still kept it is chosen whether every result is a point, or 5 minutes, an hour or "
             "several are.",
     .least = 1,
     .most = max_points},
    {.name = "rate",
     .kind = parameter_kind::flag,
     .text = "Of values that count up, such as an SNMP counter: how much a second, null where they "
             "fell."}};

template <typename T>
json::array column_of(const std::vector<T>& values) {
    json::array all;
    all.reserve(values.size());
    for (const T& value : values) {
        all.emplace_back(value); /* NaN is written as null */
    }
    return all;
}

/* From the point before that has something to the next: what a counter came to at the end of each
 * is the highest it had. One that is lower than what was before has begun anew in between, and
 * nobody knows how far it had come. */
std::vector<double> rates_of(const series& all, const series::column& column) {
    std::vector<double> rates(all.time.size(), std::numeric_limits<double>::quiet_NaN());
    size_t before = all.time.size();
    for (size_t i = 0; i < all.time.size(); i++) {
        if (!std::isfinite(column.max[i])) {
            continue;
        }
        if (before < i && all.time[i] > all.time[before] && column.min[i] >= column.max[before]) {
            rates[i] = (column.max[i] - column.max[before]) /
                       static_cast<double>(all.time[i] - all.time[before]);
        }
        before = i;
    }
    return rates;
}

json::object values_of(const series& all, uint32_t type, bool as_rates) {
    json::object values;
    for (const series::column& column : all.values) {
        std::string unit(value_unit(type, column.id));
        json::object& one = values[value_name(type, column.id)].emplace_object();
        if (as_rates) {
            json::array rates = column_of(rates_of(all, column));
            one = {{"unit", unit + "/s"}, {"min", rates}, {"mean", rates}, {"max", rates}};
        } else {
            one = {{"unit", unit},
                   {"min", column_of(column.min)},
                   {"mean", column_of(column.mean)},
                   {"max", column_of(column.max)}};
        }
    }
    return values;
}

/* Points that lie in the future, and what of the last one does: nobody knows yet. */
void cut_off(series& all, int64_t now) {
    size_t count = all.time.size();
    while (all.resolution > 0 && count > 0 && all.time[count - 1] > now) {
        count--;
    }
    auto cut = [&](auto& column) { column.resize(std::min(column.size(), count)); };
    cut(all.time);
    cut(all.count);
    cut(all.ok);
    cut(all.problem);
    cut(all.unknown);
    for (series::column& column : all.values) {
        cut(column.min);
        cut(column.mean);
        cut(column.max);
    }
    if (all.resolution > 0 && count > 0) {
        int64_t ahead = all.time[count - 1] + all.resolution - now;
        uint32_t& unknown = all.unknown[count - 1];
        unknown -= static_cast<uint32_t>(std::clamp<int64_t>(ahead, 0, unknown));
    }
}

json::array definitions_of(const series& all) {
    json::array definitions;
    for (const definition_pointer& each : all.definitions) {
        definitions.push_back(json_definition(each.get()));
    }
    return definitions;
}

api_answer one_series(const api_request& asked, api_services& with) {
    const int64_t now = with.now();
    /* Results of this second belong to it. */
    const int64_t to = std::min(time_of(asked, "to").value_or(now + 1), now + 1);
    const int64_t from = time_of(asked, "from").value_or(to - usual_span_s);
    if (from >= to) {
        throw_bad_request("`from` (" + time_text(from) + ") does not lie before `to` (" +
                          time_text(to) + ").");
    }
    reader_pool::lent store = with.stored.lend();
    const known_test_row test = find_test(*store, id_in_path(asked, "test"));
    series all;
    std::string error;
    bool ok =
        read_series(*store, test.id, from, to,
                    static_cast<size_t>(number_or(asked, "points", usual_points)), all, error);
    cut_off(all, now);
    json::array time;
    time.reserve(all.time.size());
    for (int64_t each : all.time) {
        time.emplace_back(time_text(each));
    }
    json::object object{{"test", test.id},
                        {"from", time_text(all.from)},
                        {"to", time_text(all.to)},
                        {"resolution", all.resolution},
                        {"time", std::move(time)},
                        {"count", column_of(all.count)},
                        {"values", values_of(all, test.type, is_set(asked, "rate"))},
                        {"state", json::object{{"ok", column_of(all.ok)},
                                               {"problem", column_of(all.problem)},
                                               {"unknown", column_of(all.unknown)}}},
                        {"definitions", definitions_of(all)}};
    if (!ok) {
        object.emplace("incomplete", error);
    }
    return answer_with(object);
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/tests/{test}/series",
     .least = role::viewer,
     .summary = "Columns of time, count, lowest, mean and highest of each value, and the seconds "
                "in each state.",
     .parameters = series_parameters,
     .takes = "",
     .answers = "series",
     .status = 200,
     .handler = one_series}};

} // namespace

std::span<const route> series_routes() {
    return rows;
}
