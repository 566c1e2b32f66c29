#include "fleet/fleet_storing.h"

#include "plan/placeholder.h"

#include <algorithm>
#include <future>
#include <set>
#include <utility>

static constexpr std::chrono::seconds before_retry{5}, longest_storing{10};

/* In how many tests of the file each is used. */
static std::map<std::string, size_t, std::less<>> uses_of_secrets(const fleet& file) {
    std::map<std::string, size_t, std::less<>> uses;
    for (const fleet_group& group : file.groups) {
        for (const auto& test : group.tests) {
            std::set<std::string> names;
            for (const std::string& field : test->fields) {
                for (std::string& name : secrets_in(field)) {
                    names.insert(std::move(name));
                }
            }
            for (const std::string& name : names) {
                uses[name]++;
            }
        }
    }
    return uses;
}

void fleet_storing::begin(ingest& results) {
    results_ = &results;
    name_removed();
    probe();
}

/* Which secrets a test had that was removed before the start nobody knows any more, and its agent
 * may have it yet: any of those that there are. */
void fleet_storing::name_removed() {
    std::vector<std::string> names;
    if (secrets_ != nullptr) {
        for (const known_secrets::entry& one : secrets_->list()) {
            names.push_back(one.name);
        }
    }
    if (names.empty()) {
        return;
    }
    std::shared_ptr<const fleet> file;
    {
        std::lock_guard hold(state_.mutex);
        file = state_.file;
        for (const auto& [key, agent] : state_.agents) {
            for (const test_key& stray : agent->strays) {
                ever_named_[stray] = names;
            }
            for (const removed_test& test : agent->given->all().removed) {
                if (!test.is_over) {
                    ever_named_[{test.type, test.number}] = names;
                }
            }
        }
    }
    secrets_->note_uses(file ? uses_of_secrets(*file) : decltype(uses_of_secrets(*file))(),
                        ever_named_);
}

/* What agents send of the values is hidden, before they are told them; also of what was removed,
 * for they may have it yet. With a turn. */
void fleet_storing::hide_secrets(const fleet_work& work) {
    if (secrets_ == nullptr) {
        return;
    }
    bool any = work.file != nullptr;
    for (const fleet_work::agent& made : work.agents) {
        if (made.now && made.now->has_secrets()) {
            add_secrets(*made.now, ever_named_);
            any = true;
        }
    }
    std::shared_ptr<const fleet> file = work.file;
    if (!file) {
        std::lock_guard hold(state_.mutex);
        file = state_.file;
    }
    if (any && file) {
        secrets_->note_uses(uses_of_secrets(*file), ever_named_);
    }
}

/* ---- storing it ---- */

void fleet_storing::submit(const pointer& work) {
    hide_secrets(*work);
    auto writing = std::make_shared<fleet_writing>();
    writing->revision = work->revision;
    if (work->is_all || work->revision.has_text) {
        writing->facts = state_.facts;
    }
    for (const fleet_work::agent& made : work->agents) {
        if (!made.is_changed && made.outcomes.empty()) {
            continue;
        }
        fleet_writing::agent& one = writing->agents.emplace_back();
        one.account = made.of->account;
        one.name = made.of->name;
        one.packed = made.is_changed ? packed(made.now ? *made.now : *made.base) : "";
        one.changes = made.changes;
        one.changes.insert(one.changes.end(), made.outcomes.begin(), made.outcomes.end());
    }
    if (writing->is_empty()) {
        finish(work, true, "");
        return;
    }
    results_->update(
        [this, writing](engine& store) {
            note_store(store); /* this may be another one than the last time */
            return write_fleet(store, *writing);
        },
        [this, work](bool ok, const std::string& reason) { finish(work, ok, reason); });
}

/* On the store's thread, unless there was nothing to store. Where memory is short, the store and
 * the state may differ: then all is written again, as it is in the state. */
void fleet_storing::finish(const pointer& work, bool ok, const std::string& reason) {
    {
        std::lock_guard hold(state_.mutex);
        try {
            state_.finished.push_back(work);
            work->ok = ok;
            work->reason = ok || !reason.empty() ? reason : "the store refused it";
            if (ok) {
                take_work(*work);
            } else {
                take_back(*work);
            }
            state_.give_turn_back();
        } catch (const std::exception&) {
            work->ok = ok && work->revision.has_text &&
                       state_.in_force.revision == work->revision.revision;
            work->reason = "no memory";
            state_.differs = ok ? "memory was short when it had been stored" : state_.differs;
            state_.break_off_turn();
        }
    }
    if (work->done) {
        work->done(*work);
    }
}

