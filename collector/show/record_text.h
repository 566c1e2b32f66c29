/* The values of a record as text, for a line on a terminal or in a log. */
#ifndef VINDRAL_COLLECTOR_RECORD_TEXT_H
#define VINDRAL_COLLECTOR_RECORD_TEXT_H

#include "base/record_summary.h"

#include <cstddef>
#include <cstdint>
#include <string>

/* All values in one line: "load1 0.5 load5 0.25 ...". Generic for a record without a schema. Once
 * `most` bytes are reached " ..." ends it. */
std::string values_text(const record& r, const record_summary& summary, size_t most = SIZE_MAX);

#endif
