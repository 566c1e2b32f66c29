/* DESIGN
 *
 * The store's writer thread calls on_record() for each record: it only copies the record's bytes,
 * and what was read from them, into a queue. The output's thread takes the whole queue and hands
 * its events to a `view`, one class for each kind of output. While that thread waits for a slow
 * reader, the queue drops its oldest entries; the table, which writes only when it is drawn, goes
 * on taking them. */
#include "show/output.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "protocol/record.h"
#include "show/event_queue.h"
#include "show/json.h"
#include "show/record_text.h"
#include "show/table.h"
#include "state/history.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {

using std::chrono::steady_clock;

/* Turns events into bytes for the reader. Used by the output's thread alone but for the two that
 * say what it wants. */
class view {
public:
    virtual ~view() = default;
    virtual bool shows_records() const { return true; }
    virtual bool keeps_state() const { return false; } /* and writes in refresh() only */
    /* Both append to `out`; a problem that the view does not show goes to `problems` instead. */
    virtual void show_record(const event& e, std::string& out) = 0;
    virtual void show_problem(std::string_view text, std::string& out, std::string& problems) = 0;
    virtual void show_note(std::string_view text, std::string& out, std::string& problems) {
        show_problem(text, out, problems);
    }
    /* The other kinds. */
    virtual void take(const event& e) { (void)e; }
    /* Called after each batch and at least every half second. */
    virtual void refresh(std::string& out) { (void)out; }
    /* Called once, after everything else. */
    virtual void finish(std::string& out) { (void)out; }
};

class line_view : public view {
public:
    void show_problem(std::string_view text, std::string&, std::string& problems) override {
        problems += "vindral-collector: " + printable(text) + "\n";
    }
};

class json_view final : public line_view {
public:
    void show_record(const event& e, std::string& out) override {
        out += record_json(e.account, e.agent, e.received, e.result.content) + "\n";
    }
};

class quiet_view final : public line_view {
public:
    bool shows_records() const override { return false; }
    void show_record(const event&, std::string&) override {}
};

/* "load average 5", or "type 99" for a record that belongs to no test we know. */
std::string test_name(const record_summary& summary) {
    std::string name = type_name(summary.type);
    return summary.test ? name + " " + std::to_string(*summary.test) : name;
}

constexpr size_t max_in_line = 16u << 10; /* bytes of values, and of a message */

class plain_view final : public line_view {
public:
    void show_record(const event& e, std::string& out) override {
        const auto& [r, summary] = e.result;
        out += utc_time(summary.time.value_or(e.received)) + " " + printable(e.agent) + " " +
               test_name(summary) + ": ";
        if (std::optional<int32_t> status = judge(r, summary).status) {
            out += status_word(summary.type, *status) + ", ";
        }
        out += printable(values_text(r, summary, max_in_line));
        bool whole = summary.message.size() <= max_in_line;
        std::string message = printable(summary.message.substr(0, max_in_line));
        out += (message.empty() ? "" : ", " + message) + (whole ? "\n" : " ...\n");
    }
};

/* Plain lines for what changes between good and bad, few enough for a journal. */
class problem_view final : public line_view {
public:
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

table_screen read_screen(int fd) {
    table_screen screen;
    winsize size{};
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_row != 0 && size.ws_col != 0) {
        screen.rows = size.ws_row;
        screen.columns = size.ws_col;
    }
    const char* none = getenv("NO_COLOR");
    screen.colours = none == nullptr || *none == 0;
    return screen;
}

/* "2026-05-01T12:00:00Z ", with which lines of a log begin. */
bool begins_with_time(std::string_view text) {
    return text.size() > 20 && text[10] == 'T' && text[19] == 'Z' && text[20] == ' ';
}

/* Drawn from the top left corner over what was drawn before, so that nothing flickers and nothing
 * has to be put back when the program ends. */
class table_view final : public view {
public:
    explicit table_view(int fd) : fd_(fd) {}

    bool keeps_state() const override { return true; }

    void show_record(const event& e, std::string&) override {
        table_.take(e.account, e.agent, now(), e.result.content);
        changed_ = true;
    }

    void show_problem(std::string_view text, std::string&, std::string&) override {
        /* The table puts a time in front, too. */
        std::string_view shown = text;
        shown.remove_prefix(begins_with_time(shown) ? 21 : 0);
        table_.say(shown, now());
        changed_ = true;
    }

    void show_note(std::string_view, std::string&, std::string&) override {}

