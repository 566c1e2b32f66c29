#include "show/table.h"

#include "base/text.h"
#include "show/table_words.h"

using namespace live;

namespace {

constexpr const char *red = "\033[31m", *yellow = "\033[33m", *bold = "\033[1m",
                     *inverse = "\033[7m", *inverse_red = "\033[7;31m";

struct span {
    const char* colour; /* null: none */
    std::string text;
};

/* Lines of a screen's width. */
class painter {
public:
    explicit painter(const table_screen& screen)
        /* Clearing to the line's end with the cursor in the last column would take that column,
         * too. */
        : columns_(screen.columns - (screen.columns > 1 ? 1 : 0)), rows_(screen.rows),
          colours_(screen.colours) {}

    size_t columns() const { return columns_; }

    void line(const std::vector<span>& spans) {
        if (rows_ == 0) {
            return;
        }
        size_t left = columns_;
        for (const span& s : spans) {
            size_t width = std::min(left, display_width(s.text));
            std::string text = fit_columns(s.text, width);
            left -= width;
            bool coloured = colours_ && s.colour != nullptr && width > 0;
            out_ += coloured ? s.colour + text + "\033[0m" : text;
        }
        /* No line end behind the last line of the screen: it would scroll. */
        out_ += "\033[K";
        out_ += --rows_ > 0 ? "\r\n" : "";
    }

    std::string take() { return "\033[?7l" + std::move(out_) + "\033[J\033[?7h"; }

private:
    size_t columns_, rows_;
    bool colours_;
    std::string out_;
};

/* What the line of a host says behind its counts. */
std::string remarks(const table_state& s, const block& b, int64_t now) {
    const host& h = *b.shown;
    std::string text;
    if (!h.heard) {
        text += ", last heard " + age_text(now - h.last_seen) + " ago";
    }
    const expected& plan = s.plan_of(h);
    if (h.unplanned >= 0 &&
        h.unplanned > plan.followed() + 2 * table_state::test_interval(plan.at(now)) &&
        now - h.unplanned <= plan.stale_after(now)) {
        text += h.own ? ", and tests that are not planned" : ", and tests not in the plan";
    }
    size_t hidden = b.tests.problems - b.problem_lines;
    if (hidden > 0) {
        text += " (" + counted(hidden, "more problem") + " not shown)";
    }
    return text;
}

/* What a test is called in lines, and what it looks at. */
called_test label_of(const table_state& s, const host& h, const test_key& key) {
    std::optional<called_test> called = s.name_of(h, key);
    return called ? std::move(*called) : called_test{.name = test_label(key), .target = {}};
}

std::vector<span> host_line(const table_state& s, const block& b, size_t name_width, int64_t now) {
    const host& h = *b.shown;
    std::string name = s.accounts.size() > 1 ? h.label + " (" + h.account + ")" : h.label;
    std::vector<span> spans = {{bold, fit_columns(name, name_width) + "  "}};
    std::string counts = text_of(b.tests);
    if (b.silent) {
        spans = {{red, spans[0].text + "silent for " + age_text(now - h.last_seen)}};
        spans.push_back({nullptr, counts.empty() ? "" : ", before that " + counts});
        return spans;
    }
    if (is_single(b)) { /* what is wrong is worth more than how much is not */
        const shown_test& first = b.problems[0];
        size_t others = b.tests.problems - 1;
        spans.push_back({red, label_of(s, h, first.key).name});
        spans.push_back(
            {nullptr,
             ": " + (others > 0 ? "(" + counted(others, "more problem") + ") " : std::string()) +
                 parts_text(*first.held)});
        return spans;
    }
    if (counts.empty()) {
        counts = "no tests";
    }
    if (b.tests.problems > 0) {
        std::string problems = counted(b.tests.problems, "problem");
        spans.push_back({red, problems});
        counts.erase(0, problems.size());
    }
    spans.push_back({nullptr, counts + remarks(s, b, now)});
    return spans;
}

struct widths {
    size_t name = 4, test = 4, target = 0;
};

/* The lines of the tests of a host. */
class test_painter {
public:
    test_painter(painter& screen, const table_state& s, const block& b, const widths& wide)
        : screen_(screen), state_(s), block_(b), wide_(wide) {}

