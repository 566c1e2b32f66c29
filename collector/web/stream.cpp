#include "web/stream.h"

#include <algorithm>

namespace {

constexpr size_t most_made = 32;

const char lost_messages[] = "event: lost\ndata: {}\n\n";

const char* word_of(hub_kind kind) {
    switch (kind) {
    case hub_kind::result:
        return "result";
    case hub_kind::event:
        return "event";
    case hub_kind::agent:
        return "agent";
    case hub_kind::change:
        return "change";
    }
    return "";
}

} // namespace

std::string stream_source::greeting(uint64_t position, bool lost) const {
    return std::string("retry: 3000\n") + "id: " + hub_.run() + "-" + std::to_string(position) +
           "\n\n" + (lost ? lost_messages : "");
}

std::shared_ptr<const stream_piece> stream_source::make(uint64_t position,
                                                        const hub_filter& which) {
    auto piece = std::make_shared<stream_piece>();
    bool lost = false;
    piece->position = position;
    found_.clear();
    hub_.read(piece->position, which, most_bytes_, found_, lost);
    std::string& text = piece->text;
    text = lost ? lost_messages : "";
    const std::string id = "id: " + hub_.run() + "-";
    size_t length = text.size();
    for (const hub_message& m : found_) {
        length += m.json->size() + id.size() + 48; /* number, words and line ends */
    }
    text.reserve(length);
    for (const hub_message& m : found_) {
        text.append(id).append(std::to_string(m.position));
        text.append("\nevent: ").append(word_of(m.kind));
        text.append("\ndata: ").append(*m.json).append("\n\n");
    }
    found_.clear();
    piece->share = budget_.take(text.capacity());
    return piece->share ? piece : nullptr;
}

std::shared_ptr<const stream_piece> stream_source::next(uint64_t position, const hub_filter& which,
                                                        bool& failed) {
    failed = false;
    uint64_t newest = hub_.newest();
    if (position == newest) {
        return nullptr;
    }
    if (newest != newest_) {
        newest_ = newest;
        made_.clear();
        next_made_ = 0;
    }
    auto found = std::find_if(made_.begin(), made_.end(), [&](const made& m) {
        return m.from == position && m.which == which;
    });
    if (found != made_.end()) {
        return found->piece;
    }
    auto piece = make(position, which);
    failed = !piece;
    if (!piece) {
        return nullptr;
    }
    made fresh{position, which, piece};
    if (made_.size() < most_made) {
        made_.push_back(std::move(fresh));
    } else {
        made_[next_made_++ % most_made] = std::move(fresh);
    }
    return piece;
}