    void take(const event& e) override {
        switch (e.kind) {
        case event_kind::heard:
            table_.hear(e.account, e.agent, now());
            break;
        case event_kind::agent:
            if (state_.unpack(e.text)) {
                table_.take(e.account, e.agent, now(), state_);
            }
            break;
        case event_kind::known:
            state_.unpack(e.text); /* nothing is known of its tests when that is damaged */
            table_.know(e.account, e.agent, e.received, state_);
            break;
        case event_kind::result:
            table_.know(e.account, e.agent, e.received, e.result.content);
            break;
        case event_kind::retired:
            table_.forget(e.account, e.agent);
            break;
        case event_kind::ready:
            table_.introduce(e.text);
            break;
        default:
            table_.follow(*e.plan, now());
        }
        changed_ = true;
    }

    void refresh(std::string& out) override {
        steady_clock::time_point begun = steady_clock::now();
        /* Ages go on even when nothing arrives. Drawing takes a twentieth of the time at most. */
        if (begun - drawn_ < std::max<steady_clock::duration>(
                                 std::chrono::milliseconds(changed_ ? 450 : 1000), 19 * cost_)) {
            return;
        }
        draw(out);
        drawn_ = steady_clock::now();
        cost_ = drawn_ - begun;
        changed_ = false;
    }

    void finish(std::string& out) override {
        draw(out);
        out += "\r\n";
    }

private:
    /* Does not jump when somebody sets the clock. */
    int64_t now() const {
        return begun_at_ +
               std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - begun_)
                   .count();
    }

    void draw(std::string& out) {
        out += first_ ? "\033[2J\033[H" : "\033[H";
        first_ = false;
        out += table_.draw(read_screen(fd_), now());
    }

    const int fd_;
    const int64_t begun_at_ = time(nullptr);
    const steady_clock::time_point begun_ = steady_clock::now();
    live_table table_{begun_at_};
    agent_state state_; /* its memory is used again */
    steady_clock::time_point drawn_{};
    steady_clock::duration cost_{};
    bool changed_ = true;
    bool first_ = true;
};

class queued_output final : public result_output {
public:
    queued_output(std::unique_ptr<view> shown, const output_options& options)
        : options_(options), view_(std::move(shown)), queue_(options.max_queued) {
        thread_ = std::thread([this] { show_all(); });
        pthread_setname_np(thread_.native_handle(), "output");
    }

