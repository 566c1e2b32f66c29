#include "store/settings.h"

#include "base/files.h"
#include "store/sqlite/sqlite_settings.h"

std::unique_ptr<settings> settings::open(const std::string& directory, std::string& note,
                                         std::string& error, tell_function tell) {
    if (!make_private_directory(directory)) {
        error = system_error("cannot use the state directory " + directory);
        return nullptr;
    }
    auto made = std::make_unique<sqlite_settings>(directory, std::move(tell));
    if (!made->open(note, error)) {
        return nullptr;
    }
    return made;
}
