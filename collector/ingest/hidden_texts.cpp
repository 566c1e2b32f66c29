#include "ingest/hidden_texts.h"

#include "base/record_summary.h"
#include "base/wipe.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

using texts = std::vector<std::string>;

/* The longest first: one may be a part of another. */
void put_in_order(texts& all) {
    std::erase_if(all, [](const std::string& text) { return text.size() < hidden_texts::least; });
    std::sort(all.begin(), all.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() > b.size() : a < b;
    });
    all.erase(std::unique(all.begin(), all.end()), all.end());
}

void cover_with(const texts& hidden, char* bytes, size_t size) {
    const std::string_view all(bytes, size);
    for (const std::string& text : hidden) {
        for (size_t at = 0; (at = all.find(text, at)) != all.npos; at += text.size()) {
            memset(bytes + at, '*', text.size());
        }
        for (size_t cut = std::min(text.size() - 1, size); cut >= hidden_texts::least; cut--) {
            if (all.ends_with(std::string_view(text).substr(0, cut))) {
                memset(bytes + size - cut, '*', cut);
                break;
            }
        }
    }
}

void cover_strings(const texts& hidden, const record& r) {
    for (std::string_view each : r.strings) {
        /* the caller's bytes, which are not constant */
        cover_with(hidden, const_cast<char*>(each.data()), each.size()); // NOLINT
    }
    for_each_nested(r, [&](const record& inner) { cover_strings(hidden, inner); });
}

} // namespace

hidden_texts::~hidden_texts() = default;

hidden_texts::table::~table() {
    for (auto& [test, hidden] : tests) {
        std::for_each(hidden.begin(), hidden.end(), wipe);
    }
    std::for_each(all.begin(), all.end(), wipe);
}

void hidden_texts::hide(by_test what) {
    auto made = std::make_shared<table>();
    made->tests = std::move(what);
    for (auto& [test, hidden] : made->tests) {
        put_in_order(hidden);
        made->all.insert(made->all.end(), hidden.begin(), hidden.end());
    }
    put_in_order(made->all);
    std::shared_ptr<const table> before = made;
    {
        std::lock_guard lock(mutex_);
        any_ = !made->all.empty();
        table_.swap(before);
    }
}

std::shared_ptr<const hidden_texts::table> hidden_texts::now() const {
    if (!any_) {
        return nullptr;
    }
    std::lock_guard lock(mutex_);
    return table_;
}

void hidden_texts::cover(const record& r) const {
    std::shared_ptr<const table> known = r.ui32.size() > 1 ? now() : nullptr;
    if (known == nullptr) {
        return;
    }
    /* also in one that lacks what its type should have */
    auto found = known->tests.find({r.ui32[0], static_cast<int32_t>(r.ui32[1])});
    if (found != known->tests.end()) {
        cover_strings(found->second, r);
    }
}

void hidden_texts::cover(char* bytes, size_t size) const {
    if (std::shared_ptr<const table> known = now()) {
        cover_with(known->all, bytes, size);
    }
}
