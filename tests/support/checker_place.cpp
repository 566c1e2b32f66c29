#include "checker_place.h"

#include "procfile.h"

#include <cstdlib>
#include <fcntl.h>
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

static void make_program(const fs::path& place, const std::string& program,
                         const std::string& before, const std::string& output) {
    fs::path path = place / "bin" / program;
    std::ofstream(path) << "#!/bin/sh\necho \"$@\" >> " << place.string() << "/asked\n"
                        << before << "cat << 'END'\n"
                        << output << "END\n";
    fs::permissions(path, fs::perms::owner_all);
    static const std::string system_path = getenv("PATH");
    setenv("PATH", ((place / "bin").string() + ":" + system_path).c_str(), 1);
}

void checker_place::stub(const std::string& program, const std::string& output) {
    make_program(place, program, "", output);
}

void checker_place::waiting_stub(const std::string& program, const std::string& output) {
    make_program(place, program,
                 "until [ -e " + place.string() + "/answer ]; do sleep 0.01; done\n", output);
}

void checker_place::let_answer() {
    std::ofstream(place / "answer");
}

std::string checker_place::asked() {
    std::ifstream in(place / "asked");
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void checker_place::expect_pass_locks_the_list(checker& c, void (*pass)(),
                                               int (*get_results)(char**, int*)) {
    std::thread worker(pass);
    EXPECT_TRUE(eventually([this] { return !asked().empty(); }));
    time_t began = now_in_seconds();
    EXPECT_FALSE(is_free(c.mon_mutex));
    EXPECT_EQ(1u, take_records(get_results).size());
    EXPECT_TRUE(eventually([began] { return now_in_seconds() > began; }));
    let_answer();
    worker.join();
    EXPECT_TRUE(is_free(c.mon_mutex));
    std::vector<udc_content> rest = take_records(get_results);
    ASSERT_EQ(1u, rest.size());
    ASSERT_EQ(1u, rest[0].i64.size());
    EXPECT_GE(began, rest[0].i64[0]);
}

void checker_place::expect_stop_ends_the_pass(checker& c, void (*pass)(), void (*set_interval)(int),
                                              int (*get_results)(char**, int*)) {
    std::thread worker(pass);
    EXPECT_TRUE(eventually([this] { return !asked().empty(); }));
    std::string first = asked();
    set_interval(-1);
    worker.join();
    EXPECT_EQ(first, asked()); /* the other was not even asked */
    std::vector<uint32_t> measured;
    for (const udc_content& record : take_records(get_results)) {
        measured.push_back(record.ui32.at(1));
    }
    EXPECT_EQ((std::vector<uint32_t>{1, 4}), measured);
    EXPECT_TRUE(is_free(c.mon_mutex));
    revive(c);
}

void revive(checker& c) {
    lock hold(c.cond_mutex);
    c.stopped = false;
    unique_fd closed(c.stop_fd);
    c.stop_fd = -1;
    c.check_interval = INITIAL_CHECK_INTERVAL_S;
}

descriptors_left::descriptors_left(unsigned count) {
    getrlimit(RLIMIT_NOFILE, &before_);
    int lowest = open("/dev/null", O_RDONLY);
    close(lowest);
    rlimit fewer = before_;
    fewer.rlim_cur = static_cast<rlim_t>(lowest) + count;
    setrlimit(RLIMIT_NOFILE, &fewer);
}

unsigned wakes_of(checker& c) {
    lock hold(c.cond_mutex);
    return c.wakes;
}

bool is_free(mutex& m) {
    if (pthread_mutex_trylock(&m.handle) != 0) {
        return false;
    }
    pthread_mutex_unlock(&m.handle);
    return true;
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
