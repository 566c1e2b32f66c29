/* The file of a fleet: when it is to be read. One thread.
 *
 * One that takes the place of another (rename) counts at once; one that is written to in place when
 * it has lain still for two seconds, since somebody may still be writing. An empty file counts for
 * none: it would take all tests away. */
#ifndef VINDRAL_COLLECTOR_FLEET_FILE_WATCH_H
#define VINDRAL_COLLECTOR_FLEET_FILE_WATCH_H

#include <cstdint>
#include <string>
#include <sys/types.h>

class file_watch {
public:
    explicit file_watch(std::string path) : path_(std::move(path)) {}

    const std::string& path() const { return path_; }

    enum class state {
        same,  /* as at the last call, or still being written */
        text,  /* `text` is what it says now */
        failed /* `trouble` says why it cannot be read */
    };
    /* One stat when nothing has changed; the first call always says something, and so does one that
     * is `at_once`. */
    state look(bool at_once, std::string& text, std::string& trouble);

private:
    struct identity {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = -1;
        int64_t modified_ns = 0, changed_ns = 0;
        bool operator==(const identity&) const = default;
    };
    bool is_due(const identity& now);

    const std::string path_;
    identity seen_;          /* at the last call */
    int64_t seen_at_ns_ = 0; /* when it came to look like that */
    identity read_;          /* the last time */
    bool failed_ = false;    /* it could not be read then */
};

#endif
