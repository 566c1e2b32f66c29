#include "show/table.h"
#include "show/view.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <sys/ioctl.h>

namespace {

using std::chrono::steady_clock;

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
    table_view(int fd, const test_names& names) : fd_(fd) { table_.name_tests(&names); }

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
        case event_kind::planned_of_agents:
            table_.follow(*e.plans, now());
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

} // namespace

std::unique_ptr<view> make_table_view(int fd, const test_names& names) {
    return std::make_unique<table_view>(fd, names);
}
