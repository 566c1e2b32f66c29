#include "ctl/plot.h"

#include "ctl/quantity.h"
#include "ctl/text.h"
#include "ctl/times.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace {

constexpr double none = std::numeric_limits<double>::quiet_NaN();
constexpr double rounding = 1e-9; /* what is exact in time may not be in columns */
constexpr size_t label_room = 12; /* columns for each time, with what is between */

/* ---- what can be drawn ---- */

constexpr double highest_drawn = 1e300; /* beyond, differences have no number */

/* The curve with a lowest and a highest value round each mean, as long as the times. */
plot_curve drawable(const plot_curve& curve, size_t count) {
    plot_curve found = curve;
    for (std::vector<double>* each : {&found.min, &found.mean, &found.max}) {
        each->resize(count, none);
        for (double& value : *each) {
            value = std::abs(value) <= highest_drawn ? value : none;
        }
    }
    for (size_t i = 0; i < count; i++) {
        const double mean = found.mean[i];
        found.min[i] = found.min[i] <= mean ? found.min[i] : mean;
        found.max[i] = found.max[i] >= mean ? found.max[i] : mean;
    }
    return found;
}

/* No point and no state lasts longer than the whole. */
plot_series drawable(const plot_series& all) {
    plot_series found = all;
    found.curves.clear();
    found.resolution = std::clamp<int64_t>(all.resolution, 0, all.to - all.from);
    for (std::vector<int64_t>* each : {&found.ok, &found.problem, &found.unknown}) {
        for (int64_t& lasts : *each) {
            lasts = std::clamp<int64_t>(lasts, 0, all.to - all.from);
        }
    }
    return found;
}

/* ---- the scale of the values ---- */

struct scale {
    double low = 0, high = 1, step = 1;
};

scale scale_of(const plot_curve& curve, size_t rows) {
    double low = none, high = none;
    for (size_t i = 0; i < curve.mean.size(); i++) {
        if (std::isfinite(curve.mean[i])) {
            low = std::fmin(low, curve.min[i]);
            high = std::fmax(high, curve.max[i]);
        }
    }
    if (low >= 0 && high - low > 0.3 * high) {
        low = 0;
    }
    if (high - low <= std::abs(high) * 1e-9) { /* a straight line, in the middle */
        double room = high != 0 ? std::abs(high) * 0.1 : 1;
        low = low >= 0 ? std::max(low - room, 0.0) : low - room;
        high += room;
    }
    scale found;
    const double labels = static_cast<double>(std::clamp<size_t>(rows / 3, 1, 6));
    found.step = round_step((high - low) / labels);
    found.low = std::floor(low / found.step + 1e-9) * found.step;
    found.high = std::ceil(high / found.step - 1e-9) * found.step;
    return found;
}

/* ---- the canvas ---- */

/* Cells of dots; two by four in Braille, else one. The first row is the top. */
class canvas {
public:
    canvas(size_t columns, size_t rows, bool ascii)
        : columns(columns), rows(rows), across(ascii ? 1 : 2), down(ascii ? 1 : 4),
          dots_(columns * rows), band_(columns * rows) {}

    const size_t columns, rows, across, down;

    /* Dots, from the left and from the top; what lies beside the canvas is left out. */
    void dot(int64_t x, int64_t y) {
        if (x < 0 || y < 0 || x >= static_cast<int64_t>(columns * across) ||
            y >= static_cast<int64_t>(rows * down)) {
            return;
        }
        /* The bits of a Braille character: 0x2800 and these. */
        static const uint8_t bits[2][4] = {{1, 2, 4, 0x40}, {8, 0x10, 0x20, 0x80}};
        auto column = static_cast<size_t>(x) / across, row = static_cast<size_t>(y) / down;
        dots_[row * columns + column] |=
            bits[static_cast<size_t>(x) % across][static_cast<size_t>(y) % down];
    }

