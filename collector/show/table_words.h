/* The words of the live table. */
#ifndef VINDRAL_COLLECTOR_TABLE_WORDS_H
#define VINDRAL_COLLECTOR_TABLE_WORDS_H

#include "show/table_layout.h"

namespace live {

/* "12s", "5m", "3h", "2d". */
std::string age_text(int64_t seconds);

/* "1 test", "2 tests". */
std::string counted(size_t n, const char* what);

/* "load average 5". */
std::string test_label(const test_key& key);

/* In so many columns. Of what is too long the id stays whole: it tells tests apart. */
std::string test_label(const test_key& key, size_t columns);

/* "2 of 5 processes: ...". */
std::string parts_text(const row& r);

/* "1 problem, 2 stale, 3 ok". */
std::string text_of(const count& tests);

/* What has no line of its own. */
std::string hidden_text(const std::vector<block>& blocks, size_t not_kept, size_t columns);

/* The state of everything, the worst first, in so many columns; `wrong` when something is. */
std::string title_text(const table_state& s, const std::vector<block>& blocks, size_t columns,
                       bool& wrong, int64_t now);

} // namespace live

#endif
