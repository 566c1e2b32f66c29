/* DESIGN
 *
 * The store's writer thread calls on_record() for each record: it only copies the record's bytes
 * into a queue. The output's thread takes the whole queue, decodes the records once more and
 * formats them with a `view`, one class for each kind of output. While that thread waits for a slow
 * reader, the queue drops its oldest entries. */
#include "output.h"

#include "record.h"
#include "schema.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <deque>
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

/* A record with its agent, or a problem when `raw` is empty. */
struct event {
    std::string account, agent;
    int64_t received = 0;
    std::string raw;
    std::string problem;

    size_t bytes() const {
        return sizeof(event) + account.size() + agent.size() + raw.size() + problem.size();
    }
};

/* Turns events into bytes for the reader. Used by the output's thread alone. */
class view {
public:
    virtual ~view() = default;
    virtual bool shows_records() const { return true; } /* from any thread */
    /* Both append to `out`; a problem that the view does not show goes to `problems` instead. */
    virtual void show_record(const event& e, const record& r, std::string& out) = 0;
    virtual void show_problem(const std::string& text, std::string& out, std::string& problems) = 0;
    /* Called after each batch and at least every half second. */
    virtual void refresh(std::string& out) { (void)out; }
    /* Called once, after everything else. */
    virtual void finish(std::string& out) { (void)out; }
};

class line_view : public view {
public:
    void show_problem(const std::string& text, std::string&, std::string& problems) override {
        problems += "vindral-collector: " + printable(text) + "\n";
    }
};

class json_view final : public line_view {
public:
    void show_record(const event& e, const record& r, std::string& out) override {
        out += record_json(e.account, e.agent, e.received, r) + "\n";
    }
};

class quiet_view final : public line_view {
public:
    bool shows_records() const override { return false; }
    void show_record(const event&, const record&, std::string&) override {}
};

/* "load average 5", or "type 99" for a record that belongs to no test we know. */
std::string test_name(const record_summary& summary) {
    std::string name = type_name(summary.type);
    return summary.test ? name + " " + std::to_string(*summary.test) : name;
}

class plain_view final : public line_view {
public:
    void show_record(const event& e, const record& r, std::string& out) override {
        record_summary summary = summarize(r);
        out += utc_time(summary.time.value_or(e.received)) + " " + printable(e.agent) + " " +
               test_name(summary) + ": ";
        if (summary.status) {
            out += status_word(summary.type, *summary.status) + ", ";
        }
        out += printable(values_text(r, summary));
        std::string message = printable(summary.message);
        out += (message.empty() ? "" : ", " + message) + "\n";
    }
};

struct screen_size {
    size_t rows = 24;
    size_t columns = 80;
};

screen_size read_screen_size(int fd) {
    winsize size{};
    if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
        return {};
    }
    return {size.ws_row, size.ws_col};
}

/* "12s", "5m", "3h", "2d". */
std::string age_text(int64_t seconds) {
    seconds = std::max<int64_t>(seconds, 0);
    if (seconds < 100) {
        return std::to_string(seconds) + "s";
    }
    if (seconds < 100 * 60) {
        return std::to_string(seconds / 60) + "m";
    }
    return seconds < 100 * 3600 ? std::to_string(seconds / 3600) + "h"
                                : std::to_string(seconds / 86400) + "d";
}

/* The last result of each test. Drawn from the top left corner over what was drawn before, each
 * line cleared to its end, so that nothing flickers and nothing has to be put back when the program
 * ends. */
class table_view final : public view {
public:
    explicit table_view(int fd) : fd_(fd) {}

    void show_record(const event& e, const record& r, std::string&) override {
        record_summary summary = summarize(r);
        row_key key = {e.account, e.agent, summary.type, summary.test.value_or(0)};
        if (rows_.size() >= max_rows && !rows_.contains(key)) {
            drop_oldest();
        }
        row& shown = rows_[key];
        shown.agent = printable(e.agent);
        shown.test = test_name(summary);
        shown.status = summary.status;
        if (summary.status) {
            shown.status_text = status_word(summary.type, *summary.status);
        }
        shown.is_test = summary.test.has_value();
        shown.text = printable(values_text(r, summary).append("  ").append(summary.message));
        shown.received = e.received;
        changed_ = true;
    }

