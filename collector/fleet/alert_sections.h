/* The sections of a fleet file that tell people of events: smtp, notify and alerts. Their shape is
 * checked; nothing is made of them yet. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_ALERT_SECTIONS_H
#define VINDRAL_COLLECTOR_FLEET_ALERT_SECTIONS_H

#include "fleet/node.h"
#include "fleet/remarks.h"

#include <set>
#include <string>

/* `groups`: names of those in the file. Of each section that is there a note says that it is not
 * heeded. */
void check_alert_sections(const node& root, const std::set<std::string>& groups, remarks& wrong,
                          std::vector<remark>& notes);

#endif
