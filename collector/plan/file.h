/* The file of a plan: when it is to be read, and how much of it counts while somebody may still be
 * writing it. One thread. */
#ifndef VINDRAL_COLLECTOR_PLAN_FILE_H
#define VINDRAL_COLLECTOR_PLAN_FILE_H

#include "plan/line.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

class plan_file {
public:
    explicit plan_file(std::string path) : path_(std::move(path)) {}

    const std::string& path() const { return path_; }

    enum class state {
        same,   /* nothing that was not there at the last call */
        text,   /* `text` is what counts; call accept() when it has been taken */
        failed, /* `trouble` says why */
    };
    /* One stat when nothing has changed. A last line without a line end counts when it is one of
     * those in force, or when the file has lain still. */
    state read(const std::vector<plan_line>& in_force, std::string& text, std::string& trouble);

    /* Whether this is another text than the one accepted last. */
    bool is_new(const std::string& text) const { return !accepted_ || text != text_; }
    void accept(std::string text);

private:
    struct identity {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = -1;
        int64_t modified_ns = 0;
        int64_t changed_ns = 0;
        bool operator==(const identity&) const = default;
    };
    bool is_quiet() const;
    bool is_due(const identity& now);

    std::string path_;
    identity seen_;          /* the last stat */
    int64_t seen_at_ns_ = 0; /* when it came to look like that */
    bool settled_ = false; /* it lay still when it was last read: nothing to do until it changes */
    bool quiet_ = false;   /* it lies still now */
    bool accepted_ = false;
    identity accepted_from_;
    std::string text_; /* accepted last */
};

#endif
