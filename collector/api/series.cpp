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
#include <optional>
#include <set>

namespace json = boost::json;

namespace {

constexpr int64_t usual_span_s = 86400, usual_points = 400;
size_t most_cells = 500000; /* points times values; a test makes it less */

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
     .text = "Of counters how much they rose a second, null where they fell: of SNMP objects of a "
             "counter's type, and of all values of MySQL tests, which do not say what they are. "
             "Others are left as they are."}};

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

/* Which values count up. An SNMP query that failed says nothing of its objects: so several of the
 * newest results are asked, whatever the time of the series. */
class counting_values {
public:
    counting_values(result_reader& store, const known_test_row& test) : type_(test.type) {
        if (type_ != protocol::snmp.code) {
            return;
        }
        constexpr size_t most = 20, most_bytes = 1u << 20;
        std::vector<result> newest;
        std::string ignored;
        read_results(store, test.id, std::numeric_limits<int64_t>::min(),
                     std::numeric_limits<int64_t>::max(), most, newest, ignored, nullptr,
                     most_bytes);
        for (const result& each : newest) {
            for (const std::string& record : each.records) {
                std::vector<uint32_t> some = counters_in(record);
                ids_.insert(some.begin(), some.end());
            }
        }
    }

    bool has(uint32_t id) const {
        return ids_.contains(id) || (type_ == protocol::mysql.code && id >= value_listed);
    }

private:
    const uint32_t type_;
    std::set<uint32_t> ids_;
};

/* `rates_for`: null where none are asked for. */
json::object values_of(const series& all, uint32_t type, const counting_values* rates_for) {
    json::object values;
    for (const series::column& column : all.values) {
        std::string unit(value_unit(type, column.id));
        json::object& one = values[value_name(type, column.id)].emplace_object();
        if (rates_for != nullptr && rates_for->has(column.id)) {
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

/* A test may have hundreds of values: then there are fewer points, so that an answer stays below
 * what one may have. */
bool read_fitting(result_reader& store, const known_test_row& test, int64_t from, int64_t to,
                  size_t points, series& all, std::string& error) {
    constexpr size_t most_values = max_listed + 16;
    const size_t few = std::max<size_t>(most_cells / most_values, 1);
    const bool has_list = test.type == protocol::snmp.code || test.type == protocol::mysql.code;
    const size_t first = has_list ? std::min(points, few) : points;
    bool ok = read_series(store, test.id, from, to, first, all, error);
    const size_t fitting = std::min(points, most_cells / std::max<size_t>(all.values.size(), 1));
    if (ok && fitting > first) {
        ok = read_series(store, test.id, from, to, fitting, all, error);
    }
    return ok;
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
    check_span(from, to);
    reader_pool::lent store = with.stored.lend(asked.deadline);
    const known_test_row test = find_test(*store, id_in_path(asked, "test"));
    series all;
    std::string error;
    bool ok =
        read_fitting(*store, test, from, to,
                     static_cast<size_t>(number_or(asked, "points", usual_points)), all, error);
    if (!ok) {
        check_deadline(asked);
    }
    cut_off(all, now);
    std::optional<counting_values> rates_for;
    if (is_set(asked, "rate")) {
        rates_for.emplace(*store, test);
    }
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
                        {"values", values_of(all, test.type, rates_for ? &*rates_for : nullptr)},
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
