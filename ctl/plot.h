/* A curve in the terminal: its mean as a line, the band between lowest and highest behind it, the
 * states below it, and axes. */
#ifndef VINDRAL_CTL_PLOT_H
#define VINDRAL_CTL_PLOT_H

#include "ctl/screen.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/* Columns of one length each; NaN where a point has no value. */
struct plot_curve {
    std::string name, unit;
    std::vector<double> min, mean, max;

    bool has_values() const;
};

struct plot_series {
    int64_t from = 0, to = 0; /* seconds */
    int64_t resolution = 0;   /* seconds that a point has, from its time on; 0: a result each */
    std::vector<int64_t> time = {};                           /* rising */
    std::vector<int64_t> ok = {}, problem = {}, unknown = {}; /* seconds in each state */
    std::vector<plot_curve> curves = {};
};

/* Lines: a title with the extremes, `rows` of the curve with labels on the left, a row of states
 * ('!' problem, '?' unknown, a dot for ok, a blank for nothing), and the times. As wide as the
 * screen. The line is broken where more than three times the usual distance is between points, or a
 * point has no value. Braille characters make four dots of a row; ASCII has '*' for the line and
 * ':' for the band. */
std::string plot_text(const plot_series& all, const plot_curve& curve, size_t rows,
                      const screen& on);

#endif
