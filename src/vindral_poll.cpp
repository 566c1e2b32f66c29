#include "vindral_poll.h"

#include "checker.h"
#include "diskmon.h"
#include "sslutiles_api.h"
#include "sslutiles_poll.h"
#include "vindral_checkers.h"
#include "vindral_commands.h"

#include <cstdlib>
#include <utility>

int isAuthorized = 0;
mutex cache_mutex;
bdata* data_cache = nullptr;
bdata* data_cache_copy = nullptr;

static const int PAUSE_AFTER_LOGIN_S = 1;

/* False without memory, which leaves everything as it was. */
static bool append_whole(bdata** to, const char* data, size_t length) {
    size_t before = *to != nullptr ? (*to)->data_size : 0;
    bdata_append(to, data, length);
    return *to != nullptr && (*to)->data_size == before + length;
}

static bool append_to_cache(const char* data, size_t length) {
    lock hold(cache_mutex);
    return append_whole(&data_cache, data, length);
}

/* A checker's results on their way into the cache; they stay here when there is no memory. Main
 * worker thread only. */
static char* taken = nullptr;
static int taken_size = 0;

/* False without memory. */
static bool cache_taken() {
    if (taken_size > 0 && !append_to_cache(taken, static_cast<size_t>(taken_size))) {
        return false;
    }
    free(taken);
    taken = nullptr;
    taken_size = 0;
    return true;
}

void collect_results() {
    bool room = cache_taken();
    for (size_t i = 0; room && i < result_source_count; i++) {
        if (result_sources[i].take(&taken, &taken_size)) {
            leveledadd2log(3, "INFO: collect_result::%s data size: %d", result_sources[i].name,
                           taken_size);
            room = cache_taken();
        }
    }
}

void add_to_cache(char* buff, size_t buff_len) {
    if (buff != nullptr && buff_len != 0) {
        append_to_cache(buff, buff_len);
    }
}

const bdata* get_cache_copy() {
    lock hold(cache_mutex);
    if (data_cache_copy == nullptr) {
        data_cache_copy = std::exchange(data_cache, nullptr);
    } else if (data_cache != nullptr &&
               append_whole(&data_cache_copy, data_cache->data_buffer, data_cache->data_size)) {
        bdata_free(&data_cache);
    }
    return data_cache_copy;
}

void free_cache_copy() {
    bdata_free(&data_cache_copy);
}

/* The block to send: the pending one, or what the checkers have now; null when there is nothing. */
static const bdata* block_to_send() {
    if (data_cache_copy != nullptr) {
        return data_cache_copy;
    }
    leveledadd2log(2, "INFO: Collecting results...");
    poll_loop_collects();
    collect_results();
    const bdata* block = get_cache_copy();
    if (block == nullptr) {
        leveledadd2log(2, "INFO: data cache is empty");
    } else {
        leveledadd2log(2, "INFO: data cache size: %d", static_cast<int>(block->data_size));
    }
    return block;
}

/* Acts on the outcome of a poll. Returns the seconds to wait before the next. */
static int act_on(int result, char* reply, size_t reply_length, int interval_s) {
    switch (result) {
    case POLL_REFUSED:
        leveledadd2log(-1, "Authorization failed, Vindral Smart Agent will be terminated.");
        isAuthorized = 0;
        set_poll_interval(-1);
        break;
    case POLL_OK:
        if (reply_length != 0) {
            parse_data(reply);
        }
        if (!isAuthorized) {
            leveledadd2log(0, "Authorization was successfully completed.");
            isAuthorized = 1;
            return PAUSE_AFTER_LOGIN_S;
        }
        free_cache_copy();
        break;
    case POLL_NO_CONNECTION:
        leveledadd2log(-1, "Unable to establish connection to the server.");
        break;
    case POLL_LOGIN_AGAIN:
        leveledadd2log(-1, "Reauthorization is required.");
        isAuthorized = 0;
        return PAUSE_AFTER_LOGIN_S;
    case POLL_INTERNAL_ERROR:
        leveledadd2log(
            -1, "There is an internal error occurred, while trying to connect to the server.");
        break;
    default:
        break;
    }
    return interval_s;
}

/* The answer's commands end in here: a pass that one of them caused may be over in no time, and its
 * signal would find nobody waiting. Nor is there a wait when the next turn collects and fresh
 * results stayed behind in this one. */
static void wait_for_next_poll(int seconds, bool next_collects, command_batch& commands) {
    lock hold(poll_cond_mutex);
    commands.end();
    if (!poll_loop_rests() || !next_collects) {
        cancel_on may_end;
        /* A negative interval other than -1 means no wait, but must not become a flood of polls. */
        condition_wait_until(poll_cond, poll_cond_mutex, deadline_in(seconds < 0 ? 1 : seconds));
    }
    poll_loop_works();
}

void* main_worker_thread(void*) {
    cancel_off except_in_waits;
    int interval_s = get_poll_interval();
    while (interval_s != -1) {
        const bdata* block = isAuthorized ? block_to_send() : nullptr;
        char* text = nullptr;
        size_t length = 0;
        int result = make_poll(block != nullptr ? block->data_buffer : nullptr,
                               block != nullptr ? block->data_size : 0, &text, &length);
        heap_text reply(text);
        leveledadd2log(5, "INFO: main_worker_thread::make_poll result: %d", result);
        bool accepted = isAuthorized && result == POLL_OK;
        command_batch commands;
        int wait_s = act_on(result, reply.get(), length, interval_s);
        reply.reset();
        wait_for_next_poll(wait_s, accepted, commands);
        interval_s = get_poll_interval();
    }
    return nullptr;
}

namespace {

/* Frees the results also when the thread is cancelled in the wait for the service. */
struct taken_results {
    test_result** all = nullptr;
    int count = 0;

    taken_results() = default;
    ~taken_results() { free_results(all, count); }
    taken_results(const taken_results&) = delete;
    taken_results& operator=(const taken_results&) = delete;
};

} // namespace

void send_results() {
    leveledadd2log(4, "INFO: starting send_results.");
    taken_results results;
    if (get_disk_test_results(&results.all, &results.count)) {
        leveledadd2log(3, "INFO: send_results::get_disk_test_results count: %d", results.count);
    }
    if (results.all != nullptr && results.count > 0) {
        leveledadd2log(1, "INFO: send_results returned %d", send_data(results.all, results.count));
    }
    leveledadd2log(4, "INFO: send_results finished.");
}

void free_results(test_result** results, int res_count) {
    for (int i = 0; results != nullptr && i < res_count; i++) {
        if (results[i] != nullptr) {
            free(results[i]->test_data);
            free(results[i]);
        }
    }
    free(results);
}
