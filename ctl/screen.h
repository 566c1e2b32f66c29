/* What the text goes to: how wide it is, and what it can show. */
#ifndef VINDRAL_CTL_SCREEN_H
#define VINDRAL_CTL_SCREEN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

enum class tint : uint8_t { none, good, bad, unsure, away, faint, strong };

struct screen {
    size_t width = 0;  /* columns; 0: no terminal, so lines may have any length */
    bool ascii = true; /* nothing beyond ASCII */
    bool color = false;

    /* For pictures, which need a width. */
    size_t picture_width() const { return width != 0 ? width : 80; }
    /* Where a text was cut off. */
    std::string_view cut_mark() const { return ascii ? "~" : "\xe2\x80\xa6"; }
};

/* Standard output. By the locale, which has to be set, and the environment: COLUMNS for what is no
 * terminal and where the terminal does not know, NO_COLOR, TERM. */
screen look_at_screen(bool ascii, bool no_color);

/* The text in a colour where there are colours, else as it is. */
std::string tinted(std::string_view text, tint color, const screen& on);

/* Of "ok", "problem", "unknown" and "silent". */
tint tint_of_state(std::string_view state);
/* Of "sent", "confirmed", "unanswered" and "impossible". */
tint tint_of_outcome(std::string_view outcome);

#endif
