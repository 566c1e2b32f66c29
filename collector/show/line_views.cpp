#include "base/record_summary.h"
#include "base/text.h"
#include "protocol/record.h"
#include "show/json.h"
#include "show/record_text.h"
#include "show/view.h"

#include <cstdint>
#include <map>
#include <optional>
#include <tuple>

namespace {

class line_view : public view {
public:
    void show_problem(std::string_view text, std::string&, std::string& problems) override {
        problems += "vindral-collector: " + printable(text) + "\n";
    }
};

/* What somebody called the test of a record. */
std::optional<called_test> name_of(const event& e, const test_names& names) {
    const record_summary& summary = e.result.summary;
    return summary.test ? names.name_of(e.account, e.agent, summary.type, *summary.test)
                        : std::nullopt;
}

class json_view final : public line_view {
public:
    explicit json_view(const test_names& names) : names_(names) {}
    void show_record(const event& e, std::string& out) override {
        out += record_json(e.account, e.agent, e.received, e.result.content, name_of(e, names_)) +
               "\n";
    }

private:
    const test_names& names_;
};

class quiet_view final : public line_view {
public:
    bool shows_records() const override { return false; }
    void show_record(const event&, std::string&) override {}
};

/* "web1 load average 5", "web1 type 99" for a record that belongs to no test we know, or "front
 * page on web1 (https://shop.example.org/)". */
std::string test_name(const event& e, const test_names& names) {
    const record_summary& summary = e.result.summary;
    if (std::optional<called_test> called = name_of(e, names)) {
        return called->name + " on " + printable(e.agent) +
               (called->target.empty() ? "" : " (" + called->target + ")");
    }
    std::string name = printable(e.agent) + " " + type_name(summary.type);
    return summary.test ? name + " " + std::to_string(*summary.test) : name;
}

constexpr size_t max_in_line = 16u << 10; /* bytes of values, and of a message */

class plain_view final : public line_view {
public:
    explicit plain_view(const test_names& names) : names_(names) {}
    void show_record(const event& e, std::string& out) override {
        const auto& [r, summary] = e.result;
        out += utc_time(summary.time.value_or(e.received)) + " " + test_name(e, names_) + ": ";
        if (std::optional<int32_t> status = judge(r, summary).status) {
            out += status_word(summary.type, *status) + ", ";
        }
        out += printable(values_text(r, summary, max_in_line));
        std::string message = message_of(r, summary);
        bool whole = message.size() <= max_in_line;
        message = printable(std::string_view(message).substr(0, max_in_line));
        out += (message.empty() ? "" : ", " + message) + (whole ? "\n" : " ...\n");
    }

private:
    const test_names& names_;
};

/* Plain lines for what changes between good and bad, few enough for a journal. */
class problem_view final : public line_view {
public:
    explicit problem_view(const test_names& names) : plain_(names) {}

    /* What was bad with an agent that is retired is news when it comes back. */
    void take(const event& e) override {
        if (e.kind == event_kind::retired) {
            key first{std::string(e.account), std::string(e.agent), 0, INT32_MIN, 0};
            auto is_its = [&](const key& test) {
                return std::get<0>(test) == e.account && std::get<1>(test) == e.agent;
            };
            for (auto it = bad_.lower_bound(first); it != bad_.end() && is_its(it->first);) {
                it = forget(it);
            }
        }
    }

    void show_record(const event& e, std::string& out) override {
        const auto& [r, summary] = e.result;
        std::optional<int32_t> status = judge(r, summary).status;
        if (summary.test && status && is_news(e, r, summary.type, *summary.test, *status)) {
            plain_.show_record(e, out);
        }
    }

private:
    /* Account, agent, record type, test id, and for a process its id: a test of processes has a
     * record for each, with id 0 when there is none. */
    using key = std::tuple<std::string, std::string, uint32_t, int32_t, uint32_t>;
    enum { max_known_bytes = 16 << 20 };

    bool is_news(const event& e, const record& r, uint32_t type, int32_t id, int32_t status) {
        uint32_t process = type == protocol::process.code ? r.ui32[3] : 0;
        key test = {std::string(e.account), std::string(e.agent), type, id, process};
        bool was_bad = false;
        if (type == protocol::process.code) {
            was_bad = forget_other_processes(test);
        }
        auto known = bad_.find(test);
        if (known != bad_.end() && known->second == status) {
            return false;
        }
        if (status != 0) {
            remember(test, status);
            return true;
        }
        if (known != bad_.end()) {
            forget(known);
            was_bad = true;
        }
        return was_bad;
    }

    /* Where one runs, that none did is over; where none does, what the others were. True when
     * something bad ended by that. */
    bool forget_other_processes(const key& test) {
        key first = test, last = test;
        std::get<4>(first) = std::get<4>(test) == 0 ? 1 : 0;
        std::get<4>(last) = std::get<4>(test) == 0 ? UINT32_MAX : 0;
        bool any = false;
        for (auto it = bad_.lower_bound(first); it != bad_.end() && it->first <= last; any = true) {
            it = forget(it);
        }
        return any;
    }

    static size_t bytes_of(const key& test) {
        return sizeof(key) + 64 + std::get<0>(test).size() + std::get<1>(test).size();
    }

    std::map<key, int32_t>::iterator forget(std::map<key, int32_t>::iterator it) {
        known_bytes_ -= bytes_of(it->first);
        return bad_.erase(it);
    }

    void remember(const key& test, int32_t status) {
        if (known_bytes_ > max_known_bytes) {
            /* What is still bad is shown once more. */
            bad_.clear();
            known_bytes_ = 0;
        }
        if (bad_.insert_or_assign(test, status).second) {
            known_bytes_ += bytes_of(test);
        }
    }

    plain_view plain_;
    std::map<key, int32_t> bad_; /* the status of each test that is not ok */
    size_t known_bytes_ = 0;
};

} // namespace

std::unique_ptr<view> make_line_view(output_kind kind, const test_names& names) {
    switch (kind) {
    case output_kind::json:
        return std::make_unique<json_view>(names);
    case output_kind::problems:
        return std::make_unique<problem_view>(names);
    case output_kind::quiet:
        return std::make_unique<quiet_view>();
    default:
        return std::make_unique<plain_view>(names);
    }
}
