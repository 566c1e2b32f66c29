#include "api/find.h"

#include "api/encoding.h"

#include <optional>

found_agent::found_agent(const known_agent& row)
    : id(row.id), account(row.account), name(row.agent), address(row.address), version(row.version),
      first_seen(row.first_seen), last_seen(row.last_seen), retired(row.retired) {
    state.unpack(row.state);
}

[[noreturn]] static void throw_unreadable(const std::string& error) {
    throw_unavailable("What is stored cannot be read: " + error + ".");
}

found_agent find_agent(result_reader& store, const std::string& called) {
    std::optional<found_agent> found;
    auto take = [&](const known_agent& row) { found.emplace(row); };
    std::string error;
    bool ok = true;
    if (std::optional<int64_t> id = read_integer(called)) {
        ok = store.read_agent(*id, take, error);
    }
    /* Either part may have a '/', too. */
    for (size_t at = called.find('/'); at != std::string::npos && !found && ok;
         at = called.find('/', at + 1)) {
        ok = store.read_agent(called.substr(0, at), called.substr(at + 1), take, error);
    }
    if (found) {
        return std::move(*found);
    }
    if (!ok) {
        throw_unreadable(error);
    }
    throw_not_found("There is no agent \"" + called +
                    "\": give its id, or its account and name with a slash between.");
}

int64_t agent_asked_for(result_reader& store, const api_request& asked) {
    const std::string* called = asked.parameter("agent");
    return called != nullptr ? find_agent(store, *called).id : 0;
}

known_test_row find_test(result_reader& store, int64_t id) {
    std::optional<known_test_row> found = store.find_test(id);
    if (!found) {
        throw_not_found("There is no test " + std::to_string(id) + ".");
    }
    return *found;
}

const agent_names::name& agent_names::of(int64_t id) {
    auto [place, is_new] = known_.try_emplace(id);
    if (is_new) {
        std::string ignored;
        store_.read_agent(
            id,
            [&, to = &place->second](const known_agent& row) {
                *to = {std::string(row.account), std::string(row.agent)};
            },
            ignored);
    }
    return place->second;
}
