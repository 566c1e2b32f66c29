/* Numbers with their units, as people read them. */
#ifndef VINDRAL_CTL_QUANTITY_H
#define VINDRAL_CTL_QUANTITY_H

#include <string>
#include <string_view>

/* "12 %", "0.25", "12.3k", "12.3 kB/s", with three digits. Plain numbers, rates and bytes of 10,000
 * and more get a prefix, by the thousand, and as many MB become GB; other units stay as they are.
 * On an axis: `step` is what lies between two labels, so that these have as many digits as they
 * need, and `top` the highest number, whose prefix all of them get. */
std::string quantity(double value, std::string_view unit, double step = 0, double top = 0);

/* 1, 2 or 5 times a power of ten: the least of them that is not below `least`, above 0. */
double round_step(double least);

#endif
