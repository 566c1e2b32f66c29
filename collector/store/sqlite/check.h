/* Looking at all that is in a file: check_store(), and what a copy has to stand before it takes the
 * place of a state directory's file. */
#ifndef VINDRAL_COLLECTOR_CHECK_H
#define VINDRAL_COLLECTOR_CHECK_H

#include "store/engine.h"
#include "store/sqlite/database.h"
#include "store/sqlite/layout.h"

#include <functional>
#include <string>

/* In the transaction that is under way, of a file of that layout. What cannot be read is found too,
 * and the rest is looked at all the same. */
void check_database(sqlite3* db, database_layout layout,
                    const std::function<void(const std::string&)>& found,
                    const whole_texts& is_whole);

#endif