/* Nothing was stored. With the mutex. */
void fleet_storing::take_back(const fleet_work& work) {
    state_.retry = fleet_state::clock::now() + before_retry;
    for (const fleet_work::agent& made : work.agents) {
        made.of->is_awaited = false;
        if (made.now) {
            state_.make_due(*made.of);
        } else {
            state_.note(*made.of);
        }
    }
}

/* What was stored is in force. With the mutex. */
void fleet_storing::take_work(fleet_work& work) {
    if (work.revision.revision != 0) {
        kept_revision made = work.revision; /* or there is no memory, and nothing is changed */
        state_.newest = made;
        state_.newest.text.clear();
        if (made.has_text) {
            state_.in_force = std::move(made);
            state_.file = work.file;
            state_.file_trouble.clear();
        }
    }
    state_.differs = work.is_all ? nullptr : state_.differs;
    for (fleet_work::agent& made : work.agents) {
        take_given(made, work.now);
    }
    if (work.revision.has_text) { /* who came while it was made */
        for (const auto& [key, agent] : state_.agents) {
            if (agent->is_there && !agent->is_ready) {
                state_.make_due(*agent);
            }
        }
    }
}

/* What came to be known of the agent meanwhile is so still. */
std::shared_ptr<const given_agent> fleet_storing::merged(const fleet_work::agent& made) {
    assigned_agent next = made.now->all();
    const given_agent& meanwhile = *made.of->given;
    for (assigned_test& test : next.tests) {
        const assigned_test* known = test.number != 0 ? meanwhile.find(key_of(test)) : nullptr;
        if (known != nullptr) {
            test.confirmed = std::max(test.confirmed, known->confirmed);
            test.whole_gb = known->whole_gb > 0 ? known->whole_gb : test.whole_gb;
        }
    }
    for (const removed_test& test : meanwhile.all().removed) {
        auto known =
            std::find_if(next.removed.begin(), next.removed.end(), [&](const removed_test& each) {
                return each.type == test.type && each.number == test.number;
            });
        if (known == next.removed.end()) {
            next.removed.push_back(test);
        } else if (known->revision == test.revision) {
            known->is_over = test.is_over;
        }
    }
    next.next_number = std::max(next.next_number, meanwhile.all().next_number);
    return std::make_shared<given_agent>(std::move(next));
}

void fleet_storing::take_given(fleet_work::agent& made, moment at) {
    kept_agent& of = *made.of;
    const bool is_same = of.given == made.base;
    of.is_awaited = false;
    if (!made.now) { /* it was only stored */
        of.is_unsaved = of.is_unsaved && !(made.is_changed && is_same);
        of.changes.note_saved(made.outcomes);
    } else if (!of.is_there) { /* it was retired meanwhile: its numbers are gone all the same */
        assigned_agent next = of.given->all();
        next.next_number = std::max(next.next_number, made.now->all().next_number);
        of.given = std::make_shared<given_agent>(std::move(next));
        of.is_unsaved = true;
        of.changes.take(made.changes, at);
        of.changes.give_up(at);
        of.changes.note_saved(made.outcomes);
    } else {
        of.given = is_same ? made.now : merged(made);
        of.is_unsaved = made.is_changed ? !is_same : of.is_unsaved;
        of.is_given = of.is_ready = true;
        of.strays.clear();
        of.changes.take(made.changes, at);
        of.changes.follow(*of.given);
        of.changes.note_saved(made.outcomes);
    }
    state_.note(of);
}

fleet_storing::ending fleet_storing::submit_and_wait(const pointer& work) {
    auto ended = std::make_shared<std::promise<bool>>();
    std::future<bool> end = ended->get_future();
    work->done = [ended](const fleet_work& done) { ended->set_value(done.ok); };
    submit(work);
    if (end.wait_for(longest_storing) != std::future_status::ready) {
        return ending::late;
    }
    return end.get() ? ending::stored : ending::failed;
}

/* On the store's thread. */
void fleet_storing::note_store(engine& store) {
    const unsigned generation = store.generation();
    const std::optional<unsigned> before = std::exchange(generation_, generation);
    if (!before || *before == generation) {
        return;
    }
    {
        std::lock_guard hold(state_.mutex);
        state_.differs = state_.newest.revision > 0
                             ? "the store was begun anew, and has lost what agents are to do"
                             : nullptr;
        state_.is_woken = true;
    }
    state_.changed.notify_all();
}

void fleet_storing::probe() {
    results_->update(
        [this](engine& store) {
            note_store(store);
            return true;
        },
        [](bool, const std::string&) {});
}
