/* Whether the clocks of the agents bear out the one by which polls arrive: they are many, and wrong
 * for reasons of their own. Of the last hour each block counts whose newest check time lies within
 * a day of its arrival, or does not. What was held back by an outage speaks against a clock that
 * is right, but not for long. One thread. */
#ifndef VINDRAL_COLLECTOR_WITNESS_H
#define VINDRAL_COLLECTOR_WITNESS_H

#include <cstdint>

class witness {
public:
    enum class verdict : uint8_t { none, agrees, differs };

    /* A block, its newest check time as the agent had it; `now` is of a clock that never jumps. */
    void note(int64_t claimed, int64_t arrival, int64_t now) {
        turn(now);
        const bool near = claimed <= arrival ? claimed >= arrival - day : claimed - day <= arrival;
        (near ? now_.near : now_.far)++;
    }

    /* What most of them say. */
    verdict says(int64_t now) {
        turn(now);
        const uint64_t near = now_.near + before_.near, far = now_.far + before_.far;
        return near + far == 0 ? verdict::none : near > far ? verdict::agrees : verdict::differs;
    }

private:
    static constexpr int64_t day = 86400, half = 1800; /* seconds */
    struct counts {
        uint64_t near = 0, far = 0;
    };

    void turn(int64_t now) {
        if (now - begun_ >= half) {
            before_ = now - begun_ < 2 * half ? now_ : counts{};
            now_ = {};
            begun_ = now;
        }
    }

    counts before_, now_; /* each of half an hour */
    int64_t begun_ = 0;
};

#endif
