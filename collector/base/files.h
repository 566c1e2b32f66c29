/* Descriptors and whole files. What returns false leaves its reason in errno. */
#ifndef VINDRAL_COLLECTOR_FILES_H
#define VINDRAL_COLLECTOR_FILES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>

/* An open descriptor, or none; closed with it. */
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~unique_fd();
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

/* `what`, a colon, and the reason in errno. */
std::string system_error(const std::string& what);

bool write_all(int fd, std::string_view data);

/* Whose a file that root makes is: root's, or the owner's of the directory that it is in. */
enum class file_owner { writer, directory };

/* The text of a file, in the place of what is in `content`. Never waits: a pipe or a device is
 * refused before it is read. False with the path and the reason in `trouble`. */
bool read_whole_file(const std::string& path, size_t most, std::string& content,
                     std::string& trouble);

/* Puts a new file of `mode` in the place of whatever is there, whole and on disk: it is written as
 * `path`.new first, and nobody ever sees half of it. */
bool replace_file(const std::string& path, std::string_view text, mode_t mode,
                  file_owner owner = file_owner::writer);

/* Its owner's alone when it is made here, with the directories above it; one that exists keeps its
 * mode. */
bool make_private_directory(const std::string& path);

/* As long as it is held, no other process and no other thread holds one of the directory: for what
 * takes more than one file. Where there is no such lock (a directory that cannot be read, a file
 * system without any) it does nothing. */
class directory_lock {
public:
    explicit directory_lock(const std::string& path);

private:
    unique_fd directory_;
};

/* What was made, renamed and removed in it survives a power cut. */
bool sync_directory(const std::string& path);

/* Two lower-case digits a byte. */
std::string hex(std::string_view bytes);

#endif
