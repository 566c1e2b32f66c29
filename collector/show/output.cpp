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
#include "show/late_names.h"
#include "show/view.h"
#include "state/history.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace {

using std::chrono::steady_clock;

class queued_output final : public result_output {
public:
    queued_output(output_kind kind, const output_options& options)
        : options_(options), view_(kind == output_kind::table ? make_table_view(options.fd, names_)
                                                              : make_line_view(kind, names_)),
          queue_(options.max_queued) {
        names_.ask(options.names);
        thread_ = std::thread([this] { show_all(); });
        pthread_setname_np(thread_.native_handle(), "output");
    }

    ~queued_output() override { end(); }

    void finish() override { end(); }

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

    void on_agent_plans(std::vector<agent_summary> plans) override {
        if (view_->keeps_state()) {
            add({.kind = event_kind::planned_of_agents,
                 .plans = std::make_shared<const std::vector<agent_summary>>(std::move(plans))});
        }
    }

    void name_tests(const test_names* names) override { names_.ask(names); }

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
    void end() {
        if (!thread_.joinable()) {
            return;
        }
        {
            std::lock_guard hold(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

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
    late_names names_; /* of the view */
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
    return std::make_unique<queued_output>(kind, options);
}

output_kind choose_output(int fd, bool json) {
    const char* terminal = getenv("TERM");
    bool can_draw = isatty(fd) && terminal != nullptr && std::string_view(terminal) != "dumb";
    return json ? output_kind::json : can_draw ? output_kind::table : output_kind::plain;
}
