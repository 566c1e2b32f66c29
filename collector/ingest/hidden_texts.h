/* Texts that must not be stored or shown, although an agent sends them: the secrets of its test,
 * which what it asked may have said back. They are overwritten, each character with a '*', in the
 * strings of that test's results: as a whole, and where a string ends in the middle of one. Another
 * spelling (in base64, say) is not found, nor is a text of less than `least` bytes, which would be
 * found everywhere. Any thread. */
#ifndef VINDRAL_COLLECTOR_HIDDEN_TEXTS_H
#define VINDRAL_COLLECTOR_HIDDEN_TEXTS_H

#include "protocol/record.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class hidden_texts {
public:
    static constexpr size_t least = 4; /* bytes of a text */

    using test = std::pair<uint32_t, int32_t>; /* type of the results, number */
    using by_test = std::map<test, std::vector<std::string>>;

    hidden_texts() = default;
    ~hidden_texts();
    hidden_texts(const hidden_texts&) = delete;
    hidden_texts& operator=(const hidden_texts&) = delete;

    /* These from now on, and no others. They are wiped when they go. */
    void hide(by_test what);

    /* In a record, whose bytes may be written to. The cost of a comparison when it is of no such
     * test. */
    void cover(const record& r) const;
    /* In bytes that are no record: every text of every test. */
    void cover(char* bytes, size_t size) const;

private:
    struct table {
        by_test tests;
        std::vector<std::string> all; /* each once, the longest first */
        ~table();
    };
    std::shared_ptr<const table> now() const;

    std::atomic<bool> any_ = false;
    mutable std::mutex mutex_;
    std::shared_ptr<const table> table_;
};

#endif