    void show_problem(const std::string& text, std::string&, std::string&) override {
        problems_.push_back(utc_time(time(nullptr)).substr(11, 8) + " " + printable(text));
        if (problems_.size() > max_problems) {
            problems_.pop_front();
        }
        changed_ = true;
    }

    void refresh(std::string& out) override {
        steady_clock::time_point now = steady_clock::now();
        /* Ages go on even when nothing arrives. */
        if (now - drawn_ < std::chrono::milliseconds(changed_ ? 450 : 1000)) {
            return;
        }
        draw(read_screen_size(fd_), time(nullptr), out);
        drawn_ = now;
        changed_ = false;
    }

    void finish(std::string& out) override {
        draw(read_screen_size(fd_), time(nullptr), out);
        out += "\r\n";
    }

    void draw(screen_size screen, int64_t now, std::string& out) {
        /* Clearing to the line's end with the cursor in the last column would take that column,
         * too. */
        screen.columns -= screen.columns > 1 ? 1 : 0;
        std::vector<const row*> shown;
        size_t tests = 0, bad = 0;
        for (const auto& [key, r] : rows_) {
            shown.push_back(&r);
            tests += r.is_test;
            bad += r.status.value_or(0) != 0;
        }
        size_t problem_lines = std::min(problems_.size(), screen.rows / 3);
        /* The title, the heading and the line that says what does not fit. */
        size_t room = screen.rows - std::min(screen.rows, 3 + problem_lines);
        if (shown.size() > room) {
            std::stable_partition(shown.begin(), shown.end(),
                                  [](const row* r) { return r->status.value_or(0) != 0; });
        }
        size_t hidden = shown.size() - std::min(shown.size(), room);
        shown.resize(shown.size() - hidden);

        out += first_ ? "\033[2J\033[H\033[?7l" : "\033[H\033[?7l";
        first_ = false;
        size_t lines = screen.rows;
        auto line = [&](const std::string& text) {
            if (lines > 0) {
                /* No line end behind the last line of the screen: it would scroll. */
                out += text + "\033[K" + (--lines > 0 ? "\r\n" : "");
            }
        };
        line(fit(screen, "vindral-collector  " + utc_time(now) + "  " + std::to_string(tests) +
                             " tests, " + std::to_string(bad) + " not ok"));
        size_t agent_width = 5, test_width = 4;
        for (const row* r : shown) {
            agent_width = std::max(agent_width, std::min<size_t>(display_width(r->agent), 24));
            test_width = std::max(test_width, std::min<size_t>(r->test.size(), 24));
        }
        auto cells = [&](const std::string& agent, const std::string& test,
                         const std::string& age) {
            return fit_columns(agent, agent_width) + "  " + fit_columns(test, test_width) + "  " +
                   fit_columns(age, 4) + "  ";
        };
        line("\033[7m" +
             fit(screen, cells("AGENT", "TEST", "AGE") + fit_columns("STATUS", 19) + "  VALUES") +
             "\033[0m");
        for (const row* r : shown) {
            std::string before = cells(r->agent, r->test, age_text(now - r->received));
            std::string status = fit_columns(r->status_text, 19);
            line(coloured(screen, before, status, colour_of(r->status), "  " + r->text));
        }
        if (hidden > 0) {
            line(fit(screen, "... and " + std::to_string(hidden) + " more"));
        }
        for (size_t i = problems_.size() - problem_lines; i < problems_.size(); i++) {
            line("\033[33m" + fit(screen, "! " + problems_[i]) + "\033[0m");
        }
        out += "\033[J\033[?7h";
    }

private:
    struct row {
        std::string agent, test, text;
        bool is_test = false;
        std::optional<int32_t> status;
        std::string status_text = "-";
        int64_t received = 0;
    };
    /* Account, agent, record type, test id. */
    using row_key = std::tuple<std::string, std::string, uint32_t, int32_t>;
    enum { max_rows = 10000, max_problems = 20 };

    static std::string fit(screen_size screen, const std::string& text) {
        return fit_columns(text, std::min(screen.columns, display_width(text)));
    }

    static const char* colour_of(std::optional<int32_t> status) {
        return !status        ? "\033[0m"
               : *status == 0 ? "\033[32m"
               : *status == 2 ? "\033[31m"
                              : "\033[35m";
    }