    void line(int64_t x0, int64_t y0, int64_t x1, int64_t y1) {
        const int64_t width = std::abs(x1 - x0), height = -std::abs(y1 - y0);
        const int64_t right = x0 < x1 ? 1 : -1, below = y0 < y1 ? 1 : -1;
        int64_t off = width + height;
        while (true) {
            dot(x0, y0);
            if (x0 == x1 && y0 == y1) {
                return;
            }
            int64_t twice = 2 * off;
            if (twice >= height) {
                off += height;
                x0 += right;
            }
            if (twice <= width) {
                off += width;
                y0 += below;
            }
        }
    }

    /* Cells of a column, from a dot down to another. */
    void shade(size_t column, int64_t top, int64_t bottom) {
        const auto last = static_cast<int64_t>(rows * down) - 1;
        const int64_t first_row = std::clamp<int64_t>(top, 0, last) / static_cast<int64_t>(down);
        const int64_t last_row = std::clamp<int64_t>(bottom, 0, last) / static_cast<int64_t>(down);
        for (int64_t row = first_row; row <= last_row; row++) {
            band_[static_cast<size_t>(row) * columns + column] = 1;
        }
    }

    std::string row_text(size_t row, const screen& on) const {
        std::string text, run;
        tint color = tint::none;
        auto add = [&](std::string_view piece, tint of) {
            if (of != color) {
                text += tinted(run, color, on);
                run.clear();
                color = of;
            }
            run += piece;
        };
        for (size_t i = row * columns; i < (row + 1) * columns; i++) {
            if (dots_[i] != 0 && across == 2) {
                const char cell[] = {'\xe2', static_cast<char>(0xa0 | dots_[i] >> 6),
                                     static_cast<char>(0x80 | (dots_[i] & 0x3f)), 0};
                add(cell, tint::strong);
            } else if (dots_[i] != 0) {
                add("*", tint::strong);
            } else if (band_[i] != 0) {
                add(across == 2 ? "\xe2\x96\x91" : ":", tint::faint);
            } else {
                add(" ", tint::none);
            }
        }
        return text + tinted(run, color, on);
    }

private:
    std::vector<uint8_t> dots_, band_;
};

/* ---- the curve ---- */

/* The usual distance between points. */
int64_t usual_gap(const std::vector<int64_t>& time) {
    std::vector<int64_t> gaps;
    for (size_t i = 1; i < time.size(); i++) {
        gaps.push_back(time[i] - time[i - 1]);
    }
    if (gaps.empty()) {
        return 0;
    }
    auto middle = gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2);
    std::nth_element(gaps.begin(), middle, gaps.end());
    return *middle;
}

class drawing {
public:
    drawing(const plot_series& all, const plot_curve& curve, const scale& by, canvas& to)
        : all_(all), curve_(curve), by_(by), to_(to), low_(to.columns, none),
          high_(to.columns, none),
          longest_gap_(3 * std::max<int64_t>({usual_gap(all.time), all.resolution, 1})) {}

    void draw() {
        const size_t count = std::min(all_.time.size(), curve_.mean.size());
        for (size_t i = 0; i < count; i++) {
            if (!std::isfinite(curve_.mean[i])) {
                continue;
            }
            bool follows = i > 0 && std::isfinite(curve_.mean[i - 1]) &&
                           all_.time[i] - all_.time[i - 1] <= longest_gap_;
            draw_from(follows ? i - 1 : i, i);
        }
        if (!has_band_) {
            return;
        }
        for (size_t column = 0; column < to_.columns; column++) {
            if (std::isfinite(low_[column])) {
                to_.shade(column, y_of(high_[column]), y_of(low_[column]));
            }
        }
    }

private:
    /* In columns, of the middle of a point. */
    double column_of(size_t i) const {
        double middle = static_cast<double>(all_.time[i] - all_.from) +
                        static_cast<double>(all_.resolution) / 2;
        const auto columns = static_cast<double>(to_.columns);
        /* What lies outside is drawn to the border only. */
        return std::clamp(middle / static_cast<double>(all_.to - all_.from) * columns, -1.0,
                          columns + 1);
    }
    int64_t x_of(size_t i) const {
        return static_cast<int64_t>(
            std::floor(column_of(i) * static_cast<double>(to_.across) + rounding));
    }
    int64_t y_of(double value) const {
        double share = (value - by_.low) / (by_.high - by_.low);
        double most = static_cast<double>(to_.rows * to_.down - 1);
        return static_cast<int64_t>(std::lround((1 - share) * most));
    }

