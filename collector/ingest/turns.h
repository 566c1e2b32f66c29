/* Whose turn it is to have a large body unpacked and stored: as many at a time as fit into a bound
 * of bytes, the others wait. What an address has had is held against it, by bytes, so that whoever
 * sends much waits behind whoever sends little; an agent has one place. One thread. */
#ifndef VINDRAL_COLLECTOR_TURNS_H
#define VINDRAL_COLLECTOR_TURNS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>

class turns {
public:
    /* A body larger than `capacity` has its turn alone. */
    explicit turns(size_t capacity) : capacity_(capacity) {}
    turns(const turns&) = delete;
    turns& operator=(const turns&) = delete;

    /* A place, from its making to its end. */
    class place {
    public:
        /* `begin` is called, once and not from here, when the turn comes; without a call the turn
         * has come at once. It must not throw or end a place. */
        place(turns& all, uint64_t address, std::string agent, size_t bytes,
              std::function<void()> begin);
        ~place();
        place(const place&) = delete;
        place& operator=(const place&) = delete;

        bool refused() const { return refused_; } /* the agent has a place already */
        bool begun() const { return begun_; }

    private:
        friend class turns;
        turns& all_;
        const uint64_t address_;
        const std::string agent_;
        const size_t bytes_;
        const std::function<void()> begin_;
        uint64_t start_ = 0; /* the smallest is next; what the address had before */
        bool refused_ = false, begun_ = false;
    };

private:
    void begin_next();

    const size_t capacity_;
    size_t used_ = 0, under_way_ = 0;
    uint64_t now_ = 0;                           /* the start of the last one begun */
    std::unordered_map<uint64_t, uint64_t> had_; /* by address, where it is more than now_ */
    std::unordered_set<std::string> agents_;
    std::multimap<uint64_t, place*> waiting_;
};

#endif
