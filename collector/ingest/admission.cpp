#include "ingest/admission.h"

#include <algorithm>

static constexpr size_t few_of_agent = 4; /* connections that count as heard */

/* ---- connections ---- */

admission::verdict admission::admit(place& newcomer, uint64_t address_key, time now) {
    address& home = addresses_[address_key];
    home.owner = this;
    home.key = address_key;
    place* leaver = nullptr;
    bool address_full = home.connections >= limits_.most_per_address;
    if (address_full || connections_ >= limits_.most) {
        leaver = find_leaver(home, address_full, now);
        if (!leaver) {
            forget_unused(home);
            return address_full ? verdict::too_many_of_address : verdict::too_many;
        }
    }
    try {
        crowds_.resize(std::max(crowds_.size(), home.connections + 2));
    } catch (...) {
        forget_unused(home);
        throw;
    }
    if (leaver) {
        put_out(*leaver);
    }
    newcomer.home_ = &home;
    ++home.users;
    ++home.connections;
    ++connections_;
    enter(newcomer, stage::unheard, now);
    if (leaver) {
        made_room_(*leaver, need::connection);
    }
    return verdict::admitted;
}

/* Who makes room for a newcomer at `home`; null when nobody does. */
admission::place* admission::find_leaver(address& home, bool address_full, time now) {
    auto first = [](auto& unheard, auto& heard) -> place* {
        return !unheard.empty() ? &unheard.front() : !heard.empty() ? &heard.front() : nullptr;
    };
    if (!address_full && largest_ > home.waiting + 1) {
        address& crowd = crowds_[largest_].front();
        return first(crowd.unheard, crowd.heard);
    }
    auto impatient = [&](auto& of_stage) {
        return !of_stage.empty() && now - of_stage.front().since_ >= limits_.patience
                   ? &of_stage.front()
                   : nullptr;
    };
    if (address_full) {
        place* found = impatient(home.unheard);
        return found ? found : impatient(home.heard);
    }
    place* found = impatient(unheard_);
    return found ? found : impatient(heard_);
}

void admission::enter(place& p, stage to, time now) {
    p.stage_ = to;
    p.since_ = now;
    if (to == stage::busy) {
        busy_.push_back(p);
        return;
    }
    (to == stage::unheard ? unheard_ : heard_).push_back(p);
    (to == stage::unheard ? p.home_->unheard : p.home_->heard).push_back(p);
    count_waiting(*p.home_, p.home_->waiting + 1);
}

void admission::leave(place& p) {
    if (p.stage_ == stage::busy) {
        busy_.erase(busy_.iterator_to(p));
        return;
    }
    auto& all = p.stage_ == stage::unheard ? unheard_ : heard_;
    auto& of_address = p.stage_ == stage::unheard ? p.home_->unheard : p.home_->heard;
    all.erase(all.iterator_to(p));
    of_address.erase(of_address.iterator_to(p));
    count_waiting(*p.home_, p.home_->waiting - 1);
}

void admission::put_out(place& p) {
    leave(p);
    give_back(p, p.memory_);
    p.stage_ = stage::out;
    --p.home_->connections;
    --connections_;
}

void admission::count_waiting(address& a, size_t waiting) {
    if (a.waiting > 0) {
        crowds_[a.waiting].erase(crowds_[a.waiting].iterator_to(a));
    }
    a.waiting = waiting;
    if (waiting > 0) {
        crowds_[waiting].push_back(a);
    }
    largest_ = std::max(largest_, waiting);
    while (largest_ > 0 && crowds_[largest_].empty()) {
        --largest_;
    }
}

void admission::forget_unused(address& a) {
    if (a.users == 0) {
        addresses_.erase(a.key);
    }
}

void admission::place::set_stage(stage to, time now) {
    if (stage_ != stage::out && stage_ != to) {
        home_->owner->leave(*this);
        home_->owner->enter(*this, to, now);
    }
}

admission::place::~place() {
    if (stage_ != stage::out) {
        home_->owner->put_out(*this);
    }
    if (home_) {
        --home_->users;
        home_->owner->forget_unused(*home_);
    }
}

/* A NUL can stand in neither name, so it parts the two. */
admission::visit::visit(place& of, const std::string& account, const std::string& name)
    : of_(of), agent_(*of.home_->owner->agents_.try_emplace(account + '\0' + name).first),
      few_(++agent_.second.connections <= few_of_agent) {
    of_.agent_ = &agent_.second;
}

admission::visit::~visit() {
    of_.agent_ = nullptr;
    if (--agent_.second.connections == 0) {
        auto& agents = of_.home_->owner->agents_;
        agents.erase(agents.find(agent_.first));
    }
}

/* ---- memory ---- */

bool admission::may_take(const place& p, size_t bytes) const {
    if (bytes > free_) {
        return false;
    }
    size_t left = free_ - bytes;
    return p.home_->memory + bytes <= 3 * left &&
           (!p.agent_ || p.agent_->memory + bytes <= 2 * left);
}

void admission::take(place& p, size_t bytes) {
    free_ -= bytes;
    p.memory_ += bytes;
    p.home_->memory += bytes;
    if (p.agent_) {
        p.agent_->memory += bytes;
    }
}

void admission::give_back(place& p, size_t bytes) {
    free_ += bytes;
    p.memory_ -= bytes;
    p.home_->memory -= bytes;
    if (p.agent_) {
        p.agent_->memory -= bytes;
    }
}

/* Who makes room for so many bytes more; null when nobody does. */
admission::place* admission::find_holder(const place& asking, size_t bytes) {
    address* most = asking.home_;
    for (auto& [key, a] : addresses_) {
        most = a.memory > most->memory ? &a : most;
    }
    if (most->memory <= limits_.memory / 128) {
        return nullptr;
    }
    if (most != asking.home_ && most->memory <= 4 * (asking.home_->memory + bytes)) {
        return nullptr;
    }
    place* found = nullptr;
    for (auto* of_stage : {&most->unheard, &most->heard}) {
        for (place& p : *of_stage) {
            found = p.memory_ > (found ? found->memory_ : 0) ? &p : found;
        }
    }
    if (found && most == asking.home_ && found->memory_ <= 4 * (asking.memory_ + bytes)) {
        return nullptr;
    }
    return found;
}

bool admission::memory_share::add(size_t bytes) {
    if (of_.stage_ == stage::out) {
        return false;
    }
    admission& all = *of_.home_->owner;
    if (bytes > all.limits_.memory) {
        return false;
    }
    while (!all.may_take(of_, bytes)) {
        place* holder = all.find_holder(of_, bytes);
        if (!holder) {
            return false;
        }
        all.put_out(*holder);
        all.made_room_(*holder, need::memory);
    }
    all.take(of_, bytes);
    held_ += bytes;
    return true;
}

admission::memory_share::~memory_share() {
    if (of_.stage_ != stage::out) {
        of_.home_->owner->give_back(of_, held_);
    }
}
