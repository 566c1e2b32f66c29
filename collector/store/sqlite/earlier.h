/* The file of an earlier version, layout 1 or 2: a table results_YYYYMMDD for each day of arrival,
 * with a row for each record.
 *
 * At the first start it becomes results-earlier.db, and results.db is made anew with the agents of
 * it, in one transaction with the fact that it has to be taken over (1). While that goes on,
 * nothing is changed in it. Once all of it is taken over the fact becomes 0, then the file is
 * removed, then the fact. So whatever ends the process, what is found tells what comes next:
 *
 *   results.db          results-earlier.db
 *   an earlier layout   none                is renamed
 *   none, or empty      there               is made, with the agents of the other
 *   fact 1              there               is filled
 *   fact 0              perhaps             the other is removed, and the fact
 *
 * Where a day of it is damaged, the file has a second name results-damaged-TIME.db, which stays. */
#ifndef VINDRAL_COLLECTOR_EARLIER_H
#define VINDRAL_COLLECTOR_EARLIER_H

#include "store/engine.h"
#include "store/sqlite/database.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

std::string earlier_path(const std::string& directory);
bool earlier_is_there(const std::string& directory);

/* Closes results.db, which has an earlier layout, and gives it its new name. */
bool rename_to_earlier(const std::string& directory, database& db, std::string& error);

/* Opens it for reading. */
bool open_earlier(const std::string& directory, database& db, std::string& error);

/* Null with the reason in `error`. `damaged` is told once, when something cannot be read. */
std::unique_ptr<earlier_results>
read_earlier(const std::string& directory,
             const std::function<void(const std::string& reason)>& damaged, std::string& error);

bool remove_earlier(const std::string& directory);

#endif
