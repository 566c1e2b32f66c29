/* What listeners are sent: the messages of the hub as server-sent events. Listeners that are at the
 * same place and want the same get the same piece, made once. No sockets; one thread. */
#ifndef VINDRAL_COLLECTOR_WEB_STREAM_H
#define VINDRAL_COLLECTOR_WEB_STREAM_H

#include "api/hub.h"
#include "web/budget.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct stream_piece {
    std::string text;      /* empty: nothing of interest happened */
    uint64_t position = 0; /* behind it */
    memory_budget::share share = {};
};

class stream_source {
public:
    /* Pieces of up to `most_bytes`, and a message at least, out of `budget`. */
    stream_source(const event_hub& hub, size_t most_bytes, memory_budget& budget)
        : hub_(hub), most_bytes_(most_bytes), budget_(budget) {}

    /* What comes behind `position`; null when there is nothing new, or no memory for it: `failed`
     * then. */
    std::shared_ptr<const stream_piece> next(uint64_t position, const hub_filter& which,
                                             bool& failed);

    /* The first words on a stream: when to come back, and from where. */
    std::string greeting(uint64_t position, bool lost) const;

private:
    struct made {
        uint64_t from;
        hub_filter which;
        std::shared_ptr<const stream_piece> piece;
    };
    std::shared_ptr<const stream_piece> make(uint64_t position, const hub_filter& which);

    const event_hub& hub_;
    const size_t most_bytes_;
    memory_budget& budget_;
    std::vector<made> made_; /* of what was newest then */
    size_t next_made_ = 0;
    uint64_t newest_ = 0;
    std::vector<hub_message> found_;
};

/* A comment: keeps the line open. */
constexpr std::string_view stream_beat = ":\n\n";

#endif
