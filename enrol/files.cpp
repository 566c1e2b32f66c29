#include "enrol/files.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t largest = 1u << 20;
constexpr std::string_view unfinished_suffix = ".enrol-tmp";

[[noreturn]] void fail(const std::string& path, const char* what) {
    const int error = errno;
    throw failure{status_wrong,
                  printable(path) + " " + what + ": " + std::system_category().message(error)};
}

std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

void sync_parent(const std::string& path) {
    unique_fd directory(open(parent_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || fsync(directory.get()) != 0) {
        fail(path, "cannot be kept");
    }
}

void write_all(int fd, std::string_view text, const std::string& path) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            fail(path, "cannot be written");
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
}

/* Removes a file that was not put into its place. */
class unfinished {
public:
    explicit unfinished(const std::string& path) : path_(&path) {}
    unfinished(const unfinished&) = delete;
    unfinished& operator=(const unfinished&) = delete;
    ~unfinished() {
        if (path_ != nullptr) {
            const int error = errno;
            (void)unlink(path_->c_str());
            errno = error;
        }
    }
    void is_finished() { path_ = nullptr; }

private:
    const std::string* path_;
};

} // namespace

std::optional<std::string> read_file(const std::string& path, ownership* of) {
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        fail(path, "cannot be read");
    }
    struct stat status;
    if (fstat(file.get(), &status) != 0) {
        fail(path, "cannot be read");
    }
    if (!S_ISREG(status.st_mode)) {
        throw failure{status_wrong, printable(path) + " is no file"};
    }
    if (of != nullptr) {
        *of = {status.st_uid, status.st_gid, status.st_mode & 07777};
    }
    std::string text;
    auto bytes = std::make_unique<std::array<char, 65536>>();
    while (true) {
        const ssize_t count = read(file.get(), bytes->data(), bytes->size());
        if (count < 0 && errno != EINTR) {
            fail(path, "cannot be read");
        }
        if (count == 0) {
            return text;
        }
        text.append(bytes->data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (text.size() > largest) {
            throw failure{status_wrong, printable(path) + " has more than 1 MB"};
        }
    }
}

void write_file(const std::string& path, std::string_view text, const ownership& of) {
    const std::string fresh = path + std::string(unfinished_suffix);
    if (unlink(fresh.c_str()) != 0 && errno != ENOENT) {
        fail(path, "cannot be written");
    }
    /* For nobody else until it is whole and its owner's. */
    unique_fd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        fail(path, "cannot be written");
    }
    unfinished scope(fresh);
    write_all(file.get(), text, path);
    if (fchown(file.get(), of.user, of.group) != 0 || fchmod(file.get(), of.mode) != 0 ||
        fsync(file.get()) != 0 || rename(fresh.c_str(), path.c_str()) != 0) {
        fail(path, "cannot be written");
    }
    scope.is_finished();
    sync_parent(path);
}

void sweep(const std::string& directory, const std::string& conf) {
    std::unique_ptr<DIR, decltype([](DIR* d) { closedir(d); })> listing(opendir(directory.c_str()));
    if (!listing) {
        fail(directory, "cannot be used");
    }
    std::vector<std::string> left{conf + std::string(unfinished_suffix)};
    while (const dirent* entry = readdir(listing.get())) {
        const std::string_view name = entry->d_name;
        if (name.ends_with(unfinished_suffix)) {
            left.push_back(directory + "/" + std::string(name));
        }
    }
    for (const std::string& path : left) {
        remove_file(path);
    }
}

void move_file(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        fail(to, "cannot be put back");
    }
    sync_parent(to);
}

void remove_file(const std::string& path) {
    if (unlink(path.c_str()) != 0) {
        if (errno == ENOENT) {
            return;
        }
        fail(path, "cannot be removed");
    }
    sync_parent(path);
}

bool exists(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

std::string real_path(const std::string& path) {
    std::unique_ptr<char, decltype(&free)> found(realpath(path.c_str(), nullptr), free);
    if (!found) {
        if (errno == ENOENT) {
            throw failure{status_wrong, "there is no " + printable(path) +
                                            (exists(path) ? " where this link leads" : "") +
                                            ": the package vindral brings it"};
        }
        fail(path, "cannot be read");
    }
    return found.get();
}

void use_directory(const std::string& path, const ownership& of, bool& made) {
    made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) {
        fail(path, "cannot be made");
    }
    unique_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!directory || fstat(directory.get(), &status) != 0) {
        fail(path, "cannot be used");
    }
    if (made) {
        if (fchown(directory.get(), of.user, of.group) != 0 ||
            fchmod(directory.get(), of.mode) != 0) {
            fail(path, "cannot be used");
        }
        sync_parent(path);
    } else if ((status.st_uid != 0 && status.st_uid != geteuid()) || (status.st_mode & 022) != 0) {
        throw failure{status_wrong, printable(path) +
                                        " is not root's alone to write in: chown root "
                                        "and chmod go-w make it so"};
    }
}

unique_fd lock_directory(const std::string& path, milliseconds patience) {
    unique_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        fail(path, "cannot be used");
    }
    const moment deadline = in(patience);
    while (flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            fail(path, "cannot be locked");
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw failure{status_wrong, "another vindral-enrol is at work in " + printable(path)};
        }
        wait_until(in(milliseconds(100)));
    }
    return directory;
}