    void line(const shown_test& test, const char* mark, const char* colour, const std::string& age,
              const std::string& text) {
        const std::optional<called_test> called = state_.name_of(*block_.shown, test.key);
        std::string label =
            called ? fit_columns(called->name, wide_.test) : test_label(test.key, wide_.test);
        std::string target;
        if (wide_.target > 0) {
            target = "  " + fit_columns(called ? called->target : std::string(), wide_.target);
        }
        screen_.line({{colour, std::string("  ") + mark + " " + label},
                      {nullptr, target + "  " + fit_columns(age, 7) + "  " + text}});
    }

private:
    painter& screen_;
    const table_state& state_;
    const block& block_;
    const widths& wide_;
};

void paint_tests(test_painter lines, const block& b, int64_t now) {
    for (size_t i = 0; i < b.problem_lines; i++) {
        const row& r = *b.problems[i].held;
        lines.line(b.problems[i], "!", red, "for " + age_text(now - r.since), parts_text(r));
    }
    for (size_t i = 0; i < b.unclear_lines; i++) {
        const row* r = b.unclear[i].held;
        std::string text = r == nullptr   ? "unknown: no result yet"
                           : r->strange   ? "unknown type: " + r->shown.text
                           : r->shown.bad ? "stale, was a problem: " + parts_text(*r)
                                          : "stale, was ok: " + parts_text(*r);
        lines.line(b.unclear[i], "?", yellow,
                   r == nullptr ? "" : age_text(now - r->received) + " ago", text);
    }
    for (size_t i = 0; i < b.fine_lines; i++) {
        const row& r = *b.fine[i].held;
        lines.line(b.fine[i], " ", nullptr, age_text(now - r.received) + " ago", parts_text(r));
    }
}

/* A message in lines of that width, broken between words where there are any. */
std::vector<std::string> lines_of(const message& m, size_t columns) {
    std::string times = m.times > 1 ? " (" + std::to_string(m.times) + " times)" : "";
    std::string rest = "* " + utc_time(m.when).substr(11, 8) + times + " " + m.text;
    const std::string indent(2, ' ');
    std::vector<std::string> lines;
    while (display_width(rest) > columns && columns > 2 * indent.size()) {
        std::string whole = fit_columns(rest, columns);
        size_t end = whole.find_last_not_of(' ') + 1; /* wide characters may leave a column */
        size_t blank = rest[end] == ' ' ? end : rest.rfind(' ', end);
        end = blank != rest.npos && blank > columns / 2 ? blank : end;
        lines.push_back(rest.substr(0, end));
        rest.replace(0, std::min(rest.find_first_not_of(' ', end), rest.size()), indent);
    }
    lines.push_back(std::move(rest));
    return lines;
}

/* The newest messages, at most `most` and in so many lines: the newest one as a whole if they are
 * enough, then a line of each other. What is left, and `more` lines, are for the rest of them. */
std::vector<std::string> message_lines(const std::deque<message>& messages, size_t columns,
                                       size_t most, size_t more) {
    std::vector<std::vector<std::string>> all; /* the newest first */
    for (auto m = messages.rbegin(); m != messages.rend() && all.size() < most; ++m) {
        all.push_back(lines_of(*m, columns));
    }
    std::vector<size_t> given(all.size());
    size_t left = most;
    auto give = [&](size_t i, size_t lines) {
        size_t added = std::min(left, std::min(all[i].size(), lines) - given[i]);
        given[i] += added;
        left -= added;
    };
    for (size_t i = 0; i < all.size(); i++) {
        give(i, i == 0 ? most : 1);
    }
    left += more;
    for (size_t i = 0; i < all.size(); i++) {
        give(i, all[i].size());
    }
    std::vector<std::string> lines;
    for (size_t i = all.size(); i-- > 0;) {
        for (size_t n = 0; n < given[i]; n++) {
            lines.push_back(all[i][n]);
        }
        for (size_t n = given[i]; given[i] > 0 && n < all[i].size(); n++) {
            lines.back() += all[i][n].substr(1); /* cut at the edge, as everything is */
        }
    }
    return lines;
}

size_t lines_in(std::string_view text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

void paint_introduction(painter& screen, std::string_view text, size_t lines) {
    for (; !text.empty() && lines > 0; lines--) {
        size_t end = std::min(text.find('\n'), text.size());
        std::string line = printable(text.substr(0, end));
        screen.line({{nullptr, line}});
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

/* As wide as what is shown needs, a third of the screen each at most; what tests look at has what
 * is left when the text has a third, and enough to be read. */
widths widths_of(const table_state& s, const std::vector<block>& blocks, size_t columns) {
    widths wide;
    for (const block& b : blocks) {
        if (!b.given) {
            continue;
        }
        size_t account = s.accounts.size() > 1 ? display_width(b.shown->account) + 3 : 0;
        wide.name = std::max(wide.name, display_width(b.shown->label) + account);
        for (auto [tests, lines] :
             {std::pair(&b.problems, b.problem_lines), std::pair(&b.unclear, b.unclear_lines),
              std::pair(&b.fine, b.fine_lines)}) {
            for (size_t i = 0; i < lines; i++) {
                const called_test label = label_of(s, *b.shown, (*tests)[i].key);
                wide.test = std::max(wide.test, display_width(label.name));
                wide.target = std::max(wide.target, display_width(label.target));
            }
        }
    }
    size_t most = std::max<size_t>(columns / 3, 4);
    wide = {std::min(wide.name, most), std::min(wide.test, most), wide.target};
    constexpr size_t mark_and_age = 15, least_text = 30, least_target = 8;
    size_t taken = mark_and_age + wide.test + std::max(columns / 3, least_text);
    wide.target = std::min(wide.target, columns - std::min(columns, taken));
    wide.target = columns < taken + least_target ? 0 : wide.target;
    return wide;
}

} // namespace

live_table::live_table(int64_t start, size_t max_bytes)
    : state_(std::make_unique<table_state>(start, max_bytes)) {}
live_table::live_table(live_table&&) noexcept = default;
live_table& live_table::operator=(live_table&&) noexcept = default;
live_table::~live_table() = default;

void live_table::know(std::string_view account, std::string_view agent, int64_t last_seen,
                      const agent_state& stored) {
    host& h = state_->host_of(account, agent, 0);
    h.last_seen = std::max(h.last_seen, std::min(last_seen, state_->start));
    state_->know(h, stored);
}

void live_table::know(std::string_view account, std::string_view agent, int64_t received,
                      const record& r) {
    state_->know(state_->host_of(account, agent, 0), received, r);
}

void live_table::take(std::string_view account, std::string_view agent, int64_t now,
                      const record& r) {
    host& h = state_->host_of(account, agent, now);
    state_->hear(h, now);
    state_->apply(h, now, r);
}

void live_table::take(std::string_view account, std::string_view agent, int64_t now,
                      const agent_state& found) {
    state_->apply(state_->host_of(account, agent, now), now, found);
}

void live_table::hear(std::string_view account, std::string_view agent, int64_t now) {
    state_->hear(state_->host_of(account, agent, now), now);
    state_->make_room(now);
}

void live_table::forget(std::string_view account, std::string_view agent) {
    state_->forget(account, agent);
}

void live_table::follow(const plan_summary& plan, int64_t now) {
    state_->follow(plan, now);
}

void live_table::follow(const std::vector<agent_summary>& plans, int64_t now) {
    state_->follow(plans, now);
}

void live_table::name_tests(const test_names* names) {
    state_->names = names;
}

void live_table::say(std::string_view text, int64_t now) {
    state_->say(text, now);
}

void live_table::introduce(std::string_view text) {
    state_->introduction = text;
}

size_t live_table::bytes() const {
    return state_->held;
}

std::string live_table::draw(const table_screen& screen, int64_t now) {
    table_state& s = *state_;
    s.forget_old_messages(now);
    s.make_room(now);
    std::vector<block> blocks = look_at_all(s, screen.rows, now);
    /* The title, a line at least for what is wrong, and what does not fit. */
    size_t spare = screen.rows - std::min<size_t>(screen.rows, 3);
    size_t most = std::min(spare, std::max<size_t>(screen.rows / 5, 1));
    size_t wanted = blocks.empty() ? lines_in(s.introduction) : lines_wanted(blocks);
    size_t unused = screen.rows - std::min(screen.rows, 1 + most + wanted);
    painter paint(screen);
    std::vector<std::string> messages = message_lines(s.messages, paint.columns(), most, unused);
    size_t room = screen.rows - std::min(screen.rows, 1 + messages.size());
    bool all_fits = wanted <= room;
    share_out(blocks, all_fits || room < 2 ? room : room - 1);

    bool wrong = false;
    std::string title = title_text(s, blocks, paint.columns(), wrong, now);
    paint.line({{wrong ? inverse_red : inverse, title}});
    widths wide = widths_of(s, blocks, screen.columns);
    for (const block& b : blocks) {
        if (b.given) {
            paint.line(host_line(s, b, wide.name, now));
            paint_tests({paint, s, b, wide}, b, now);
        }
    }
    std::string hidden = hidden_text(blocks, s.not_kept.get(), paint.columns());
    if (!hidden.empty()) {
        paint.line({{bold, "... " + hidden}});
    }
    if (blocks.empty()) {
        paint_introduction(paint, s.introduction, room);
    }
    for (const std::string& line : messages) {
        paint.line({{yellow, line}});
    }
    return paint.take();
}
