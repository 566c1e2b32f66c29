/* Reading of kernel files: one read or the whole, what cannot be opened, what is empty, what is
 * longer than a page, no memory. */
#include <cstdlib>

static bool refuse_memory;
static void* scarce_malloc(size_t size) {
    return refuse_memory ? nullptr : malloc(size);
}
static void* scarce_realloc(void* memory, size_t size) {
    return refuse_memory ? nullptr : realloc(memory, size);
}
#define malloc scarce_malloc
#define realloc scarce_realloc
#include "procfile.cpp"
#undef malloc
#undef realloc

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>

namespace {

class ProcFile : public testing::Test {
protected:
    std::string root = "/tmp/procfile_test.XXXXXX";

    ProcFile() {
        EXPECT_NE(nullptr, mkdtemp(root.data()));
        proc_root = root.c_str();
    }
    ~ProcFile() override {
        refuse_memory = false;
        proc_root = "/proc";
        std::filesystem::remove_all(root);
    }
    void write_file(const char* name, const std::string& text) const {
        std::ofstream(root + "/" + name) << text;
    }
};

int open_descriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        count++;
    }
    return count;
}

} // namespace

TEST_F(ProcFile, one_read_ends_at_the_limit) {
    write_file("loadavg", "0.42 0.36 0.30");
    EXPECT_STREQ("0.42 0.36 0.30", read_proc_file("loadavg", 4096).get());
    EXPECT_STREQ("0.42 0.36 0.30", read_proc_file("loadavg", 14).get());
    EXPECT_STREQ("0.42", read_proc_file("loadavg", 4).get());
}

TEST_F(ProcFile, one_read_of_nothing_is_none) {
    write_file("loadavg", "");
    EXPECT_EQ(nullptr, read_proc_file("loadavg", 4096));
    EXPECT_EQ(nullptr, read_proc_file("nothing", 4096));
    EXPECT_EQ(nullptr, read_proc_file(".", 4096)); /* opens, but cannot be read */
}

TEST_F(ProcFile, the_whole_of_an_empty_file_is_an_empty_text) {
    write_file("diskstats", "");
    EXPECT_STREQ("", read_whole_proc_file("diskstats").get());
    EXPECT_EQ(nullptr, read_whole_proc_file("nothing"));
}

TEST_F(ProcFile, the_whole_is_read_whatever_its_length) {
    for (size_t length : {1u, 4094u, 4095u, 4096u, 4097u, 8191u, 8192u, 100000u}) {
        std::string text;
        while (text.size() < length) {
            text += std::to_string(text.size()) + "\n";
        }
        text.resize(length);
        write_file("stat", text);
        EXPECT_EQ(text, read_whole_proc_file("stat").get()) << length;
    }
}

/* The kernel hands long files out page by page. */
TEST_F(ProcFile, the_whole_is_read_in_pieces) {
    std::string path = root + "/stat", text;
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    std::thread kernel([&] {
        std::ofstream out(path);
        for (int piece = 0; piece < 50; piece++) {
            out << std::string(300, static_cast<char>('a' + piece % 26)) << std::flush;
        }
    });
    for (int piece = 0; piece < 50; piece++) {
        text += std::string(300, static_cast<char>('a' + piece % 26));
    }
    heap_text read = read_whole_proc_file("stat");
    kernel.join();
    EXPECT_EQ(text, read.get());
}

TEST_F(ProcFile, without_memory_there_is_none) {
    write_file("stat", "cpu 1 2 3\n");
    int before = open_descriptors();
    refuse_memory = true;
    heap_text one = read_proc_file("stat", 4096), whole = read_whole_proc_file("stat");
    refuse_memory = false;
    EXPECT_EQ(nullptr, one);
    EXPECT_EQ(nullptr, whole);
    EXPECT_EQ(before, open_descriptors());
}

TEST_F(ProcFile, closes_what_it_opens) {
    write_file("stat", "cpu 1 2 3\n");
    int before = open_descriptors();
    for (int i = 0; i < 3; i++) {
        EXPECT_NE(nullptr, read_proc_file("stat", 4096));
        EXPECT_NE(nullptr, read_whole_proc_file("stat"));
    }
    EXPECT_EQ(before, open_descriptors());
}

TEST(TakeLine, comes_in_parts_when_it_is_too_long) {
    const char* rest = "one\n\nfour four\nlast";
    char line[5];
    std::string lines;
    while (take_line(&rest, line, sizeof line)) {
        lines += std::string(line) + "|";
    }
    EXPECT_EQ("one||four| fou|r|last|", lines);
    EXPECT_EQ('\0', *rest);
}

TEST(ProcRoot, is_the_kernels) {
    EXPECT_STREQ("/proc", proc_root);
    EXPECT_NE(nullptr, read_proc_file("loadavg", 4096));
}
