/* Tells the operator once when something begins to fail, fails otherwise, or works again. */
#ifndef VINDRAL_COLLECTOR_TROUBLE_H
#define VINDRAL_COLLECTOR_TROUBLE_H

#include <functional>
#include <string>

using tell_function = std::function<void(const std::string&)>;

class trouble {
public:
    /* `over` is told when it is. */
    trouble(tell_function tell, const char* over) : tell_(std::move(tell)), over_(over) {}

    /* `now` is empty when all is well. */
    void report(const std::string& now) {
        if (now != last_) {
            tell_(now.empty() ? over_ : now);
        }
        last_ = now;
    }

private:
    const tell_function tell_;
    const std::string over_;
    std::string last_;
};

#endif
