/* Blocks on their way into a store in a temporary directory: each record arrives once, in order,
 * what is none is told of until it is too much, and the same block again is a duplicate. Input: the
 * blocks with a line of "====" between them. */
#include "fuzz.h"
#include "ingest/ingest.h"
#include "ingest/undecodable.h"
#include "protocol/record.h"

#include <filesystem>
#include <future>
#include <optional>

namespace fs = std::filesystem;

static const int INPUTS_MOST = 500; /* in one store, which only grows */

/* What the store tells of a block. */
struct teller : store_listener {
    std::vector<std::string> records;
    size_t undecodable = 0; /* bytes */
    std::string agent;
    size_t files = 0, files_of_agent = 0; /* with what does not decode */

    void on_record(const poll_block&, const decoded_record& result) override {
        records.emplace_back(result.content.raw);
    }
    void on_undecodable(const poll_block& from, size_t, size_t bytes, const std::string& reason,
                        const std::string&) override {
        require(!reason.empty());
        undecodable += bytes;
        files++;
        files_of_agent = from.agent == agent ? files_of_agent + 1 : 1;
        agent = from.agent;
    }
    void on_problem(const std::string& text) override {
        require(text.find("that are no record were not kept") != text.npos);
    }
};

struct temporary_store {
    std::string place = make_directory();
    teller told;
    std::unique_ptr<ingest> held;

    temporary_store() {
        std::string error;
        held = ingest::open({.directory = place}, &told, error);
        require(held != nullptr);
    }
    ~temporary_store() {
        held.reset();
        fs::remove_all(place);
    }

    store_result keep(const std::string& agent, const std::string& plain) {
        told.records.clear();
        told.undecodable = 0;
        std::promise<store_result> answer;
        held->submit({"somebody", agent, plain, 1000000},
                     [&](store_result r) { answer.set_value(r); });
        return answer.get_future().get();
    }
};

static void check_block(temporary_store& into, const std::string& agent, const std::string& block) {
    std::vector<std::string> expected;
    size_t undecodable = 0;
    for (block_reader reader(block); reader.next();) {
        if (reader.good) {
            expected.emplace_back(reader.current.raw);
        } else {
            undecodable += reader.bytes;
        }
    }
    require(into.keep(agent, block) == store_result::stored);
    require(into.told.records == expected);
    const undecodable_limits limits;
    bool too_many = into.told.files >= limits.rate ||
                    (into.told.agent == agent && into.told.files_of_agent >= limits.rate_per_agent);
    require(into.told.undecodable == undecodable || (too_many && into.told.undecodable == 0));
    store_result again = block.empty() ? store_result::stored : store_result::duplicate;
    require(into.keep(agent, block) == again && into.told.records.empty());
}

/* What OpenSSL keeps for each thread until its end, where the sanitizer does not look. */
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libcrypto.so";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::optional<temporary_store> current;
    static int inputs = 0;
    if (inputs++ % INPUTS_MOST == 0) {
        current.emplace();
    }
    std::string agent = "agent " + std::to_string(inputs);
    std::string last;
    for (const std::string& block :
         split({reinterpret_cast<const char*>(data), size}, "\n====\n")) {
        if (block.empty()) {
            check_block(*current, agent, block);
        } else if (block != last) {
            check_block(*current, agent, block);
            last = block;
        }
    }
    return 0;
}
