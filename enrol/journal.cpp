#include "enrol/journal.h"

#include "ctl/failure.h"
#include "enrol/credentials.h"
#include "enrol/files.h"

#include <map>
#include <string_view>
#include <unistd.h>

static std::string path_of(const std::string& directory) {
    return directory + "/enrolling";
}

std::string backup_of(const std::string& conf) {
    return conf + ".enrol-before";
}

void write_journal(const std::string& directory, const journal& what) {
    std::string text =
        "# An enrolment that is under way, or was interrupted: see vindral-enrol(8).\n";
    auto add = [&](const char* key, const std::string& value) {
        text.append(key).append(" ").append(value).append("\n");
    };
    add("goal", hex(what.goal));
    add("conf", what.conf);
    add("written", hex(what.written));
    add("identity", what.identity);
    add("authorities", what.authorities);
    add("ran", what.ran ? "yes" : "no");
    add("enabled", what.enabled ? "yes" : "no");
    add("start", what.start ? "yes" : "no");
    add("undoing", what.undoing ? "yes" : "no");
    write_file(path_of(directory), text, {geteuid(), getegid(), 0600});
}

std::optional<journal> read_journal(const std::string& directory) {
    const std::optional<std::string> text = read_file(path_of(directory));
    if (!text) {
        return std::nullopt;
    }
    std::map<std::string, std::string> values;
    for (size_t at = 0; at < text->size();) {
        const std::string line = text->substr(at, text->find('\n', at) - at);
        at += line.size() + 1;
        const size_t blank = line.find(' ');
        if (blank != line.npos) {
            values[line.substr(0, blank)] = line.substr(blank + 1);
        }
    }
    journal found;
    found.conf = values["conf"];
    found.identity = values["identity"];
    found.authorities = values["authorities"];
    found.ran = values["ran"] == "yes";
    found.enabled = values["enabled"] == "yes";
    found.start = values["start"] != "no";
    found.undoing = values["undoing"] == "yes";
    const std::optional<protocol::sha256> goal = read_fingerprint(values["goal"]),
                                          written = read_fingerprint(values["written"]);
    if (!goal || !written || found.identity.empty() || found.authorities.empty()) {
        throw failure{status_wrong, path_of(directory) +
                                        " is damaged. It is of an enrolment that was "
                                        "interrupted, from before which " +
                                        backup_of("vindral.conf") +
                                        " is: put that back if need be, and remove both"};
    }
    found.goal = *goal;
    found.written = *written;
    return found;
}

void forget_journal(const std::string& directory, const std::string& conf) {
    remove_file(path_of(directory));
    remove_file(backup_of(conf));
}
