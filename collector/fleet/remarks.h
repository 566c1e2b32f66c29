/* What is wrong with a file, gathered while it is read. */
#ifndef VINDRAL_COLLECTOR_FLEET_REMARKS_H
#define VINDRAL_COLLECTOR_FLEET_REMARKS_H

#include "fleet/node.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

constexpr size_t most_remarks = 100; /* that a file is told at once */

class remarks {
public:
    void add(text_place at, std::string text) {
        count_++;
        /* More than are told, so that those told are the first by line: what is read last may stand
         * first, but not far before. */
        if (all_.size() < 4 * most_remarks) {
            all_.push_back({at, std::move(text)});
        }
    }

    size_t count() const { return count_; }

    /* By line and column, the first hundred. */
    std::vector<remark> take() {
        std::stable_sort(all_.begin(), all_.end(), [](const remark& a, const remark& b) {
            return std::pair(a.at.line, a.at.column) < std::pair(b.at.line, b.at.column);
        });
        if (all_.size() > most_remarks) {
            all_.resize(most_remarks);
        }
        return std::move(all_);
    }

private:
    std::vector<remark> all_;
    size_t count_ = 0;
};

#endif
