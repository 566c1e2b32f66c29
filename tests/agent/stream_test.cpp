/* What a connection asks the system for while it receives. */
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

static size_t memory_there = SIZE_MAX; /* the largest block that there is */
static std::vector<size_t> asked;

static void* scarce_realloc(void* block, size_t size) {
    asked.push_back(size);
    return size <= memory_there ? realloc(block, size) : nullptr;
}
#define realloc scarce_realloc
#include "stream.cpp"
#undef realloc

#include "fake_core.h"

namespace {

/* A plain connection that `count` bytes come on, and its end. */
class incoming {
public:
    explicit incoming(size_t count) {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends_));
        writer_ = std::thread([this, count] {
            std::string text(count, 'x');
            for (size_t sent = 0; sent < count;) {
                ssize_t some = send(ends_[1], text.data() + sent, count - sent, MSG_NOSIGNAL);
                if (some <= 0) {
                    break;
                }
                sent += static_cast<size_t>(some);
            }
            shutdown(ends_[1], SHUT_WR);
        });
    }
    ~incoming() {
        close(ends_[0]);
        writer_.join();
        close(ends_[1]);
    }

    /* The outcome that ends it. */
    stream_outcome read_all(http_response& r) {
        long budget_us = 100000000;
        stream s = {.sk = ends_[0], .session = nullptr, .budget_us = &budget_us};
        stream_outcome outcome;
        do {
            outcome = stream_receive(s, r);
        } while (outcome.end == stream_end::done);
        return outcome;
    }

private:
    int ends_[2] = {-1, -1};
    std::thread writer_;
};

class receiving : public testing::Test {
protected:
    void SetUp() override {
        memory_there = SIZE_MAX;
        asked.clear();
    }
};

} // namespace

TEST_F(receiving, the_buffer_grows_by_half) {
    http_response r;
    EXPECT_EQ(stream_end::ended, incoming(50000).read_all(r).end);
    EXPECT_EQ(std::string(50000, 'x'), r.data.data());
    EXPECT_EQ((std::vector<size_t>{8191, 16382, 24573, 36859, 55288}), asked);
}

TEST_F(receiving, without_memory_it_says_how_much_was_asked_for) {
    http_response r;
    memory_there = 8190;
    stream_outcome outcome = incoming(10).read_all(r);
    EXPECT_EQ(stream_end::no_memory, outcome.end);
    EXPECT_EQ(8191, outcome.error);

    memory_there = 30000;
    outcome = incoming(50000).read_all(r);
    EXPECT_EQ(stream_end::no_memory, outcome.end);
    EXPECT_EQ(36859, outcome.error);
    EXPECT_EQ(std::string(r.data.size(), 'x'), r.data.data()) << "what came is kept";
}
