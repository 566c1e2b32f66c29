#include "base/files.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

unique_fd::~unique_fd() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::string system_error(const std::string& what) {
    int error = errno;
    return what + ": " + std::generic_category().message(error);
}

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t written = write(fd, data.data(), data.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

/* "8 MiB", or "1000000 bytes". */
static std::string size_text(size_t bytes) {
    const size_t mebibytes = bytes >> 20;
    return mebibytes << 20 == bytes ? std::to_string(mebibytes) + " MiB"
                                    : std::to_string(bytes) + " bytes";
}

bool read_whole_file(const std::string& path, size_t most, std::string& content,
                     std::string& trouble) {
    content.clear();
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) {
        trouble = system_error(path);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        trouble = path + ": is not a file";
        return false;
    }
    std::string piece(64 * size_t{1024}, '\0');
    ssize_t got = 0;
    while (content.size() <= most && (got = read(file.get(), piece.data(), piece.size())) != 0) {
        if (got > 0) {
            content.append(piece, 0, static_cast<size_t>(got));
        } else if (errno != EINTR) {
            trouble = system_error(path);
            return false;
        }
    }
    if (content.size() > most) {
        trouble = path + ": is larger than " + size_text(most);
        return false;
    }
    return true;
}

static bool give_to_owner(int file, const std::string& directory) {
    struct stat home;
    return geteuid() != 0 || (stat(directory.c_str(), &home) == 0 &&
                              (home.st_uid == 0 || fchown(file, home.st_uid, home.st_gid) == 0));
}

static std::string directory_of(const std::string& path) {
    std::string directory = std::filesystem::path(path).parent_path().string();
    return directory.empty() ? "." : directory;
}

bool replace_file(const std::string& path, std::string_view text, mode_t mode, file_owner owner) {
    const std::string fresh = path + ".new";
    unlink(fresh.c_str()); /* left over from a start that was cut short */
    unique_fd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    return file && (owner == file_owner::writer || give_to_owner(file.get(), directory_of(path))) &&
           write_all(file.get(), text) && fsync(file.get()) == 0 &&
           rename(fresh.c_str(), path.c_str()) == 0;
}

directory_lock::directory_lock(const std::string& path)
    : directory_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    while (directory_ && flock(directory_.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
}

bool make_private_directory(const std::string& path) {
    std::error_code failed;
    std::filesystem::path last = std::filesystem::path(path).lexically_normal();
    if (!last.has_filename()) { /* "DIR/" would be made with what leads to it, for everyone */
        last = last.parent_path();
    }
    std::filesystem::create_directories(last.parent_path(), failed);
    if (mkdir(last.c_str(), 0700) == 0) {
        return true;
    }
    if (errno == ENOENT && failed) {
        errno = failed.value(); /* why there is nothing to put it into */
    }
    struct stat status;
    if (errno != EEXIST) {
        return false;
    }
    if (stat(path.c_str(), &status) != 0) {
        errno = EEXIST; /* a link to nowhere */
        return false;
    }
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
}

bool sync_directory(const std::string& path) {
    unique_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory && fsync(directory.get()) == 0;
}

std::string hex(std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}
