/* What happens, for those who listen: the newest messages, each once, in a ring of bounded size.
 * A listener is a number, the position of what it had last, so that one that is slow costs nothing:
 * when the ring has gone on without it, it is told so and goes on with what is there. Published on
 * the store's thread, read by any. */
#ifndef VINDRAL_COLLECTOR_API_HUB_H
#define VINDRAL_COLLECTOR_API_HUB_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class hub_kind : uint8_t { result = 1, event = 2, agent = 4, change = 8 };

struct hub_message {
    uint64_t position = 0; /* rises by one */
    hub_kind kind = hub_kind::result;
    int64_t agent = 0, test = 0;             /* ids in the store; 0: of none */
    std::shared_ptr<const std::string> json; /* one line */
};

struct hub_filter {
    uint8_t kinds = 15;          /* of hub_kind */
    int64_t agent = 0, test = 0; /* 0: all */
    /* Results only of these, of either: ids that rise. Both empty: of all. */
    std::vector<int64_t> result_agents = {}, result_tests = {};

    bool lets_through(const hub_message& message) const;
    bool operator==(const hub_filter&) const = default;
};

class event_hub {
public:
    explicit event_hub(size_t most_bytes = 16u << 20, size_t most_messages = 100000)
        : most_bytes_(most_bytes), most_messages_(most_messages), run_(name_of_run()) {}

    /* Whether anybody listens: what nobody wants need not be made. */
    bool is_heard() const;

    void publish(hub_kind kind, int64_t agent, int64_t test, std::string json);
    /* Something happened of which there are no messages, because nobody listened or for want of
     * memory: whoever is at a place before it has lost some. */
    void skip();
    /* Wakes the listeners; once for each batch. */
    void flush();

    /* A process id and a time: positions of another run mean nothing. */
    const std::string& run() const { return run_; }

    /* The position of the newest message, and of "RUN-POSITION" (Last-Event-ID); none: of another
     * run, or nonsense. */
    uint64_t newest() const;
    std::optional<uint64_t> position_of(std::string_view id) const;

    /* Messages above `position` that the filter lets through, until `most_bytes` of them (one at
     * least); `position` is then that of the last one looked at. `lost`: there were some that are
     * gone. */
    void read(uint64_t& position, const hub_filter& which, size_t most_bytes,
              std::vector<hub_message>& found, bool& lost) const;

    /* `wake` is called, on the publishing thread, when there is something new: without a lock, so
     * that it may call back, and may come once more when unsubscribe() has just been called. It
     * must not wait for anything. Returns what unsubscribe() takes. */
    uint64_t subscribe(std::function<void()> wake);
    void unsubscribe(uint64_t subscriber);

private:
    static std::string name_of_run();

    const size_t most_bytes_, most_messages_;
    const std::string run_;
    mutable std::mutex mutex_;
    std::deque<hub_message> ring_;
    size_t bytes_ = 0;
    uint64_t newest_ = 0, next_subscriber_ = 1;
    bool flushed_ = true;
    std::vector<std::pair<uint64_t, std::shared_ptr<const std::function<void()>>>> wake_;
};

#endif
