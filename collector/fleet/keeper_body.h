/* What fleet_keeper is made of: keeper.cpp (start, thread, end), keeper_stored.cpp
 * (what was stored, and lost), keeper_agents.cpp (who there is), keeper_work.cpp (what is wanted
 * becomes what is given, in one transaction), keeper_told.cpp (what agents are told),
 * keeper_heard.cpp (what comes of them), keeper_asked.cpp (what the API asks).
 *
 * STATE  is guarded by one mutex that is held for moments: what an agent was given is looked up in
 * an object that is shared and never changed; who changes something makes another and puts it
 * there. It is changed by the store's thread alone, in the `done` of a transaction and behind a
 * block, but at the start and where nothing of it has to be stored.
 *
 * WORK  is what is made of the fleet and the agents outside of the mutex, and written in one
 * transaction. One piece of it is under way at a time; so numbers and revisions are given out by
 * one. A transaction whose end nobody waits for any more is followed all the same when it ends. */
#ifndef VINDRAL_COLLECTOR_FLEET_KEEPER_BODY_H
#define VINDRAL_COLLECTOR_FLEET_KEEPER_BODY_H

#include "fleet/file_watch.h"
#include "fleet/given.h"
#include "fleet/inventories.h"
#include "fleet/keeper.h"
#include "fleet/outcomes.h"
#include "fleet/stored_fleet.h"
#include "ingest/event_log.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

/* An agent. It stays where it is until the end, so that others may point to it. */
struct kept_agent {
    kept_agent(std::string_view of, std::string_view agent) : account(of), name(agent) {}

    const std::string account, name;

    /* Guarded by the keeper's mutex. */
    bool is_there = false; /* it polls, or did, and is not retired */
    std::shared_ptr<const given_agent> given = std::make_shared<given_agent>();
    bool is_given = false;   /* anything ever was */
    bool is_ready = false;   /* in this run: so it is known what its tests are */
    bool may_run = false;    /* with tests from before the start: it has not logged in since */
    bool is_due = false;     /* what is wanted of it has to be looked at */
    bool is_awaited = false; /* that is under way */
    bool is_unsaved = false; /* what it was given is not stored as it is now */
    bool is_noted = false;   /* it is in the list of those of which something is to be stored */
    std::shared_ptr<const known_inventory> has = {};
    std::vector<test_key> strays = {}; /* that it may have, from before the start */
    int32_t highest = 0;               /* number that any test of it ever had */
    agent_presence presence = {};
    agent_changes changes = {};
    std::vector<test_key> again = {};       /* to be put right with the next answer */
    std::vector<test_key> again_given = {}; /* were in an answer that is being written */

    struct tally {
        size_t tests = 0, sent = 0, confirmed = 0, unanswered = 0, impossible = 0, waiting = 0;
    } counted = {};
};

/* What an agent is to be given, made of what was known of it at a moment. */
struct agent_basis {
    kept_agent* of = nullptr;
    std::shared_ptr<const given_agent> given = {};
    bool is_given = false, is_ready = false;
    std::shared_ptr<const known_inventory> has = {};
    std::vector<test_key> strays = {};
    int32_t highest = 0;
};

struct fleet_work {
    struct agent {
        kept_agent* of = nullptr;
        std::shared_ptr<const given_agent> base = {};
        std::shared_ptr<const given_agent> now = {}; /* null: it is only to be stored */
        std::vector<std::string> groups = {};
        std::string about_intervals = {};
        int32_t revision = 0; /* of what changed */
        std::vector<fleet_change> differences = {};
        std::vector<kept_change> changes = {};  /* the same */
        std::vector<kept_change> outcomes = {}; /* of changes that were there, to be stored */
        bool is_changed = false;                /* it has to be stored */
        bool is_first = false;                  /* of this run */
    };
    std::shared_ptr<const fleet> file = {}; /* null: that in force */
    kept_revision revision = {};            /* 0: none is made */
    std::vector<agent> agents = {};
    bool is_ground = false; /* all that is known, where the store has not got it */
    moment now = {};
    bool ok = false;
    std::string reason = {};                          /* why not */
    std::function<void(const fleet_work&)> done = {}; /* on the store's thread */
};

