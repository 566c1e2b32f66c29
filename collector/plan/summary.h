/* What the lines of a plan come to, for those who keep results: which results are to come, and what
 * each test was told to be. */
#ifndef VINDRAL_COLLECTOR_PLAN_SUMMARY_H
#define VINDRAL_COLLECTOR_PLAN_SUMMARY_H

#include "ingest/ingest.h"
#include "plan/line.h"
#include "state/expected.h"

#include <vector>

plan_summary summary_of(const std::vector<plan_line>& lines);

/* One for each planned test, in the order of planned_tests(). The text has the fields behind the
 * code that the agent heeds. Of passwords, pass phrases, communities, form data and what follows
 * the question mark of a page's path the places are empty: these are in no file but the plan. But
 * where nothing but "${secret:NAME}" stands for a password, that is said. */
std::vector<owned_definition> definitions_of(const std::vector<plan_line>& lines);

#endif
