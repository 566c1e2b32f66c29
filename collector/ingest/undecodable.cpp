#include "ingest/undecodable.h"

#include "base/files.h"
#include "base/text.h"
#include "ingest/hash.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr auto an_hour = std::chrono::hours(1);
constexpr size_t day_digits = 8, hash_digits = 16;

/* Of a hash, in a file's name. */
std::string tag(std::string_view hash) {
    return hex(hash.substr(0, hash_digits / 2));
}

/* The same for an agent's files on every day; nobody finds a name that gives another agent's. */
std::string agent_tag(std::string_view account, std::string_view agent) {
    std::string name = std::string(account) + '\0' + std::string(agent);
    return tag(view_of(sha256(name)));
}

/* Gathers what is written in pieces, so that a thousand small ones are not as many calls. */
class gathered_file {
public:
    explicit gathered_file(const std::string& path)
        : file_(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600)) {}

    bool write(std::string_view piece) {
        if (piece.size() >= room) {
            return flush() && write_all(file_.get(), piece);
        }
        waiting_ += piece;
        return waiting_.size() < room || flush();
    }
    bool finish() { return flush() && fsync(file_.get()) == 0; }

private:
    enum { room = 64 << 10 };
    bool flush() {
        bool good = file_ && write_all(file_.get(), waiting_);
        waiting_.clear();
        return good;
    }
    unique_fd file_;
    std::string waiting_;
};

bool write_pieces(const std::string& path, std::string_view records, size_t most) {
    gathered_file file(path);
    for (block_reader reader(records); most > 0 && reader.next();) {
        if (reader.good) {
            continue;
        }
        std::string_view piece = records.substr(reader.offset, std::min(reader.bytes, most));
        most -= piece.size();
        if (!file.write(piece)) {
            return false;
        }
    }
    return file.finish();
}

struct share {
    size_t bytes = 0, files = 0;
    bool fits(size_t more, size_t most_bytes, size_t most_files) const {
        return bytes + more <= most_bytes && files + 1 <= most_files;
    }
};

} // namespace

void undecodable_summary::add(const block_reader& at) {
    if (pieces++ == 0) {
        offset = at.offset;
        reason = at.reason;
    }
    bytes += at.bytes;
}

std::string undecodable_summary::text() const {
    return pieces > 1 ? reason + "; and " + std::to_string(pieces - 1) + " more" : reason;
}

struct undecodable_files::file {
    std::string path, agent;
    size_t bytes;
    timespec time;

    bool older_than(const file& other) const {
        auto key = [](const file& f) { return std::tie(f.time.tv_sec, f.time.tv_nsec, f.path); };
        return key(*this) < key(other);
    }
};

undecodable_files::undecodable_files(std::string directory, const undecodable_limits& limits)
    : directory_(std::move(directory)), limits_(limits) {}

/* False when this agent, or all together, wrote as much in the last hour as may be. */
bool undecodable_files::within_rate(const std::string& agent, clock::time_point now) {
    while (!written_.empty() && now - written_.front().when >= an_hour) {
        written_.pop_front();
    }
    auto own = std::count_if(written_.begin(), written_.end(),
                             [&](const written& w) { return w.agent == agent; });
    return written_.size() < limits_.rate && static_cast<size_t>(own) < limits_.rate_per_agent;
}

