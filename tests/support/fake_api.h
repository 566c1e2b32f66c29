/* The API in the smallest form, for tests of what stands in front of it: paths that echo, wait,
 * fail and are large, and a hub. Included once by a test. */
#ifndef FAKE_API_H
#define FAKE_API_H

#include "api/request.h"
#include "api/services.h"
#include "collector_test_support.h"

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <stdexcept>

/* What "/wait" waits for. */
class gate {
public:
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
        --waiting_;
    }
    void open() {
        std::lock_guard<std::mutex> guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool wait_for(int waiting) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::minutes(1),
                                 [&] { return waiting_ >= waiting; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};

inline gate* fake_gate = nullptr;

inline void fake_demand(const api_request& asked, role least) {
    if (asked.who.may < least) {
        throw problem{.status = asked.who.may == role::none ? 401 : 403,
                      .title = "",
                      .detail = "not for you",
                      .errors = {}};
    }
}

inline api_answer fake_answer(std::string_view method, std::string_view target, api_request& asked,
                              api_services&) {
    api_answer answer;
    std::string_view path = target.substr(0, target.find('?'));
    if (path == "/echo") {
        fake_demand(asked, role::viewer);
        answer.body = "{\"method\":\"" + std::string(method) + "\",\"target\":\"" +
                      std::string(target) + "\",\"body\":\"" + std::string(asked.body) +
                      "\",\"name\":\"" + asked.who.name + "\",\"from\":\"" + asked.who.address +
                      "\"}";
        answer.audit = method == "POST" ? "echoed" : "";
    } else if (path == "/healthz" || path == "/readyz") {
        answer.type = "text/plain";
        answer.body = "ok\n";
    } else if (path == "/large") {
        answer.body =
            std::string(std::stoul(std::string(target.substr(target.find('?') + 1))), 'x');
    } else if (path == "/wait") {
        fake_gate->wait();
    } else if (path == "/etag") {
        answer.headers.emplace_back("ETag", "\"1\"");
        answer.status =
            asked.if_none_match == "\"1\"" || asked.if_none_match == "W/\"1\"" ? 304 : 200;
        answer.body = std::string(answer.status == 200 ? 5000 : 0, 'e');
    } else if (path == "/throws") {
        throw std::runtime_error("a thing\nthat failed");
    } else if (path == "/header") {
        answer.headers.emplace_back("X-Split", "a\r\nX-Evil: b");
    } else {
        throw problem{.status = 404, .title = "", .detail = "no such thing", .errors = {}};
    }
    return answer;
}

inline hub_filter fake_stream(std::string_view target, api_request& asked, api_services&) {
    fake_demand(asked, role::viewer);
    hub_filter which;
    size_t test = target.find("test=");
    if (test != target.npos) {
        which.test = std::stol(std::string(target.substr(test + 5)));
    }
    return which;
}

#endif
