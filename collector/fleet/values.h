/* One value of a test: what stands in the file becomes what its form wants, in the unit of that
 * form, or a remark. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_VALUES_H
#define VINDRAL_COLLECTOR_FLEET_VALUES_H

#include "fleet/kinds.h"
#include "fleet/node.h"
#include "fleet/remarks.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* A name with its limits: none: there is none. */
struct named_limits {
    std::string name;
    text_place at = {};
    std::optional<double> least = {}, most = {};
};

struct given_value {
    text_place at = {};
    std::string text = {}; /* of all that is written as one text: as it stands */
    double number = 0;     /* of all that are numbers, in the unit of the form; 1 and 0 of a flag */
    bool is_share = false; /* of gigabytes: `number` is in percent of the whole */
    std::vector<named_limits> names = {}; /* of a list, and of limits */
};

/* By the names of the keys. */
using given_values = std::map<std::string_view, given_value>;

/* None, with a remark, when it is not what the key wants. */
std::optional<given_value> read_value(const key_def& key, const node& from, remarks& wrong);

/* A text that is one line and not empty; else false with a remark. With `may_be_secret` false
 * placeholders for secrets are wrong, too. `subject`: "`contains`". */
bool check_line(std::string_view subject, const node& from, bool may_be_secret, remarks& wrong);

/* A time of whole seconds from `least` to `most`; `key`: "poll". */
std::optional<int32_t> read_seconds(const char* key, const node& from, double least, double most,
                                    remarks& wrong);

/* "2", "0.5": as it would be written, without an exponent. */
std::string number_text(double number);

/* "a text", "a list": what stands there. */
std::string_view word_for(const node& from);

#endif
