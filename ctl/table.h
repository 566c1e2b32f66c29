/* Rows under heads, as wide as they need and no wider than the screen. */
#ifndef VINDRAL_CTL_TABLE_H
#define VINDRAL_CTL_TABLE_H

#include "ctl/screen.h"

#include <cstddef>
#include <string>
#include <vector>

struct table_column {
    std::string head;
    bool is_right = false;  /* numbers */
    size_t least = 0;       /* columns that it may be cut down to; 0: it is never cut */
    bool keeps_end = false; /* what is cut off is its beginning */
    bool is_agent = false;  /* "account/name": see text() */
    size_t share = 1;       /* how often it gets what others get, of columns that are cut */
};

/* Text is printable. */
struct table_cell {
    std::string text = {};
    tint color = tint::none;
};

class table {
public:
    explicit table(std::vector<table_column> columns) : columns_(std::move(columns)) {}

    /* As many cells as there are columns; missing ones are empty. */
    void add(std::vector<table_cell> row);
    bool is_empty() const { return rows_.empty(); }

    /* Heads and rows, a line each; without blanks at their ends. Columns in which nothing stands
     * are left out. On a screen that is too narrow the columns that may be cut are, the widest
     * first; when that is not enough, the last columns are left out. Of agents the name alone is
     * shown on a screen when all have one account. */
    std::string text(const screen& on) const;

private:
    void leave_out_account();
    std::vector<size_t> natural_widths(size_t count) const;
    bool fit(std::vector<size_t>& wide, size_t most) const;
    std::vector<size_t> widths(size_t most) const;
    std::string lines(const screen& on) const;

    const std::vector<table_column> columns_;
    std::vector<std::vector<table_cell>> rows_;
};

#endif
