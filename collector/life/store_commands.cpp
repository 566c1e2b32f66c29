#include "life/store_commands.h"

#include "base/text.h"
#include "fleet/assigned.h"
#include "state/agent_state.h"
#include "store/engine.h"

#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace {

void complain(const std::string& error) {
    std::cerr << "vindral-collector: " + printable(error) + "\n";
}

/* "4.1 MB"; of a file that cannot be looked at nothing. */
std::string size_text(const std::string& file) {
    std::error_code failed;
    uintmax_t bytes = std::filesystem::file_size(file, failed);
    if (failed) {
        return "";
    }
    uintmax_t tenths = (bytes + 50000) / 100000;
    return ", " + std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " MB";
}

/* Per cent done, on a terminal only, over what stood there before. */
class progress_line {
public:
    void show(int per_cent) {
        if (shown_) {
            std::cerr << "\r" + std::to_string(per_cent) + " %" << std::flush;
        }
    }
    ~progress_line() {
        if (shown_) {
            std::cerr << "\r\033[K" << std::flush;
        }
    }

private:
    const bool shown_ = isatty(STDERR_FILENO) == 1;
};

} // namespace

int run_backup(const options& o) {
    std::string error;
    bool done = false;
    {
        progress_line line;
        done = back_up(
            o.state_dir, o.file, [&](int per_cent) { line.show(per_cent); }, error);
    }
    if (!done) {
        complain("no backup was made: " + error);
        return 1;
    }
    std::cout << o.file + ": a copy of all that is stored in " + o.state_dir + size_text(o.file) +
                     "\n";
    return 0;
}

int run_restore(const options& o) {
    std::string error, kept_as;
    bool done = false;
    {
        progress_line line;
        done = restore_from(
            o.state_dir, o.file, o.replace, [&](int per_cent) { line.show(per_cent); }, kept_as,
            error);
    }
    if (!done) {
        complain("nothing was restored: " + error);
        return 1;
    }
    std::cout << o.state_dir + ": now has what is in " + o.file + "\n";
    if (!kept_as.empty()) {
        std::cout << "what was stored there before is kept as " + kept_as + "\n";
    }
    return 0;
}

int run_check(const options& o) {
    size_t found = 0;
    std::string error;
    auto tell = [&](const std::string& what) {
        ++found;
        std::cout << printable(what) + "\n";
    };
    agent_state state;
    assigned_agent assigned;
    const whole_texts is_whole = {
        .state = [&](std::string_view packed) { return state.unpack(packed); },
        .assigned = [&](std::string_view packed) { return assigned.unpack(packed); }};
    if (!check_store(o.state_dir, tell, error, is_whole)) {
        complain("what is stored cannot be checked: " + error);
        return 2;
    }
    std::cout << (found > 0 ? o.state_dir + ": damaged, see above\n"
                            : o.state_dir + ": all that is stored can be read\n");
    return found > 0 ? 1 : 0;
}
