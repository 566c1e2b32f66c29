#include "api/live_changes.h"

#include "api/difference.h"
#include "api/json.h"
#include "state/agent_state.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

/* With its own texts. */
struct owned_change {
    explicit owned_change(const stored_change& of)
        : account(of.account), agent(of.agent), test(of.test), was(of.was), reason(of.reason),
          what(of) {}

    stored_change view() const {
        stored_change all = what;
        all.account = account;
        all.agent = agent;
        all.test = test;
        all.was = was;
        all.reason = reason;
        return all;
    }

    std::string account, agent, test, was, reason;
    stored_change what; /* but for the texts */
};

/* The ids of an agent and of one of its tests; 0: not in the store. */
struct found_ids {
    int64_t agent = 0, test = 0;
};

class ids_in_store {
public:
    explicit ids_in_store(std::string directory) : directory_(std::move(directory)) {}

    /* Of what is there now; until end(). */
    void begin() {
        std::string ignored;
        if (reader_ && !reader_->renew(ignored)) {
            reader_ = nullptr;
        }
        if (!reader_) {
            reader_ = open_reader(directory_, ignored);
        }
        last_agent_ = {};
        has_last_ = false;
    }
    void end() {
        if (reader_) {
            reader_->rest();
        }
    }

    /* Changes of an agent come together mostly. */
    found_ids of(const owned_change& change) {
        if (!has_last_ || change.account != last_account_ || change.agent != last_name_) {
            last_account_ = change.account;
            last_name_ = change.agent;
            has_last_ = true;
            last_agent_ = 0;
            last_state_ = {};
            std::string ignored;
            if (reader_) {
                reader_->read_agent(
                    change.account, change.agent,
                    [this](const known_agent& row) {
                        last_agent_ = row.id;
                        last_state_.unpack(row.state);
                    },
                    ignored);
            }
        }
        const test_status* test = last_state_.find(change.what.type, change.what.number);
        return {last_agent_, test != nullptr ? test->id : 0};
    }

private:
    const std::string directory_;
    std::unique_ptr<result_reader> reader_;
    bool has_last_ = false;
    std::string last_account_, last_name_;
    int64_t last_agent_ = 0;
    agent_state last_state_;
};

} // namespace

struct live_changes::state {
    state(event_hub& to, std::string directory, size_t most)
        : hub(to), most_waiting(most), ids(std::move(directory)) {}

    event_hub& hub;
    const size_t most_waiting;

    std::mutex mutex;
    std::condition_variable more;
    std::deque<owned_change> waiting;
    bool is_cut = false; /* something is left out behind those that wait */
    bool stopping = false;
    std::thread thread;

    ids_in_store ids; /* the thread's, as is the next one */
    std::deque<owned_change> taken;

    void put(const stored_change& what) {
        std::lock_guard hold(mutex);
        if (waiting.size() >= most_waiting) {
            is_cut = true;
            return;
        }
        waiting.emplace_back(what);
        if (!thread.joinable()) {
            thread = std::thread([this] { run(); });
            pthread_setname_np(thread.native_handle(), "live changes");
        }
        more.notify_one();
    }

    void run() {
        std::unique_lock hold(mutex);
        for (;;) {
            more.wait(hold, [this] { return stopping || !waiting.empty(); });
            if (stopping) {
                return;
            }
            taken.swap(waiting); /* a new one would ask for memory */
            bool lost = std::exchange(is_cut, false);
            hold.unlock();
            try {
                publish(taken);
            } catch (const std::exception&) { /* no memory */
                lost = true;
            }
            taken.clear();
            ids.end();
            if (lost) {
                hub.skip();
            }
            hub.flush();
            hold.lock();
        }
    }

    void publish(const std::deque<owned_change>& all) {
        ids.begin();
        for (const owned_change& each : all) {
            const found_ids found = ids.of(each);
            hub.publish(hub_kind::change, found.agent, found.test,
                        json_text(json_change(each.view(), found.agent)));
        }
    }

    void stop() {
        {
            std::lock_guard hold(mutex);
            stopping = true;
        }
        more.notify_one();
        if (thread.joinable()) {
            thread.join();
        }
    }
};

live_changes::live_changes(event_hub& hub, std::string directory, size_t most_waiting)
    : state_(std::make_unique<state>(hub, std::move(directory), most_waiting)) {}

live_changes::~live_changes() {
    state_->stop();
}

void live_changes::tell(const stored_change& what) {
    try {
        if (state_->hub.is_heard()) {
            state_->put(what);
            return;
        }
    } catch (const std::exception&) { /* no memory, no thread */
    }
    state_->hub.skip();
}
