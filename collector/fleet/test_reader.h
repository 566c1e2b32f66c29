/* One test of a fleet file: "front page: {http: ...}". Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_TEST_READER_H
#define VINDRAL_COLLECTOR_FLEET_TEST_READER_H

#include "fleet/fleet.h"
#include "fleet/remarks.h"

#include <memory>
#include <string>

/* 1 to 100 characters, none of them a control character, and no secret. Else false with a remark;
 * `what`: "the name of a test". */
bool check_title(const std::string& what, const node& name, remarks& wrong);

/* Null, with remarks, when it is none. "off" is a test without a kind. */
std::shared_ptr<const fleet_test> read_test(const std::string& group, const node& name,
                                            const node& definition, remarks& wrong);

#endif
