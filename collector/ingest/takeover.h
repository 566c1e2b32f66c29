/* What an earlier version of this program stored, as if it arrived again: poll by poll, in the
 * order in which it came, through what stores blocks. How far that got is stored with it, so that a
 * kill at any moment goes on from there. One thread. */
#ifndef VINDRAL_COLLECTOR_TAKEOVER_H
#define VINDRAL_COLLECTOR_TAKEOVER_H

#include "base/record_summary.h"
#include "ingest/storing.h"
#include "ingest/trouble.h"
#include "store/engine.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class takeover {
public:
    /* `stored` is told of each poll that is committed. */
    using stored_function = std::function<void(const agent_work&)>;
    takeover(engine& store, tell_function tell, stored_function stored)
        : engine_(store), tell_(std::move(tell)), stored_(std::move(stored)) {}

    /* Whether there is anything. */
    bool begin();

    enum class progress { done, more, failed };
    /* Some of it, in a transaction; in the end the old file is removed. What failed is tried with
     * the next call. */
    progress step(int64_t stale_after);
    /* When the last of it arrived. */
    int64_t now() const { return polls_.empty() ? 0 : polls_.back().received; }

private:
    /* Records of a poll. */
    struct poll {
        int64_t agent = 0, received = 0;
        size_t from = 0, to = 0; /* in plain_ */
    };
    bool read();
    bool store(int64_t stale_after);
    bool store(const poll& p, agent_work& work, const patience& then);
    progress finish();

    engine& engine_;
    const tell_function tell_;
    const stored_function stored_;
    storing storing_{engine_};
    trouble trouble_{tell_, "earlier results are taken over again"};

    std::unique_ptr<earlier_results> from_;
    unsigned generation_ = 0;
    int64_t position_ = 0;           /* behind which the rest is */
    int64_t read_ = 0, records_ = 0; /* last position, and number, of what plain_ holds */
    int64_t taken_ = 0;
    std::string plain_;
    std::vector<poll> polls_;
    std::vector<decoded_record> decoded_;
    std::vector<agent_work> works_;
};

#endif
