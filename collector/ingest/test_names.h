/* What tests are called by those who defined them, for whoever shows results. Any thread. */
#ifndef VINDRAL_COLLECTOR_TEST_NAMES_H
#define VINDRAL_COLLECTOR_TEST_NAMES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct called_test {
    std::string name;   /* "front page" */
    std::string target; /* what it looks at: "https://shop.example.org/"; may be empty */
};

class test_names {
public:
    virtual ~test_names() = default;
    /* None: nobody gave it a name. `type` is that of its records. */
    virtual std::optional<called_test> name_of(std::string_view account, std::string_view agent,
                                               uint32_t type, int32_t number) const = 0;
};

#endif
