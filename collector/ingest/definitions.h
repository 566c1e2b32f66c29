/* What the tests were told to be, as often as that changes: kept so that last month's numbers still
 * have a name. Those of all agents, and those of single ones, which count from when the agent has
 * an id. One thread.
 *
 * A single agent may have been told of what is overtaken before it is stored, and bring results of
 * it: so it is stored, too, ahead of what took its place. */
#ifndef VINDRAL_COLLECTOR_DEFINITIONS_H
#define VINDRAL_COLLECTOR_DEFINITIONS_H

#include "ingest/in_transaction.h"
#include "ingest/owned_definition.h"
#include "store/engine.h"

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

class definitions {
public:
    explicit definitions(engine& store) : engine_(store) {}
    definitions(const definitions&) = delete;
    definitions& operator=(const definitions&) = delete;

    /* Another file: what is stored has to be looked up again, and may lack all of it. Agents have
     * no ids until has_id() says so. */
    void begin();

    /* From then on it is these: of all agents that have none of their own, */
    void follow(std::vector<owned_definition>&& all);
    /* and of one agent; with id 0 it has none yet. Where that throws for want of memory, nothing
     * is taken from `all`. */
    void follow(std::string_view account, std::string_view agent, int64_t id,
                std::vector<owned_definition>&& all);
    void has_id(std::string_view account, std::string_view agent, int64_t id);

    bool is_due() const { return !due_.empty(); }
    /* Stores some of those that differ from the last ones of their tests, for some 10 ms. False
     * when the engine failed: then they stay due. */
    bool run(int64_t now);

private:
    /* Of one agent, or of all. */
    struct told {
        int64_t agent = 0; /* 0: of all, or of one that has no id */
        std::vector<owned_definition> wanted = {};
        size_t next = 0; /* of these, which stay; those before it are stored */
        bool is_due = false;
        bool is_known = false;                                                /* what is stored */
        std::map<std::pair<uint32_t, int32_t>, owned_definition> stored = {}; /* type and number */
    };

    void put(told& of, std::vector<owned_definition>&& all);
    static std::vector<owned_definition> overtaken(const told& of,
                                                   const std::vector<owned_definition>& by);
    void put_in_line(told& of);
    void make_due(told& of);
    bool look_up(told& of);
    bool store_some(told& of, const spell& time, int64_t now, size_t& next);

    engine& engine_;
    told of_all_;
    std::unordered_map<std::string, told> own_; /* by account, NUL and name */
    std::deque<told*> due_;                     /* in turn */
};

#endif