class keeper_body final : public fleet_keeper {
public:
    explicit keeper_body(keeper_options options);
    ~keeper_body() override;
    bool open(std::vector<std::string>& early, std::string& error);

    bool start(ingest& results, std::string& error) override;
    void read_file() override;
    void stop() override;

    void refresh() override {}
    bool prepare(const session& of, std::function<void()> ready) override;
    told_commands for_login(const session& of) override;
    told_commands after(const session& of, uint64_t serial) override;
    std::string text_for_check(const session& of) override;
    void login_arrived(const session& of) override;
    void answer_arrived(const session& of) override;
    std::chrono::seconds poll_interval(const session& of) const override;

    void on_record(const poll_block& from, const decoded_record& result) override;
    void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                        const std::string&) override {}
    void on_agent(int64_t id, std::string_view account, std::string_view agent,
                  const agent_state& now, std::span<const change> changes) override;
    void on_retired(int64_t id, std::string_view account, std::string_view agent,
                    int64_t time) override;
    void on_batch_end() override { block_ = {}; }

    fleet_standing standing() const override;
    std::string text(int32_t& revision) const override;
    fleet_outcome try_out(std::string_view text) override;
    fleet_outcome apply(std::string_view text, const std::string& author,
                        std::optional<int32_t> expected) override;
    std::vector<std::string> groups_of(std::string_view account,
                                       std::string_view agent) const override;
    std::vector<fleet_test_standing> tests_of(std::string_view account,
                                              std::string_view agent) const override;
    std::optional<fleet_test_standing> test_of(std::string_view account, std::string_view agent,
                                               uint32_t type, int32_t number) const override;
    std::optional<called_test> name_of(std::string_view account, std::string_view agent,
                                       uint32_t type, int32_t number) const override;

