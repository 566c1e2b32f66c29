/* Results of a test as they came, newest first. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/find.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "base/files.h"
#include "ingest/hash.h"
#include "state/history.h"

#include <limits>

namespace json = boost::json;

namespace {

const parameter_def list_parameters[] = {
    {.name = "from", .kind = parameter_kind::time, .text = "Only results from this time on."},
    {.name = "to", .kind = parameter_kind::time, .text = "Only results before this time."},
    limit_parameter,
    next_parameter};

/* By what a result is known among those of its time. */
std::string mark_of(const result& r) {
    running_hash hash;
    for (const std::string& record : r.records) {
        hash.add(record);
    }
    return hex(view_of(hash.finish()).substr(0, 8)) + "." + std::to_string(r.received);
}

/* How many of the place's time came before it, and what is in their records; the numbers are
 * anybody's. */
struct passed_already {
    int64_t results = 0, bytes = 0;

    passed_already() = default;
    explicit passed_already(const std::vector<std::string>& place)
        : results(std::clamp<int64_t>(number_in(place[2]), 0, 100000)),
          bytes(std::clamp<int64_t>(number_in(place[3]), 0, max_result_bytes)) {}
    void add(const result& r) {
        results++;
        for (const std::string& record : r.records) {
            bytes += static_cast<int64_t>(record.size());
        }
    }
};

struct results_page {
    std::vector<result> found;
    bool more = false;
};

/* Those behind the one that `mark` names, which is one of time `to` - 1. Where it is there no more,
 * those of its time are passed over. */
bool skip_to(std::vector<result>& found, int64_t time, const std::string& mark) {
    for (size_t i = 0; i < found.size() && found[i].time == time; i++) {
        if (mark_of(found[i]) == mark) {
            found.erase(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            return true;
        }
    }
    return false;
}

/* New results may come at any time and any place; what was in an answer already does not come
 * again. */
results_page read_page(result_reader& store, int64_t test, int64_t from, int64_t to, size_t limit,
                       const std::optional<std::vector<std::string>>& behind, std::string& error) {
    results_page page;
    if (!behind) {
        read_results(store, test, from, to, limit + 1, page.found, error, &page.more,
                     most_list_bytes);
        return page;
    }
    int64_t time = number_in((*behind)[0]);
    if (time >= to || time < from) {
        throw_bad_request("`next` goes on outside of the time asked for: ask for the same one.");
    }
    const passed_already passed(*behind);
    const size_t most = limit + 1 + static_cast<size_t>(passed.results);
    /* With room for one that is large, when the first behind the place is. */
    for (size_t bytes :
         {most_list_bytes + static_cast<size_t>(passed.bytes), 2 * max_result_bytes}) {
        read_results(store, test, from, time + 1, most, page.found, error, &page.more, bytes);
        bool is_there = skip_to(page.found, time, (*behind)[1]);
        if (is_there && (!page.found.empty() || !page.more)) {
            return page;
        }
        if (!page.more) {
            break;
        }
    }
    read_results(store, test, from, time, limit + 1, page.found, error, &page.more,
                 most_list_bytes);
    return page;
}

api_answer list_results(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    const int64_t test = find_test(*store, id_in_path(asked, "test")).id;
    const size_t limit = limit_of(asked);
    const auto behind = place_of(asked, 4);
    std::string error, next;
    const int64_t from = time_of(asked, "from").value_or(std::numeric_limits<int64_t>::min());
    const int64_t to = time_of(asked, "to").value_or(std::numeric_limits<int64_t>::max());
    check_span(from, to);
    results_page page = read_page(*store, test, from, to, limit, behind, error);
    json::array items;
    size_t bytes = 0;
    bool is_all = true;
    const result* last = nullptr;
    for (const result& each : page.found) {
        check_deadline(asked);
        if (items.size() == limit) {
            is_all = false;
            break;
        }
        json::object item = json_result(each);
        bytes += weight_of(item);
        if (bytes > most_list_bytes && last != nullptr) {
            is_all = false;
            break;
        }
        items.push_back(std::move(item));
        last = &each;
    }
    if (last != nullptr && (!is_all || page.more)) {
        passed_already passed;
        if (behind && number_in((*behind)[0]) == last->time) {
            passed = passed_already(*behind);
        }
        for (const result* each = page.found.data(); each <= last; each++) {
            if (each->time == last->time) {
                passed.add(*each);
            }
        }
        next = next_text({std::to_string(last->time), mark_of(*last),
                          std::to_string(passed.results), std::to_string(passed.bytes)});
    }
    return answer_with(list_of(asked, std::move(items), next, error));
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/tests/{test}/results",
     .least = role::viewer,
     .summary = "Results of a test, newest first, each with all its parts, for as long as results "
                "are kept as they came.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "results",
     .status = 200,
     .handler = list_results}};

} // namespace

std::span<const route> result_routes() {
    return rows;
}
