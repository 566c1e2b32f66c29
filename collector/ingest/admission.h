/* What each address and each agent may hold of what all share: connections and the memory for
 * bodies. One thread; no network in here.
 *
 * An address is an IPv4 address, or the /64 that an IPv6 host owns. An agent is known once it has
 * named its session.
 *
 * CONNECTIONS  A connection that waits for its peer, or with a large block for its turn, may have
 * to make room; one whose block is being unpacked or stored may not. Of the former "unheard" are
 * those that have not said for which session they come, whether they are silent, in a handshake, in
 * the middle of a head, or send a body for a session that nobody has; "heard" are the others, at
 * most four for one agent at a time, since an agent has one and perhaps some whose line is dead.
 *
 * When all places are taken, the address with the most waiting connections makes room, provided
 * that it has more than the newcomer's address would have then; so a few addresses with thousands
 * of connections only push out their own. Of that address the oldest unheard connection goes, or
 * when there is none the oldest heard one. Where the newcomer's address has as many as any, the
 * oldest unheard connection of all goes, or else the oldest heard one, but only once it has waited
 * as long as admission_limits::patience; before that the newcomer is refused. The same holds within
 * an address that has all the connections it may have: many agents behind one address lose nothing
 * to a neighbour that opens connections and is silent.
 *
 * MEMORY  An agent may hold twice what is free then, an address three times. So one agent leaves a
 * third of all to others, and one address a quarter. Where that is not enough, the address that
 * holds most makes room, if it holds more than a 128th of all, and more than four times as much as
 * the one that wants some would: of it the connection that holds most and waits for its peer is
 * out. When that address is one's own, the connections are compared in the same way. So those who
 * hold little are served before those who hold much, by a factor that keeps equals from throwing
 * out each other in turns. */
#ifndef VINDRAL_COLLECTOR_ADMISSION_H
#define VINDRAL_COLLECTOR_ADMISSION_H

#include <boost/intrusive/list.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>

struct admission_limits {
    size_t most = 10000;            /* connections */
    size_t most_per_address = 1250; /* of these */
    std::chrono::steady_clock::duration patience = std::chrono::seconds(2);
    size_t memory = 408u << 20;
};

class admission {
public:
    using time = std::chrono::steady_clock::time_point;

    enum class stage : uint8_t {
        unheard,
        heard,
        busy, /* waits for us */
        out   /* not admitted, or has made room */
    };
    enum class verdict { admitted, too_many, too_many_of_address };
    enum class need { connection, memory }; /* what somebody had to make room for */

private:
    template <typename Tag>
    using hook = boost::intrusive::list_base_hook<
        boost::intrusive::tag<Tag>, boost::intrusive::link_mode<boost::intrusive::normal_link>>;
    template <typename T, typename Tag>
    using list = boost::intrusive::list<T, boost::intrusive::base_hook<hook<Tag>>,
                                        boost::intrusive::constant_time_size<false>>;
    struct address;
    struct agent { /* the key: account, NUL, name */
        size_t connections = 0;
        size_t memory = 0;
    };

public:
    class visit;

    /* The place of one connection, given up with it. */
    class place : public hook<struct of_all>, public hook<struct of_address> {
    public:
        place() = default;
        ~place();
        place(const place&) = delete;
        place& operator=(const place&) = delete;

        /* Changes nothing once it is out. */
        void set_stage(stage to, time now);
        stage in() const { return stage_; }

    private:
        friend class admission;
        address* home_ = nullptr;
        agent* agent_ = nullptr; /* during its visit */
        time since_{};           /* in this stage */
        size_t memory_ = 0;
        stage stage_ = stage::out;
    };

    /* A connection of an agent that is known, for as long as it takes its block. What memory the
     * connection gets meanwhile, it has to give back before. */
    class visit {
    public:
        visit(place& of, const std::string& account, const std::string& name);
        ~visit();
        visit(const visit&) = delete;
        visit& operator=(const visit&) = delete;

        bool one_of_few() const { return few_; } /* this one may be heard */

    private:
        place& of_;
        std::pair<const std::string, agent>& agent_;
        bool few_;
    };

    /* A part of the memory, given back by scope, or when its place is out: what the connection has
     * goes with it at once. */
    class memory_share {
    public:
        explicit memory_share(place& of) : of_(of) {}
        ~memory_share();
        memory_share(const memory_share&) = delete;
        memory_share& operator=(const memory_share&) = delete;

        /* False, and nothing changed, when there is not that much for this one. */
        bool add(size_t bytes);
        size_t held() const { return held_; }

    private:
        place& of_;
        size_t held_ = 0;
    };

    /* `made_room` is told of each place that is out because it had to make room: its connection has
     * to end. It must not destroy the place at once. */
    admission(const admission_limits& limits, std::function<void(place&, need)> made_room)
        : limits_(limits), made_room_(std::move(made_room)), free_(limits.memory) {}

    /* Gives the newcomer a place among those unheard. */
    verdict admit(place& newcomer, uint64_t address_key, time now);

    size_t connections() const { return connections_; } /* those not out */

    /* Calls `each` with every place that is not out. It may not change any. */
    template <typename Function>
    void for_each(const Function& each) {
        for (auto* of_stage : {&unheard_, &heard_, &busy_}) {
            for (place& p : *of_stage) {
                each(p);
            }
        }
    }

private:
    struct address : hook<struct of_crowd> {
        admission* owner = nullptr;
        uint64_t key = 0;
        size_t users = 0;       /* places, those out included: they may hold memory yet */
        size_t connections = 0; /* not out */
        size_t waiting = 0;     /* of these, for their peers */
        size_t memory = 0;
        list<place, struct of_address> unheard, heard;
    };

    void enter(place& p, stage to, time now);
    void leave(place& p);
    void put_out(place& p);
    bool may_take(const place& p, size_t bytes) const;
    void take(place& p, size_t bytes);
    void give_back(place& p, size_t bytes);
    place* find_holder(const place& asking, size_t bytes);
    void count_waiting(address& a, size_t waiting);
    void forget_unused(address& a);
    place* find_leaver(address& home, bool address_full, time now);

    admission_limits limits_;
    std::function<void(place&, need)> made_room_;
    size_t free_;
    size_t connections_ = 0;
    list<place, struct of_all> unheard_, heard_, busy_; /* each in the order of coming into it */
    std::unordered_map<uint64_t, address> addresses_;
    std::unordered_map<std::string, agent> agents_;

    /* By number of waiting connections the addresses that have so many, in the order of getting
     * there. A number changes by one at a time, so finding the largest takes no search. */
    std::deque<list<address, struct of_crowd>> crowds_;
    size_t largest_ = 0;
};

#endif
