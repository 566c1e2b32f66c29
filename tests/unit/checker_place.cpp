#include "checker_place.h"

#include "procfile.h"

#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace fs = std::filesystem;

checker_place::checker_place()
    : place(fs::path(testing::TempDir()) / ("checker_place." + std::to_string(getpid()))),
      root((place / "proc").string()) {
    fs::create_directories(place / "bin");
    fs::create_directories(root);
    proc_root = root.c_str();
}

checker_place::~checker_place() {
    proc_root = "/proc";
    fs::remove_all(place);
}

void checker_place::write(const std::string& name, const std::string& text) {
    fs::path path = fs::path(root) / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

void checker_place::remove(const std::string& name) {
    fs::remove_all(fs::path(root) / name);
}

void checker_place::stub(const std::string& program, const std::string& output) {
    fs::path path = place / "bin" / program;
    std::ofstream(path) << "#!/bin/sh\necho \"$@\" >> " << place.string()
                        << "/asked\ncat << 'END'\n"
                        << output << "END\n";
    fs::permissions(path, fs::perms::owner_all);
    static const std::string system_path = getenv("PATH");
    setenv("PATH", ((place / "bin").string() + ":" + system_path).c_str(), 1);
}

std::string checker_place::asked() {
    std::ifstream in(place / "asked");
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<udc_content> take_records(int (*get_results)(char**, int*)) {
    char* data = nullptr;
    int size = 0;
    if (!get_results(&data, &size)) {
        return {};
    }
    auto records = read_udc_list(data, static_cast<size_t>(size));
    free(data);
    EXPECT_TRUE(records.has_value()) << "no run of whole records";
    return records.value_or(std::vector<udc_content>{});
}