    /* A line of the screen's width in which the part in the middle has a colour. */
    static std::string coloured(screen_size screen, const std::string& before,
                                const std::string& middle, const char* colour,
                                const std::string& after) {
        size_t first = std::min(screen.columns, display_width(before));
        size_t second = std::min(screen.columns - first, display_width(middle));
        size_t third = std::min(screen.columns - first - second, display_width(after));
        return fit_columns(before, first) + colour + fit_columns(middle, second) + "\033[0m" +
               fit_columns(after, third);
    }

    void drop_oldest() {
        rows_.erase(std::min_element(rows_.begin(), rows_.end(), [](const auto& a, const auto& b) {
            return a.second.received < b.second.received;
        }));
    }

    const int fd_;
    std::map<row_key, row> rows_;
    std::deque<std::string> problems_;
    steady_clock::time_point drawn_{};
    bool changed_ = true;
    bool first_ = true;
};

class queued_output final : public store_listener {
public:
    queued_output(std::unique_ptr<view> shown, const output_options& options)
        : options_(options), view_(std::move(shown)) {
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

    void on_record(const poll_block& from, const record& r) override {
        if (!view_->shows_records()) {
            return;
        }
        if (r.raw.size() > max_shown) {
            on_problem("a record of " + std::to_string(r.raw.size()) + " bytes from " + from.agent +
                       " is stored, but too large to be shown");
            return;
        }
        add({from.account, from.agent, from.received, std::string(r.raw), ""});
    }

    void on_undecodable(const poll_block& from, size_t offset, size_t bytes,
                        const std::string& reason, const std::string& kept_as) override {
        on_problem("agent " + from.agent + " of " + from.account + " sent " +
                   std::to_string(bytes) + " bytes that are no record, at offset " +
                   std::to_string(offset) + " (" + reason + "): kept in " + kept_as);
    }

    void on_problem(const std::string& text) override { add({"", "", 0, "", text}); }

private:
    enum { max_shown = 1 << 20 };

    void add(event e) {
        std::lock_guard hold(mutex_);
        queued_bytes_ += e.bytes();
        queue_.push_back(std::move(e));
        while (queued_bytes_ > options_.max_queued && queue_.size() > 1) {
            queued_bytes_ -= queue_.front().bytes();
            queue_.pop_front();
            dropped_++;
        }
        if (queue_.size() == 1) {
            wake_.notify_one();
        }
    }

    /* The output's thread. */

    void show_all() {
        /* A reader that goes away is seen as an error of write(), in this thread only. */
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        std::deque<event> batch;
        size_t dropped;
        while (take(batch, dropped)) {
            show_batch(batch, dropped);
            batch.clear();
        }
        std::string out;
        view_->finish(out);
        write_out(options_.fd, out);
    }

    /* False at the end. Returns without events every half second, for the table's sake. */
    bool take(std::deque<event>& batch, size_t& dropped) {
        std::unique_lock hold(mutex_);
        wake_.wait_for(hold, std::chrono::milliseconds(500),
                       [this] { return stopping_ || !queue_.empty(); });
        batch.swap(queue_);
        queued_bytes_ = 0;
        dropped = dropped_;
        dropped_ = 0;
        return !stopping_ || !batch.empty();
    }

    void show_batch(const std::deque<event>& batch, size_t dropped) {
        std::string out, problems;
        if (dropped > 0) {
            view_->show_problem(std::to_string(dropped) +
                                    " entries are not shown: the reader is too slow",
                                out, problems);
        }
        for (const event& e : batch) {
            if (e.raw.empty()) {
                view_->show_problem(e.problem, out, problems);
            } else if (decode_record(e.raw, record_, reason_)) {
                view_->show_record(e, record_, out);
            }
            if (out.size() >= 64 * 1024) {
                write_out(options_.fd, out);
            }
        }
        view_->refresh(out);
        write_out(options_.fd, out);
        write_out(options_.problem_fd, problems);
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
            poll(&ready, 1, 100);
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
    std::condition_variable wake_;
    std::deque<event> queue_;
    size_t queued_bytes_ = 0;
    size_t dropped_ = 0;
    bool stopping_ = false;

    record record_; /* of the output's thread, as the rest */
    std::string reason_;
    bool gone_ = false; /* the reader took nothing while we had to end */

    std::thread thread_;
};

} // namespace

std::unique_ptr<store_listener> make_output(output_kind kind, const output_options& options) {
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
