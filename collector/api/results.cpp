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

/* Records in an answer; beyond it there are fewer results than asked for, but one at least. */
constexpr size_t most_bytes = 4u << 20;

/* By what a result is known among those of its time. */
std::string mark_of(const result& r) {
    running_hash hash;
    for (const std::string& record : r.records) {
        hash.add(record);
    }
    return hex(view_of(hash.finish()).substr(0, 8)) + "." + std::to_string(r.received);
}

/* How many of the place's time came before it; the number is anybody's. */
int64_t same_before(const std::vector<std::string>& place) {
    return std::clamp<int64_t>(number_in(place[2]), 0, 100000);
}

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
        read_results(store, test, from, to, limit + 1, page.found, error, &page.more);
        return page;
    }
    int64_t time = number_in((*behind)[0]);
    if (time >= to || time < from) {
        throw_bad_request("`next` goes on outside of the time asked for: ask for the same one.");
    }
    size_t most = limit + 1 + static_cast<size_t>(same_before(*behind));
    read_results(store, test, from, time + 1, most, page.found, error, &page.more);
    if (!skip_to(page.found, time, (*behind)[1])) {
        read_results(store, test, from, time, limit + 1, page.found, error, &page.more);
    }
    return page;
}

api_answer list_results(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend();
    const int64_t test = find_test(*store, id_in_path(asked, "test")).id;
    const size_t limit = limit_of(asked);
    const auto behind = place_of(asked, 3);
    std::string error, next;
    results_page page = read_page(
        *store, test, time_of(asked, "from").value_or(std::numeric_limits<int64_t>::min()),
        time_of(asked, "to").value_or(std::numeric_limits<int64_t>::max()), limit, behind, error);
    json::array items;
    size_t bytes = 0;
    bool is_all = true;
    const result* last = nullptr;
    for (const result& each : page.found) {
        check_deadline(asked);
        for (const std::string& record : each.records) {
            bytes += record.size();
        }
        if (items.size() == limit || (bytes > most_bytes && last != nullptr)) {
            is_all = false;
            break;
        }
        items.push_back(json_result(each));
        last = &each;
    }
    if (last != nullptr && (!is_all || page.more)) {
        /* How many of its time were in this answer and those before it. */
        int64_t same = 0;
        for (const result& each : page.found) {
            same += each.time == last->time ? 1 : 0;
        }
        if (behind && number_in((*behind)[0]) == last->time) {
            same += same_before(*behind);
        }
        next = next_text({std::to_string(last->time), mark_of(*last), std::to_string(same)});
    }
    return answer_with(list_of(std::move(items), next, error));
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
