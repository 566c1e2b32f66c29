#include "ingest/definitions.h"

#include "ingest/in_transaction.h"

static constexpr std::chrono::milliseconds most{10};

/* What was read of a damaged file is used: the worst that follows is a definition told twice. */
bool definitions::look_up() {
    stored_.clear();
    auto note = [&](const test_definition& d) {
        stored_[{d.type, d.number}] = {.type = d.type,
                                       .number = d.number,
                                       .location = d.location,
                                       .name = std::string(d.name),
                                       .text = std::string(d.text)};
    };
    std::string error;
    engine_.reader().for_each_definition(0, 0, 0, note, error);
    is_known_ = engine_.is_open();
    return is_known_;
}

bool definitions::run(int64_t now) {
    size_t end = next_;
    auto differs = [&](const owned_definition& d) {
        auto last = stored_.find({d.type, d.number});
        return last == stored_.end() || last->second.location != d.location ||
               last->second.name != d.name || last->second.text != d.text;
    };
    bool ok = in_transaction(engine_, [&] {
        if (!is_known_ && !look_up()) {
            return false;
        }
        spell time(most);
        for (end = next_; end < wanted_.size() && !time.is_over(); end++) {
            const owned_definition& d = wanted_[end];
            if (differs(d) && !engine_.append_definition({.type = d.type,
                                                          .number = d.number,
                                                          .location = d.location,
                                                          .since = now,
                                                          .name = d.name,
                                                          .text = d.text})) {
                return false;
            }
        }
        return true;
    });
    for (; ok && next_ < end; next_++) {
        const owned_definition& d = wanted_[next_];
        stored_[{d.type, d.number}] = d;
    }
    return ok;
}