    void widen(double column, double low, double high) {
        if (column < 0 || column >= static_cast<double>(to_.columns)) {
            return;
        }
        auto i = static_cast<size_t>(column);
        low_[i] = std::fmin(low_[i], low);
        high_[i] = std::fmax(high_[i], high);
    }

    void draw_from(size_t a, size_t b) {
        to_.line(x_of(a), y_of(curve_.mean[a]), x_of(b), y_of(curve_.mean[b]));
        has_band_ = has_band_ || curve_.max[b] > curve_.min[b];
        const double begin = column_of(a), end = column_of(b);
        widen(std::floor(end), curve_.min[b], curve_.max[b]);
        const auto last = static_cast<int64_t>(std::ceil(end));
        for (int64_t i = static_cast<int64_t>(std::floor(begin)) + 1; i < last; i++) {
            const auto column = static_cast<double>(i);
            const double share = std::clamp((column + 0.5 - begin) / (end - begin), 0.0, 1.0);
            widen(column, curve_.min[a] + (curve_.min[b] - curve_.min[a]) * share,
                  curve_.max[a] + (curve_.max[b] - curve_.max[a]) * share);
        }
    }

    const plot_series& all_;
    const plot_curve& curve_;
    const scale& by_;
    canvas& to_;
    std::vector<double> low_, high_; /* of the band, by column */
    const int64_t longest_gap_;
    bool has_band_ = false;
};

/* ---- what stands round it ---- */

std::string title_of(const plot_curve& curve) {
    double low = none, high = none, sum = 0;
    size_t count = 0;
    for (size_t i = 0; i < curve.mean.size(); i++) {
        if (std::isfinite(curve.mean[i])) {
            low = std::fmin(low, curve.min[i]);
            high = std::fmax(high, curve.max[i]);
            sum += curve.mean[i];
            count++;
        }
    }
    return printable(curve.name) + ": lowest " + quantity(low, curve.unit) + ", mean " +
           quantity(sum / static_cast<double>(count), curve.unit) + ", highest " +
           quantity(high, curve.unit);
}

/* One character for each column: the worst state that a point in it has. */
std::string states_of(const plot_series& all, size_t columns, const screen& on) {
    std::vector<int> worst(columns, 0); /* 1 ok, 2 unknown, 3 problem */
    const size_t count =
        std::min({all.time.size(), all.ok.size(), all.problem.size(), all.unknown.size()});
    const double scale = static_cast<double>(columns) / static_cast<double>(all.to - all.from);
    for (size_t i = 0; i < count; i++) {
        int state = all.problem[i] > 0 ? 3 : all.unknown[i] > 0 ? 2 : all.ok[i] > 0 ? 1 : 0;
        int64_t lasts = all.ok[i] + all.problem[i] + all.unknown[i];
        double begin = static_cast<double>(all.time[i] - all.from) * scale + rounding;
        double end = begin + static_cast<double>(lasts) * scale - 2 * rounding;
        for (double column = std::max(std::floor(begin), 0.0);
             column < std::max(end, std::floor(begin) + 1) && column < static_cast<double>(columns);
             column++) {
            int& there = worst[static_cast<size_t>(column)];
            there = std::max(there, state);
        }
    }
    static const tint colors[] = {tint::none, tint::good, tint::unsure, tint::bad};
    const std::string_view marks[] = {" ", on.ascii ? "." : "\xc2\xb7", "?", "!"};
    std::string text;
    for (size_t i = 0; i < columns;) {
        size_t end = i;
        std::string run;
        while (end < columns && worst[end] == worst[i]) {
            run += marks[worst[end++]];
        }
        text += tinted(run, colors[worst[i]], on);
        i = end;
    }
    return text;
}

