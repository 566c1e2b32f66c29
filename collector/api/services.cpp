#include "api/services.h"

#include "api/request.h"
#include "api/turn.h"

#include <algorithm>
#include <chrono>

namespace {

/* A test makes them short. */
std::chrono::milliseconds longest_wait_for_reader{5000}, longest_wait_for_store{10000};
std::chrono::milliseconds longest_wait_for_turn{1000};

turnstile to_the_store; /* a store that is blocked would have all reading threads */

/* What the store's thread said, for a caller that may have gone. */
class outcome_of_change {
public:
    void set(bool ok, const std::string& reason) {
        std::lock_guard hold(mutex_);
        is_there_ = true;
        ok_ = ok;
        reason_ = reason;
        set_.notify_all();
    }
    /* None when it takes too long. */
    std::optional<bool> wait(std::string& reason) {
        std::unique_lock hold(mutex_);
        if (!set_.wait_for(hold, longest_wait_for_store, [this] { return is_there_; })) {
            return std::nullopt;
        }
        reason = reason_;
        return ok_;
    }

private:
    std::mutex mutex_;
    std::condition_variable set_;
    bool is_there_ = false, ok_ = false;
    std::string reason_;
};

/* `begin` is given what is to be called in the end. False, with no word, when it says so itself. */
template <typename Begin>
bool wait_for_store(Begin begin) {
    const turn mine(to_the_store, longest_wait_for_turn);
    if (!mine) {
        throw_unavailable("The store is busy with another change: nothing was changed. Try again "
                          "in a few seconds.");
    }
    auto outcome = std::make_shared<outcome_of_change>();
    begin([outcome](bool ok, const std::string& reason) { outcome->set(ok, reason); });
    std::string reason;
    std::optional<bool> ok = outcome->wait(reason);
    if (!ok) {
        throw_unavailable("The store is busy: the change has not been made within ten seconds. It "
                          "may still be; look again.");
    }
    if (!*ok && !reason.empty()) {
        throw_unavailable("The change could not be stored: " + reason + ".");
    }
    return *ok;
}

} // namespace

reader_pool::reader_pool(std::string directory, size_t most)
    : directory_(std::move(directory)), most_(most) {
    idle_.reserve(most); /* giving one back must not fail */
}

/* One that waits to be used, if there is one; its place is taken in any case. */
std::unique_ptr<result_reader>
reader_pool::take_idle(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock hold(mutex_);
    auto until = std::min(deadline, std::chrono::steady_clock::now() + longest_wait_for_reader);
    if (!given_back_.wait_until(hold, until, [this] { return out_ < most_; })) {
        throw_unavailable("Too much is being asked at the moment: try again in a few seconds.");
    }
    out_++;
    if (idle_.empty()) {
        return nullptr;
    }
    std::unique_ptr<result_reader> reader = std::move(idle_.back());
    idle_.pop_back();
    return reader;
}

reader_pool::lent reader_pool::lend(std::chrono::steady_clock::time_point deadline) {
    std::unique_ptr<result_reader> reader = take_idle(deadline);
    try {
        std::string error;
        if (reader && !reader->renew(error)) {
            reader = nullptr; /* of a file that has been replaced, for one */
        }
        if (!reader) {
            reader = open_reader(directory_, error);
        }
        if (!reader) {
            throw_unavailable("What is stored cannot be read: " + error + ".");
        }
        reader->give_up_at(deadline);
    } catch (...) { /* its place must not stay taken */
        give_back(nullptr);
        throw;
    }
    return {*this, std::move(reader)};
}

void reader_pool::give_back(std::unique_ptr<result_reader> reader) {
    if (reader) {
        reader->rest();
    }
    std::lock_guard hold(mutex_);
    out_--;
    if (reader) {
        idle_.push_back(std::move(reader));
    }
    given_back_.notify_one();
}

void change_store(api_services& with, std::function<bool(engine&)> what) {
    bool ok =
        wait_for_store([&](auto done) { with.results.update(std::move(what), std::move(done)); });
    if (!ok) {
        throw_unavailable("The change could not be stored.");
    }
}

void retire_stored(api_services& with, int64_t agent) {
    if (!wait_for_store([&](auto done) { with.results.retire(agent, std::move(done)); })) {
        throw_not_found("There is no agent " + std::to_string(agent) + " any more.");
    }
}
