#include "ctl/sse.h"

#include <algorithm>

namespace {

constexpr int64_t longest_wait_ms = 60000;

}

void sse_parser::read_field() {
    std::string_view line = line_;
    if (at_begin_ && line.starts_with("\xef\xbb\xbf")) {
        line.remove_prefix(3);
    }
    at_begin_ = false;
    if (line.starts_with(':')) { /* a comment */
        return;
    }
    size_t colon = std::min(line.find(':'), line.size());
    std::string_view name = line.substr(0, colon);
    std::string_view value = line.substr(std::min(colon + 1, line.size()));
    value.remove_prefix(value.starts_with(' ') ? 1 : 0);
    if (name == "data") {
        if (has_data_) {
            data_ += '\n';
        }
        data_ += value;
        has_data_ = true;
    } else if (name == "event") {
        event_ = value;
    } else if (name == "id") {
        /* Sent back in a header: nothing but characters may be in it. */
        if (std::none_of(value.begin(), value.end(),
                         [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; })) {
            id_ = value;
        }
    } else if (name == "retry") {
        if (!value.empty() && value.size() < 10 &&
            value.find_first_not_of("0123456789") == value.npos) {
            retry_ms_ = std::min<int64_t>(std::stoll(std::string(value)), longest_wait_ms);
        }
    }
}

/* An empty line ends a message, and one without data is none. */
bool sse_parser::end_line(const std::function<bool(const sse_message&)>& take) {
    if (!line_.empty()) {
        read_field();
        line_.clear();
        return true;
    }
    at_begin_ = false;
    last_id_ = id_;
    sse_message message{last_id_, event_.empty() ? "message" : std::move(event_), std::move(data_)};
    bool has_data = has_data_;
    event_.clear();
    data_.clear();
    has_data_ = false;
    return !has_data || take(message);
}

bool sse_parser::feed(std::string_view bytes, const std::function<bool(const sse_message&)>& take) {
    for (char c : bytes) {
        bool is_second = after_return_ && c == '\n';
        after_return_ = c == '\r';
        if (is_second) {
            continue;
        }
        if (c == '\n' || c == '\r') {
            if (!end_line(take)) {
                return false;
            }
        } else if (line_.size() + data_.size() >= most_bytes_) {
            too_long_ = true;
            return false;
        } else {
            line_ += c;
        }
    }
    return true;
}

void sse_parser::begin_anew() {
    line_.clear();
    event_.clear();
    data_.clear();
    id_ = last_id_;
    has_data_ = after_return_ = too_long_ = false;
    at_begin_ = true;
}
