/* Work on the fleet in the store: written in one transaction, and in force when that is committed,
 * whether or not anybody still waits for it. */
#ifndef VINDRAL_COLLECTOR_FLEET_STORING_H
#define VINDRAL_COLLECTOR_FLEET_STORING_H

#include "fleet/fleet_work.h"
#include "ingest/ingest.h"
#include "plan/known_secrets.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class fleet_storing {
public:
    using pointer = work_maker::pointer;

    /* `secrets` may be null; both outlive it. */
    fleet_storing(fleet_state& state, known_secrets* secrets) : state_(state), secrets_(secrets) {}

    /* Ahead of all others, with the state as it was stored. */
    void begin(ingest& results);

    /* With the turn, which goes with the end of it. Then state_.finished has it, and `done` of the
     * work is called: on the store's thread, or on this one where there is nothing to store. */
    void submit(const pointer& work);
    /* The same, and waits for the end, ten seconds at the most: when it is `late` it may still come
     * to any. When it has failed, the work has the reason. */
    enum class ending { stored, failed, late };
    ending submit_and_wait(const pointer& work);

    /* Has the store looked at now and then: what was written may not be there any more. */
    void probe();

private:
    void name_removed();
    void hide_secrets(const fleet_work& work);
    void finish(const pointer& work, bool ok, const std::string& reason);
    void take_work(fleet_work& work);
    void take_back(const fleet_work& work);
    void take_given(fleet_work::agent& made, moment at);
    static std::shared_ptr<const given_agent> merged(const fleet_work::agent& made);
    void note_store(engine& store);

    fleet_state& state_;
    known_secrets* const secrets_;
    ingest* results_ = nullptr;
    std::map<test_key, std::vector<std::string>> ever_named_; /* of who has the turn: secrets */
    std::optional<unsigned> generation_;                      /* store's thread: of its file */
};

#endif
