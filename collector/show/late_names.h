/* Names of tests from somebody who is there later than those who show them, and may go first. */
#ifndef VINDRAL_COLLECTOR_LATE_NAMES_H
#define VINDRAL_COLLECTOR_LATE_NAMES_H

#include "base/text.h"
#include "ingest/test_names.h"

#include <mutex>

/* Any thread. What comes out is printable. */
class late_names final : public test_names {
public:
    /* Null: there are no names. The one before is not asked any more when this returns. */
    void ask(const test_names* names) {
        std::lock_guard hold(mutex_);
        names_ = names;
    }

    std::optional<called_test> name_of(std::string_view account, std::string_view agent,
                                       uint32_t type, int32_t number) const override {
        std::optional<called_test> found;
        {
            std::lock_guard hold(mutex_);
            if (names_ != nullptr) {
                found = names_->name_of(account, agent, type, number);
            }
        }
        if (!found || found->name.empty()) {
            return std::nullopt;
        }
        return called_test{.name = printable(found->name), .target = printable(found->target)};
    }

private:
    mutable std::mutex mutex_;
    const test_names* names_ = nullptr;
};

#endif
