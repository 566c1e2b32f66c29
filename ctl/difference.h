/* What a fleet file changes ("fleet_outcome" of the API), as people read it. */
#ifndef VINDRAL_CTL_DIFFERENCE_H
#define VINDRAL_CTL_DIFFERENCE_H

#include "ctl/screen.h"

#include <boost/json.hpp>
#include <string>

/* Whether any agent gets anything else to do; another text need not make a difference. */
bool makes_difference(const boost::json::object& outcome);

/* Lines with their ends, safe to print: under the agents that they are common to, what is added
 * (+), changed (~), renamed (>), removed (-), and what cannot be (!). Empty when there is nothing.
 *
 *     web-1, web-2 and 18 more:
 *       + front page  http https://shop.example.org/, within 5s
 *       ~ root disk   disk: free 5 GB -> 10 % */
std::string difference_text(const boost::json::object& outcome, const screen& on);

/* "3 added, 1 removed on 4 of 20 agents; 1 cannot be; 316 tests as before" */
std::string difference_summary(const boost::json::object& outcome);

#endif