/* The axis of the times, and their labels below it. */
std::pair<std::string, std::string> times_of(const plot_series& all, size_t columns, bool ascii) {
    std::vector<bool> marked(columns, false);
    std::string labels;
    for (const time_tick& tick : time_ticks(all.from, all.to, columns / label_room)) {
        auto column = static_cast<size_t>(static_cast<double>(tick.time - all.from) /
                                          static_cast<double>(all.to - all.from) *
                                          static_cast<double>(columns));
        column = std::min(column, columns - 1);
        marked[column] = true;
        /* In the middle below its mark, as far as there is room. */
        size_t begin = column - std::min(column, tick.label.size() / 2);
        begin = std::min(begin, columns - std::min(columns, tick.label.size()));
        if (labels.empty() || labels.size() + 1 <= begin) {
            labels.append(begin - labels.size(), ' ').append(tick.label);
        }
    }
    std::string axis;
    for (bool is_mark : marked) {
        axis += ascii ? (is_mark ? "+" : "-") : (is_mark ? "\xe2\x94\xac" : "\xe2\x94\x80");
    }
    return {axis, labels};
}

} // namespace

bool plot_curve::has_values() const {
    return std::any_of(mean.begin(), mean.end(), [](double each) { return std::isfinite(each); });
}

std::string plot_text(const plot_series& series, const plot_curve& values, size_t rows,
                      const screen& on) {
    const plot_curve curve = drawable(values, series.time.size());
    if (!curve.has_values() || series.from >= series.to) {
        return printable(curve.name) + ": no values\n";
    }
    const plot_series all = drawable(series);
    rows = std::clamp<size_t>(rows, 2, 100);
    const scale by = scale_of(curve, rows);
    const double top = std::max(std::abs(by.low), std::abs(by.high));
    std::vector<std::string> labels(rows);
    const auto steps = static_cast<size_t>(std::lround((by.high - by.low) / by.step));
    size_t room = 0;
    for (size_t i = 0; i <= steps && steps > 0; i++) {
        size_t from_below = static_cast<size_t>(
            std::lround(static_cast<double>(i * (rows - 1)) / static_cast<double>(steps)));
        std::string& label = labels[rows - 1 - from_below];
        label = printable(
            quantity(by.low + static_cast<double>(i) * by.step, curve.unit, by.step, top));
        room = std::max(room, display_width(label));
    }
    const std::string states_word = "state";
    room = std::max(room, states_word.size());
    const size_t width = on.picture_width();
    const size_t columns = width > room + 12 ? width - room - 2 : 10;

    canvas picture(columns, rows, on.ascii);
    drawing(all, curve, by, picture).draw();

    std::string text = title_of(curve) + "\n";
    auto add = [&](const std::string& label, const char* axis, const std::string& rest) {
        text.append(room - std::min(room, display_width(label)), ' ').append(label);
        text.append(axis).append(rest);
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    };
    for (size_t row = 0; row < rows; row++) {
        bool has_label = !labels[row].empty();
        const char* axis =
            on.ascii ? (has_label ? " +" : " |") : (has_label ? " \xe2\x94\xa4" : " \xe2\x94\x82");
        add(labels[row], axis, picture.row_text(row, on));
    }
    auto [axis, times] = times_of(all, columns, on.ascii);
    add("", on.ascii ? " +" : " \xe2\x94\x94", axis);
    if (!all.ok.empty()) {
        add(states_word, "  ", states_of(all, columns, on));
    }
    add("", "  ", times);
    return text;
}