private:
    using steady = std::chrono::steady_clock;
    using work_pointer = std::shared_ptr<fleet_work>;

    /* ---- keeper.cpp ---- */
    void log(const std::string& line) const;
    static std::string where(const std::string& path, const remark& what);
    bool store_now(const work_pointer& work);
    void run();
    void answer_waiting();
    void look_at_secrets();
    void look_at_changes();
    void look_at_file(bool at_once);
    void look_at_store();
    void apply_file();
    void begin_work();
    void with_turn(const std::function<void()>& what);
    void tell_finished();
    void tell_expectations(const fleet_work& done);
    void tell_plans(std::vector<ingest::agent_plan> plans) const;

    /* ---- keeper_work.cpp ---- */
    static moment now();
    uint64_t serial_of(std::string_view secret) const;
    static agent_basis basis_of(kept_agent& of);
    void make_agent(fleet_work::agent& made, const agent_basis& basis, const fleet& file,
                    int32_t revision) const;
    void number_changes(fleet_work& work);
    void make_due(fleet_work& work, const std::vector<agent_basis>& due);
    work_pointer make_application(std::string_view text, std::shared_ptr<const fleet> file,
                                  const std::string& author);
    void hide_secrets(const fleet_work& work);
    void submit(const work_pointer& work);
    void finish(const work_pointer& work, bool ok, const std::string& reason);
    void take_work(fleet_work& work);
    void take_given(fleet_work::agent& made, moment at);
    static std::shared_ptr<const given_agent> merged(const fleet_work::agent& made);

    /* ---- keeper_stored.cpp ---- */
    void take_stored(stored_fleet& stored, std::vector<std::string>& early);
    static std::shared_ptr<const fleet> read_kept(const std::string& text,
                                                  std::vector<std::string>& early);
    void take_copy(std::vector<std::string>& early);
    void take_agent(stored_fleet::agent& one);
    bool take_file(std::vector<std::string>& early, std::string& error);
    bool store_ground(std::string& error);
    work_pointer make_ground(const char* why, bool with_text); /* with the mutex */
    void note_store(engine& store);
    void keep(int32_t newest);
    void keep_copy();
    int32_t next_revision();

    /* ---- keeper_agents.cpp, with the mutex ---- */
    kept_agent* find(std::string_view account, std::string_view agent) const;
    kept_agent* find_or_make(std::string_view account, std::string_view agent);
    steady::time_point next_look(steady::time_point tick) const;
    void take_due(std::vector<agent_basis>& due);
    work_pointer collect_unsaved();
    std::vector<ingest::agent_plan> stored_plans() const;
    void make_due(kept_agent& of);
    void note(kept_agent& of); /* something of it is to be stored, or it is counted anew */
    void count(kept_agent& of);
    bool take_turn(std::unique_lock<std::mutex>& hold, std::chrono::milliseconds most);
    void give_turn_back() {
        is_busy_ = false;
        is_woken_ = true;
        changed_.notify_all();
    }

    /* ---- keeper_told.cpp ---- */
    std::optional<std::string> expand(std::string_view line) const;
    void tell_kept_back(const session& of, const given_agent& given);

    /* ---- keeper_heard.cpp, the store's thread ---- */
    struct seen_test {
        test_key test;
        int32_t location = 0;
        double whole_gb = 0; /* 0: it has none */
        bool is_given = false;
    };
    struct seen_block {
        const poll_block* from = nullptr; /* null: none is being told of */
        kept_agent* of = nullptr;         /* null: it is not kept */
        std::shared_ptr<const given_agent> given;
        std::vector<std::pair<uint32_t, std::string>> inventories; /* that are others */
        std::vector<seen_test> tests;                              /* of which something follows */
        int32_t highest = 0;
        bool has_disks = false, has_interfaces = false; /* inventories of them */
    };
    void begin_block(const poll_block& from);
    void note_result(const decoded_record& result, test_key test);
    void end_block(kept_agent& of);
    void take_seen(kept_agent& of, moment at);
    void take_stray(kept_agent& of, test_key test,
                    const std::function<assigned_agent&()>& changing);

    /* ---- keeper_asked.cpp ---- */
    std::string why_conflict(std::optional<int32_t> expected) const; /* with the mutex */

    const keeper_options options_;
    ingest* results_ = nullptr;
    fleet_facts facts_; /* from open() on as they are */
    int64_t restored_ = 0;
    bool is_restored_ = false;               /* since the last run */
    std::shared_ptr<const fleet> lost_file_; /* that the store has lost, of the settings */
    std::string lost_text_;
    std::unique_ptr<file_watch> watched_;
    event_log kept_back_; /* network thread */

    mutable std::mutex mutex_; /* guards what follows */
    std::condition_variable changed_;
    std::unordered_map<std::string, std::unique_ptr<kept_agent>>
        agents_;                        /* by account, NUL, name */
    std::shared_ptr<const fleet> file_; /* in force; null: there is none */
    kept_revision in_force_;            /* the text's */
    kept_revision newest_;              /* without its text */
    int32_t highest_revision_ = 0;      /* that was ever given out */
    int64_t newest_change_ = 0;
    std::vector<kept_agent*> due_, noted_;
    std::unordered_set<kept_agent*> open_; /* with changes of which something may become */
    kept_agent::tally counted_;
    size_t with_tests_ = 0;
    std::string file_trouble_;
    bool is_busy_ = false; /* a piece of work is under way */
    bool is_woken_ = false, is_stopping_ = false, is_read_again_ = false;
    steady::time_point retry_ = {}; /* what failed is not tried again before */
    std::string trouble_;           /* as told last */
    std::vector<work_pointer> finished_;
    struct waiting {
        kept_agent* of;
        std::function<void()> ready;
        steady::time_point until;
    };
    std::vector<waiting> waiting_;

    bool is_lost_ = false; /* what was stored: the store's file is another */

    std::mutex copying_;                 /* of the fleet to the settings; before mutex_ */
    std::atomic<int32_t> reserved_ = 0;  /* revisions up to it are noted there as given */
    std::optional<unsigned> generation_; /* store's thread: of its file */
    unsigned ticks_ = 0;                 /* keeper's thread */
    std::atomic<bool> is_started_ = false;
    uint64_t secrets_seen_ = 0;                               /* keeper's thread */
    std::optional<std::string> pending_text_;                 /* likewise: of --fleet's file */
    bool is_saving_ = false;                                  /* likewise */
    std::map<test_key, std::vector<std::string>> ever_named_; /* of who has the turn: secrets */
    seen_block block_;                                        /* store's thread */
    std::thread thread_;
};

#endif
