#include "api/last_results.h"

#include "state/history.h"

/* No more are looked at where they lie, so that a page of tests has bounded work. */
static constexpr size_t most_in_block = 20000;

const last_results::block& last_results::read(block& into, int64_t row) {
    if (into.row == row) {
        return into;
    }
    into = {};
    into.row = row;
    std::string ignored; /* it is looked for elsewhere then */
    store_.for_each_block(
        row,
        [&](const open_block& found) {
            into.before = found.before;
            size_t count = 0;
            for (block_reader reader(found.records); count < most_in_block && reader.next();) {
                record_summary what = reader.good ? summarize(reader.current) : record_summary{};
                if (what.test) {
                    into.records[{what.type, *what.test}].push_back(
                        {found.received, std::string(reader.current.raw)});
                    count++;
                }
            }
            return false;
        },
        ignored);
    return into;
}

/* In the block that has the test's last record, and the one before it, in which the pass may have
 * begun. */
std::optional<result> last_results::find_open(const test_status& test) {
    const key wanted(test.type, test.number.value_or(0));
    const block& last = read(last_, test.block);
    auto found = last.records.find(wanted);
    if (found == last.records.end()) {
        return std::nullopt;
    }
    result_builder builder(false);
    auto add = [&](const std::vector<arrived>& records) {
        for (const arrived& each : records) {
            builder.add(each.record, each.received);
        }
    };
    if (found->second.size() < test.parts && last.before != 0) {
        const block& before = read(before_, last.before);
        auto more = before.records.find(wanted);
        if (more != before.records.end()) {
            add(more->second);
        }
    }
    add(found->second);
    std::vector<result> all = builder.take_all();
    for (auto each = all.rbegin(); each != all.rend(); ++each) {
        if (each->time == test.time) {
            return std::move(*each);
        }
    }
    return std::nullopt;
}

result last_results::of(const test_status& test, std::string& error) {
    if (test.now == state::unknown || !test.number) {
        return {.type = test.type};
    }
    if (std::optional<result> open = find_open(test)) {
        return std::move(*open);
    }
    std::vector<result> found;
    std::string reason;
    if (!read_results(store_, test.id, test.time, test.time + 1, 1, found, reason) &&
        error.empty()) {
        error = reason;
    }
    return !found.empty() ? std::move(found[0]) : result{.type = test.type};
}