/* Removes files until one more of `bytes` fits. False when that cannot be done. */
bool undecodable_files::make_room(const std::string& agent, size_t bytes) {
    std::map<std::string, std::vector<file>> owned; /* oldest last */
    std::map<std::string, share> shares;
    share all;
    std::error_code failed;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory_, failed)) {
        struct stat status;
        if (lstat(entry.path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        std::string name = entry.path().filename();
        std::string owner = name.size() > day_digits + 2 * hash_digits
                                ? name.substr(day_digits + 1, hash_digits)
                                : "";
        file f{entry.path(), owner, static_cast<size_t>(status.st_size), status.st_mtim};
        for (share* s : {&all, &shares[owner]}) {
            s->bytes += f.bytes;
            s->files++;
        }
        owned[owner].push_back(std::move(f));
    }
    for (auto& [owner, files] : owned) {
        std::sort(files.begin(), files.end(),
                  [](const file& a, const file& b) { return b.older_than(a); });
    }
    auto remove_oldest_of = [&](const std::string& owner) {
        std::vector<file>& files = owned[owner];
        if (files.empty() || unlink(files.back().path.c_str()) != 0) {
            return false;
        }
        for (share* s : {&all, &shares[owner]}) {
            s->bytes -= files.back().bytes;
            s->files--;
        }
        files.pop_back();
        return true;
    };
    bool can = true;
    while (can && !shares[agent].fits(bytes, limits_.bytes_per_agent, limits_.files_per_agent)) {
        can = remove_oldest_of(agent);
    }
    while (can && !all.fits(bytes, limits_.bytes, limits_.files)) {
        bool by_bytes = all.bytes + bytes > limits_.bytes;
        auto has_less = [&](const auto& a, const auto& b) {
            size_t less = by_bytes ? a.second.bytes : a.second.files;
            size_t more = by_bytes ? b.second.bytes : b.second.files;
            if (less != more || a.second.files == 0 || b.second.files == 0) {
                return less < more;
            }
            return owned[b.first].back().older_than(owned[a.first].back());
        };
        can = remove_oldest_of(std::max_element(shares.begin(), shares.end(), has_less)->first);
    }
    return can;
}

undecodable_files::outcome undecodable_files::keep(std::string_view account, std::string_view agent,
                                                   int64_t received, std::string_view hash,
                                                   std::string_view records, size_t bytes,
                                                   clock::time_point now, std::string& path,
                                                   std::string& error) {
    const std::string owner = agent_tag(account, agent);
    const size_t kept_bytes =
        std::min({bytes, limits_.file, limits_.bytes, limits_.bytes_per_agent});
    path = directory_ + "/" + utc_day(received) + "-" + owner + "-" + tag(hash) + ".bin";
    struct stat there;
    if (lstat(path.c_str(), &there) == 0 && S_ISREG(there.st_mode) &&
        static_cast<size_t>(there.st_size) == kept_bytes) {
        return outcome::kept; /* the block comes again: the commit after this one failed */
    }
    if (!within_rate(owner, now)) {
        dropped_++;
        dropped_bytes_ += bytes;
        dropped_from_ = std::string(agent) + " of " + std::string(account);
        return outcome::dropped;
    }
    const std::string temporary = path + ".tmp";
    bool there_is_one = mkdir(directory_.c_str(), 0700) == 0 || errno == EEXIST;
    if (there_is_one && make_room(owner, kept_bytes) &&
        write_pieces(temporary, records, kept_bytes) &&
        rename(temporary.c_str(), path.c_str()) == 0 && sync_directory(directory_)) {
        written_.push_back({now, owner});
        return outcome::kept;
    }
    error = system_error(path);
    unlink(temporary.c_str());
    return outcome::failed;
}

std::string undecodable_files::report(clock::time_point now) {
    if (dropped_ == 0 || (reported_once_ && now - reported_ < an_hour)) {
        return "";
    }
    std::string line = std::to_string(dropped_bytes_) +
                       " bytes that are no record were not kept (" + std::to_string(dropped_) +
                       " times, last from " + dropped_from_ + "): too many came within an hour";
    dropped_ = dropped_bytes_ = 0;
    reported_ = now;
    reported_once_ = true;
    return line;
}

void undecodable_files::keep_days(const std::vector<std::string>& days) {
    std::error_code failed;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory_, failed)) {
        std::string day = entry.path().filename().string().substr(0, day_digits);
        if (std::find(days.begin(), days.end(), day) == days.end()) {
            fs::remove(entry.path(), failed);
        }
    }
}
