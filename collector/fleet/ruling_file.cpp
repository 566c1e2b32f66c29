#include "fleet/ruling_file.h"

#include <algorithm>

static constexpr size_t most_remarks = 20; /* in the log */

std::string ruling_file::where(const remark& what) const {
    return watched_.path() + ":" + std::to_string(what.at.line) + ":" +
           std::to_string(what.at.column) + ": " + what.text;
}

bool ruling_file::open(std::vector<std::string>& wrong) {
    std::string text;
    if (watched_.look(true, text, trouble_) == file_watch::state::failed) {
        wrong.push_back(trouble_);
        return false;
    }
    fleet file;
    std::vector<remark> remarks;
    if (!read_fleet(text, file, remarks)) {
        for (const remark& each : remarks) {
            wrong.push_back(where(each));
        }
        trouble_ = wrong.front();
        return false;
    }
    text_ = std::move(text);
    return true;
}

bool ruling_file::look(bool at_once, const std::function<void(const std::string&)>& log) {
    std::string text;
    const file_watch::state found = watched_.look(at_once, text, trouble_);
    if (found == file_watch::state::text) {
        text_ = std::move(text);
    } else if (found == file_watch::state::failed) {
        text_.reset();
        log("fleet: " + trouble_ + "; the fleet in force goes on");
    }
    return found != file_watch::state::same;
}

void ruling_file::refused(const std::vector<remark>& wrong,
                          const std::function<void(const std::string&)>& log) {
    text_.reset();
    trouble_ = where(wrong.front());
    for (size_t i = 0; i < std::min(wrong.size(), most_remarks); i++) {
        log("fleet: " + where(wrong[i]));
    }
    const size_t more = wrong.size() - std::min(wrong.size(), most_remarks);
    log("fleet: " + (more > 0 ? std::to_string(more) + " more; " : std::string()) +
        "the fleet in force goes on");
}