    ~queued_output() override {
        {
            std::lock_guard hold(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

    void on_record(const poll_block& from, const decoded_record& result) override {
        if (!view_->shows_records()) {
            return;
        }
        const size_t size = result.content.raw.size();
        if (size > max_shown) {
            hear(from);
            on_problem("a record of " + std::to_string(size) + " bytes from " + from.agent +
                       " is stored, but too large to be shown");
            return;
        }
        add({.kind = event_kind::record,
             .account = from.account,
             .agent = from.agent,
             .received = from.received,
             .result = result});
    }

    void on_undecodable(const poll_block& from, size_t offset, size_t bytes,
                        const std::string& reason, const std::string& kept_as) override {
        hear(from);
        on_problem("agent " + from.agent + " of " + from.account + " sent " +
                   std::to_string(bytes) + " bytes that are no record, at offset " +
                   std::to_string(offset) + " (" + reason + "): kept in " + kept_as);
    }

    void on_problem(const std::string& text) override {
        add({.kind = event_kind::problem, .text = text});
    }

    void on_note(const std::string& text) override {
        add({.kind = event_kind::note, .text = text});
    }

    void on_ready(const std::string& text) override {
        if (view_->keeps_state()) {
            add({.kind = event_kind::ready, .text = text});
        }
    }

    void on_plan(const plan_summary& plan) override {
        if (view_->keeps_state()) {
            add({.kind = event_kind::planned, .plan = std::make_shared<const plan_summary>(plan)});
        }
    }

    void on_agent(int64_t, std::string_view account, std::string_view agent, const agent_state& now,
                  std::span<const change>) override {
        if (!view_->keeps_state()) {
            return;
        }
        std::string packed;
        now.pack(packed);
        add({.kind = event_kind::agent, .account = account, .agent = agent, .text = packed});
    }

    void on_retired(int64_t, std::string_view account, std::string_view agent, int64_t) override {
        add({.kind = event_kind::retired, .account = account, .agent = agent});
    }

    void begin(result_reader& stored) override {
        if (!view_->keeps_state()) {
            return;
        }
        steady_clock::time_point begun = steady_clock::now();
        std::string error, first_error;
        auto note_error = [&] { first_error = first_error.empty() ? error : first_error; };
        agent_state state;
        auto know_agents = [&](bool problems) {
            auto know_agent = [&](const known_agent& a) {
                if (a.retired != 0) {
                    return;
                }
                if (problems) { /* the first time */
                    wait_for_room();
                    add({.kind = event_kind::known,
                         .account = a.account,
                         .agent = a.agent,
                         .received = a.last_seen,
                         .text = a.state});
                }
                if (steady_clock::now() - begun < longest_beginning && state.unpack(a.state) &&
                    !know_results(stored, a, state, problems, error)) {
                    note_error();
                }
            };
            if (!stored.for_each_agent(know_agent, error)) {
                note_error();
            }
        };
        /* The states of all, and the results of as many as can be read in a moment, what is wrong
         * first: agents bring new ones soon. */
        know_agents(true);
        know_agents(false);
        if (!first_error.empty()) {
            on_problem("what is stored cannot be read: " + first_error);
        }
    }

private:
    enum { max_shown = 1 << 20 };
    static constexpr std::chrono::seconds longest_beginning{1};

    /* The last results of an agent's tests that are problems, or of the others. */
    bool know_results(result_reader& stored, const known_agent& agent, const agent_state& state,
                      bool problems, std::string& error) {
        bool all = true;
        for (const test_status& test : state.tests) {
            auto know = [&](int64_t received, std::string_view bytes) {
                know_result(agent, received, bytes);
            };
            all &= (test.now == state::problem) != problems ||
                   read_newest(stored, agent, test.id, know, error);
        }
        return all;
    }

    void know_result(const known_agent& agent, int64_t received, std::string_view bytes) {
        event last{.kind = event_kind::result,
                   .account = agent.account,
                   .agent = agent.agent,
                   .received = received};
        std::string reason;
        if (bytes.size() <= max_shown && decode_record(bytes, last.result.content, reason)) {
            last.result.summary = summarize(last.result.content);
            wait_for_room();
            add(last);
        }
    }

    /* Something came that is not shown. */
    void hear(const poll_block& from) {
        if (view_->keeps_state()) {
            add({.kind = event_kind::heard,
                 .account = from.account,
                 .agent = from.agent,
                 .received = from.received});
        }
    }

    void add(const event& e) {
        std::lock_guard hold(mutex_);
        dropped_ += queue_.add(e);
        if (queue_.count() == 1) {
            wake_.notify_one();
        }
    }

    void wait_for_room() {
        std::unique_lock hold(mutex_);
        room_.wait(hold, [this] { return queue_.bytes() < options_.max_queued / 2; });
    }

    /* The output's thread. */

    void show_all() {
        /* A reader that goes away is seen as an error of write(), in this thread only. */
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        std::vector<event_chunk> batch;
        size_t dropped;
        while (take(batch, dropped)) {
            show_batch(batch, dropped);
        }
        std::string out;
        try_to([&] { view_->finish(out); }, out, out);
        write_out(options_.fd, out);
    }

    /* What there is no memory for is not shown, and counted. No half line is left of it. */
    template <typename Do>
    void try_to(Do show, std::string& out, std::string& problems) {
        const size_t before = out.size(), problems_before = problems.size();
        try {
            show();
        } catch (const std::bad_alloc&) {
            lost_++;
            out.resize(std::min(out.size(), before));
            problems.resize(std::min(problems.size(), problems_before));
        }
    }

    /* False at the end. Returns without events every half second, for the table's sake. */
    bool take(std::vector<event_chunk>& batch, size_t& dropped) {
        std::unique_lock hold(mutex_);
        wake_.wait_for(hold, std::chrono::milliseconds(500),
                       [this] { return stopping_ || !queue_.empty(); });
        take_now(batch, dropped);
        return !stopping_ || !batch.empty();
    }

    /* With the lock held. */
    void take_now(std::vector<event_chunk>& batch, size_t& dropped) {
        queue_.take(batch);
        dropped = std::exchange(dropped_, 0);
        room_.notify_all();
    }

    void show_batch(const std::vector<event_chunk>& batch, size_t dropped) {
        std::string out, problems;
        report_dropped(dropped, out, problems);
        for_each(batch, [&](const event& e) {
            try_to([&] { show(e, out, problems); }, out, problems);
            if (out.size() >= 64 * 1024) {
                write_out(options_.fd, out);
            }
        });
        try_to([&] { view_->refresh(out); }, out, problems);
        write_out(options_.fd, out);
        write_out(options_.problem_fd, problems);
    }

    template <typename Do>
    static void for_each(const std::vector<event_chunk>& batch, Do each) {
        for (const event_chunk& chunk : batch) {
            std::for_each(chunk.events.begin() + static_cast<std::ptrdiff_t>(chunk.next),
                          chunk.events.end(), each);
        }
    }

    void report_dropped(size_t dropped, std::string& out, std::string& problems) {
        report_count(dropped, " entries are not shown: the reader is too slow", out, problems);
        const size_t lost = std::exchange(lost_, 0);
        report_count(lost, " entries are not shown: there was no memory for them", out, problems);
        lost_ += lost_ > 0 ? lost : 0; /* no memory for that either */
    }

    void report_count(size_t count, const char* what, std::string& out, std::string& problems) {
        if (count > 0) {
            try_to([&] { view_->show_problem(std::to_string(count) + what, out, problems); }, out,
                   problems);
        }
    }

    void show(const event& e, std::string& out, std::string& problems) {
        switch (e.kind) {
        case event_kind::record:
            view_->show_record(e, out);
            break;
        case event_kind::problem:
            view_->show_problem(e.text, out, problems);
            break;
        case event_kind::note:
            view_->show_note(e.text, out, problems);
            break;
        default:
            view_->take(e);
        }
    }

    /* What arrives while the terminal takes nothing changes what is drawn next. */
    void absorb() {
        std::vector<event_chunk> batch;
        size_t dropped = 0;
        {
            std::lock_guard hold(mutex_);
            take_now(batch, dropped);
        }
        std::string none;
        report_dropped(dropped, none, none);
        for_each(batch, [&](const event& e) { try_to([&] { show(e, none, none); }, none, none); });
    }

    bool is_stopping() {
        std::lock_guard hold(mutex_);
        return stopping_;
    }

    /* Writes and clears `text`. A write of PIPE_BUF bytes after POLLOUT does not block, whatever
     * the mode of the descriptor is; that mode belongs to everybody who shares the terminal or
     * pipe. */
    void write_out(int fd, std::string& text) {
        size_t at = 0;
        auto moved = steady_clock::now();
        while (at < text.size() && !gone_) {
            pollfd ready = {fd, POLLOUT, 0};
            if (poll(&ready, 1, 100) == 0 && view_->keeps_state()) {
                absorb();
            }
            ssize_t written = -1;
            errno = EAGAIN;
            if (ready.revents != 0) {
                written = write(fd, text.data() + at, std::min<size_t>(text.size() - at, 4096));
            }
            if (written > 0) {
                at += static_cast<size_t>(written);
                moved = steady_clock::now();
            } else if (errno != EAGAIN && errno != EINTR) {
                break;
            } else if (is_stopping() && steady_clock::now() - moved > std::chrono::seconds(1)) {
                gone_ = true;
            }
        }
        text.clear();
    }

    const output_options options_;
    const std::unique_ptr<view> view_;

    std::mutex mutex_; /* guards the next four */
    std::condition_variable wake_, room_;
    event_queue queue_;
    size_t dropped_ = 0;
    bool stopping_ = false;

    size_t lost_ = 0;   /* of the output's thread: entries for which there was no memory */
    bool gone_ = false; /* of the output's thread: the reader took nothing while we had to end */

    std::thread thread_;
};

} // namespace

std::unique_ptr<result_output> make_output(output_kind kind, const output_options& options) {
    std::unique_ptr<view> shown;
    switch (kind) {
    case output_kind::table:
        shown = std::make_unique<table_view>(options.fd);
        break;
    case output_kind::plain:
        shown = std::make_unique<plain_view>();
        break;
    case output_kind::json:
        shown = std::make_unique<json_view>();
        break;
    case output_kind::problems:
        shown = std::make_unique<problem_view>();
        break;
    case output_kind::quiet:
        shown = std::make_unique<quiet_view>();
        break;
    }
    return std::make_unique<queued_output>(std::move(shown), options);
}

output_kind choose_output(int fd, bool json) {
    const char* terminal = getenv("TERM");
    bool can_draw = isatty(fd) && terminal != nullptr && std::string_view(terminal) != "dumb";
    return json ? output_kind::json : can_draw ? output_kind::table : output_kind::plain;
}
