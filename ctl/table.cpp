#include "ctl/table.h"

#include "ctl/text.h"

#include <algorithm>

static constexpr size_t between = 2; /* blanks */

void table::add(std::vector<table_cell> row) {
    row.resize(columns_.size());
    rows_.push_back(std::move(row));
}

/* Of each of the first `count` columns; 0: nothing stands in it. */
std::vector<size_t> table::natural_widths(size_t count) const {
    std::vector<size_t> wide(columns_.size(), 0);
    for (const std::vector<table_cell>& row : rows_) {
        for (size_t i = 0; i < count; i++) {
            wide[i] = std::max(wide[i], display_width(row[i].text));
        }
    }
    for (size_t i = 0; i < count; i++) {
        wide[i] = wide[i] > 0 ? std::max(wide[i], display_width(columns_[i].head)) : 0;
    }
    return wide;
}

/* Takes from the widest of those that may be cut, by their shares, until all fit; false when they
 * never do. */
bool table::fit(std::vector<size_t>& wide, size_t most) const {
    size_t sum = 0;
    for (size_t each : wide) {
        sum += each > 0 ? each + (sum > 0 ? between : 0) : 0;
    }
    while (sum > most) {
        size_t widest = wide.size();
        for (size_t i = 0; i < wide.size(); i++) {
            if (columns_[i].least > 0 && wide[i] > columns_[i].least &&
                (widest == wide.size() ||
                 wide[i] * columns_[widest].share >= wide[widest] * columns_[i].share)) {
                widest = i;
            }
        }
        if (widest == wide.size()) {
            return false;
        }
        wide[widest]--;
        sum--;
    }
    return true;
}

/* 0: the column is left out. */
std::vector<size_t> table::widths(size_t most) const {
    for (size_t count = columns_.size();; count--) {
        std::vector<size_t> wide = natural_widths(count);
        if (most == 0 || fit(wide, most) || count <= 1) {
            return wide;
        }
    }
}

/* Of the columns of agents, when it is the same in all rows. */
void table::leave_out_account() {
    for (size_t i = 0; i < columns_.size(); i++) {
        if (!columns_[i].is_agent || rows_.empty()) {
            continue;
        }
        const std::string& first = rows_[0][i].text;
        const std::string account = first.substr(0, first.find('/') + 1);
        auto has_it = [&](const std::vector<table_cell>& row) {
            return row[i].text.starts_with(account);
        };
        if (std::all_of(rows_.begin(), rows_.end(), has_it)) {
            for (std::vector<table_cell>& row : rows_) {
                row[i].text.erase(0, account.size());
            }
        }
    }
}

std::string table::text(const screen& on) const {
    if (on.width != 0) {
        table short_names = *this;
        short_names.leave_out_account();
        return short_names.lines(on);
    }
    return lines(on);
}

std::string table::lines(const screen& on) const {
    const std::vector<size_t> wide = widths(on.width);
    std::string all;
    auto add_line = [&](auto cell_of) {
        std::string line;
        size_t owed = 0; /* blanks, put down ahead of the next text */
        bool is_first = true;
        for (size_t i = 0; i < wide.size(); i++) {
            if (wide[i] == 0) {
                continue;
            }
            owed += is_first ? 0 : between;
            is_first = false;
            table_cell cell = cell_of(i);
            std::string fitting = columns_[i].keeps_end
                                      ? shortened_left(cell.text, wide[i], on.cut_mark())
                                      : shortened(cell.text, wide[i], on.cut_mark());
            size_t blanks = wide[i] - std::min(wide[i], display_width(fitting));
            owed += columns_[i].is_right ? blanks : 0;
            if (!fitting.empty()) {
                line.append(owed, ' ').append(tinted(fitting, cell.color, on));
                owed = 0;
            }
            owed += columns_[i].is_right ? 0 : blanks;
        }
        all += line + "\n";
    };
    if (rows_.empty()) {
        return all;
    }
    add_line([&](size_t i) { return table_cell{columns_[i].head, tint::strong}; });
    for (const std::vector<table_cell>& row : rows_) {
        add_line([&](size_t i) { return row[i]; });
    }
    return all;
}
