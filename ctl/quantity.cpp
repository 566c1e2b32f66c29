#include "ctl/quantity.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr double first_prefixed = 10000;

std::string fixed(double value, int digits) {
    char text[400];
    snprintf(text, sizeof text, "%.*f", digits, value);
    /* "-0.0" */
    bool is_zero = std::string_view(text).find_first_of("123456789") == std::string_view::npos;
    return text[0] == '-' && is_zero ? text + 1 : text;
}

std::string plain(double value) {
    double size = std::abs(value);
    if (size >= 1e15) {
        char text[32];
        snprintf(text, sizeof text, "%.3g", value);
        return text;
    }
    if (size >= 1000) {
        return fixed(value, 0);
    }
    char text[32];
    snprintf(text, sizeof text, "%.3g", value);
    return text;
}

/* The agent's MB have 1024 KB, and its GB as many MB. */
constexpr double mb_of_gb = 1024;

} // namespace

double round_step(double least) {
    if (!(least > 0) || !std::isfinite(least)) {
        return 1;
    }
    double power = std::pow(10, std::floor(std::log10(least)));
    for (double factor : {1.0, 2.0, 5.0}) {
        if (power * factor >= least * (1 - 1e-9)) {
            return power * factor;
        }
    }
    return power * 10;
}

std::string quantity(double value, std::string_view unit, double step, double top) {
    if (!std::isfinite(value)) {
        return "-";
    }
    if (unit == "MB" && step == 0 && std::abs(value) >= first_prefixed) {
        return plain(value / mb_of_gb) + " GB";
    }
    const bool is_bytes = unit == "bytes" || unit == "B" || unit == "B/s" || unit == "bytes/s";
    double divisor = 1;
    std::string prefix;
    if (is_bytes || unit.empty() || unit == "/s") {
        const double highest = std::max(std::abs(value), std::abs(top));
        for (const char* each : {"k", "M", "G", "T", "P"}) {
            if (highest / divisor < (divisor > 1 ? 1000 : first_prefixed)) {
                break;
            }
            divisor *= 1000;
            prefix = each;
        }
    }
    value /= divisor;
    std::string text;
    if (step > 0 && std::abs(value) < 1e9) {
        double digits = std::ceil(-std::log10(step / divisor) - 1e-9);
        text = fixed(value, static_cast<int>(std::clamp(digits, 0.0, 9.0)));
    } else if (divisor > 1 && std::abs(value) < 1e9) {
        text = fixed(value, std::abs(value) < 100 ? 1 : 0);
    } else {
        text = plain(value);
    }
    if (is_bytes && divisor > 1) {
        return text + " " + prefix + (unit.ends_with("/s") ? "B/s" : "B");
    }
    text += prefix;
    return unit.empty() || unit == "/s" ? text.append(unit) : text.append(" ").append(unit);
}
