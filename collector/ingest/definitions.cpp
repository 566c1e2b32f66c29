#include "ingest/definitions.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <tuple>

static constexpr std::chrono::milliseconds most{10};
static constexpr size_t most_overtaken = 1000; /* of an agent, where the store is that late */

static std::string key_of(std::string_view account, std::string_view agent) {
    std::string key(account);
    return key.append(1, '\0').append(agent);
}

void definitions::put_in_line(told& of) {
    if (!of.is_due) {
        due_.push_back(&of);
        of.is_due = true;
    }
}

void definitions::make_due(told& of) {
    if (of.next < of.wanted.size()) {
        put_in_line(of);
    }
}

void definitions::begin() {
    due_.clear();
    auto forget = [](told& of) {
        of.agent = 0;
        of.next = 0;
        of.is_due = of.is_known = false;
        of.stored.clear();
    };
    forget(of_all_);
    make_due(of_all_);
    for (auto& [key, of] : own_) {
        forget(of);
    }
}

/* Asks for no memory. */
void definitions::put(told& of, std::vector<owned_definition>&& all) {
    of.wanted = std::move(all);
    of.next = 0;
}

/* Those that are not stored yet, and of which `by` says nothing more; the newest, once they are
 * many. */
std::vector<owned_definition> definitions::overtaken(const told& of,
                                                     const std::vector<owned_definition>& by) {
    std::vector<owned_definition> late(of.wanted.begin() + static_cast<ptrdiff_t>(of.next),
                                       of.wanted.end());
    using key = std::tuple<uint32_t, int32_t, int32_t>;
    std::set<key> told_again;
    for (const owned_definition& d : by) {
        told_again.emplace(d.type, d.number, d.location);
    }
    std::erase_if(late, [&](const owned_definition& d) {
        return told_again.contains({d.type, d.number, d.location});
    });
    if (late.size() > most_overtaken) {
        late.erase(late.begin(), late.end() - static_cast<ptrdiff_t>(most_overtaken));
    }
    return late;
}

void definitions::follow(std::vector<owned_definition>&& all) {
    if (!all.empty()) {
        put_in_line(of_all_);
    }
    put(of_all_, std::move(all));
}

void definitions::follow(std::string_view account, std::string_view agent, int64_t id,
                         std::vector<owned_definition>&& all) {
    std::string key = key_of(account, agent);
    auto known = own_.find(key);
    std::vector<owned_definition> late;
    if (known != own_.end()) {
        late = overtaken(known->second, all);
    }
    const bool has_id = id != 0 || (known != own_.end() && known->second.agent != 0);
    if (all.empty() && (late.empty() || !has_id)) {
        if (known != own_.end()) {
            std::erase(due_, &known->second);
            own_.erase(known);
        }
        return;
    }
    late.reserve(late.size() + all.size());
    told& of = own_[std::move(key)];
    if (has_id) {
        put_in_line(of);
    }
    of.agent = id != 0 ? id : of.agent;
    late.insert(late.end(), std::make_move_iterator(all.begin()),
                std::make_move_iterator(all.end()));
    all.clear();
    put(of, std::move(late));
}

void definitions::has_id(std::string_view account, std::string_view agent, int64_t id) {
    auto known = own_.find(key_of(account, agent));
    if (known != own_.end() && known->second.agent != id) {
        known->second.agent = id;
        make_due(known->second);
    }
}

/* What was read of a damaged file is used: the worst that follows is a definition told twice. */
bool definitions::look_up(told& of) {
    of.stored.clear();
    auto note = [&](const test_definition& d) {
        of.stored[{d.type, d.number}] = {.type = d.type,
                                         .number = d.number,
                                         .location = d.location,
                                         .name = std::string(d.name),
                                         .text = std::string(d.text),
                                         .title = std::string(d.title),
                                         .group = std::string(d.group)};
    };
    std::string error;
    engine_.reader().for_each_definition(of.agent, 0, 0, note, error);
    of.is_known = engine_.is_open();
    return of.is_known;
}

/* From of.next on; `next` is the first that is not. */
bool definitions::store_some(told& of, const spell& time, int64_t now, size_t& next) {
    auto differs = [&](const owned_definition& d) {
        auto last = of.stored.find({d.type, d.number});
        return last == of.stored.end() || last->second.location != d.location ||
               last->second.name != d.name || last->second.text != d.text ||
               last->second.title != d.title || last->second.group != d.group;
    };
    next = of.next;
    if (!of.is_known && !look_up(of)) {
        return false;
    }
    for (; next < of.wanted.size() && !time.is_over(); next++) {
        const owned_definition& d = of.wanted[next];
        if (differs(d) && !engine_.append_definition({.agent = of.agent,
                                                      .type = d.type,
                                                      .number = d.number,
                                                      .location = d.location,
                                                      .since = now,
                                                      .name = d.name,
                                                      .text = d.text,
                                                      .title = d.title,
                                                      .group = d.group})) {
            return false;
        }
    }
    return true;
}

bool definitions::run(int64_t now) {
    std::vector<size_t> reached; /* of the first ones that are due */
    bool ok = in_transaction(engine_, [&] {
        reached.clear();
        const spell time(most);
        for (size_t i = 0; i < due_.size() && (i == 0 || !time.is_over()); i++) {
            reached.emplace_back();
            if (!store_some(*due_[i], time, now, reached.back())) {
                return false;
            }
        }
        return true;
    });
    for (size_t i = 0; ok && i < reached.size(); i++) {
        told& of = *due_.front();
        for (; of.next < reached[i]; of.next++) {
            const owned_definition& d = of.wanted[of.next];
            of.stored[{d.type, d.number}] = d;
        }
        if (of.next < of.wanted.size()) {
            break; /* it is the last one that was come to */
        }
        of.is_due = false;
        if (&of != &of_all_) { /* looked up anew when there is something new */
            of.stored.clear();
            of.is_known = false;
        }
        due_.pop_front();
    }
    return ok;
}
