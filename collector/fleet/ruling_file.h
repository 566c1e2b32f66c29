/* The file that rules (--fleet): when it says something else than what is in force, and what is
 * wrong with it. One thread. */
#ifndef VINDRAL_COLLECTOR_FLEET_RULING_FILE_H
#define VINDRAL_COLLECTOR_FLEET_RULING_FILE_H

#include "fleet/file.h"
#include "fleet/file_watch.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

class ruling_file {
public:
    explicit ruling_file(std::string path) : watched_(std::move(path)) {}

    /* False with all that is wrong with it, line by line. */
    bool open(std::vector<std::string>& wrong);
    /* Whether it was read again, or could not be. */
    bool look(bool at_once, const std::function<void(const std::string&)>& log);

    /* What it says, and nobody has applied yet; and why it cannot be read. */
    const std::optional<std::string>& text() const { return text_; }
    const std::string& trouble() const { return trouble_; }
    void applied() {
        text_.reset();
        trouble_.clear();
    }
    /* It makes no sense: `log` is told what is wrong with it. */
    void refused(const std::vector<remark>& wrong,
                 const std::function<void(const std::string&)>& log);
    /* "PATH:3:7: `htttp`: ..." */
    std::string where(const remark& what) const;

private:
    file_watch watched_;
    std::optional<std::string> text_;
    std::string trouble_;
};

#endif
