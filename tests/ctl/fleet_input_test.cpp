#include "ctl/failure.h"
#include "ctl/fleet_input.h"

#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

struct fleet_files : testing::Test {
    fleet_files() { EXPECT_NE(mkdtemp(directory), nullptr); }
    ~fleet_files() override {
        unlink(name().c_str());
        rmdir(directory);
    }
    std::string name() const { return std::string(directory) + "/fleet.yaml"; }
    void write(const std::string& text) const { std::ofstream(name()) << text; }
    static std::string wrong(const std::string& file) {
        try {
            read_fleet_input(file);
        } catch (const failure& f) {
            EXPECT_EQ(f.status, status_usage);
            return f.text;
        }
        return "nothing";
    }

    char directory[32] = "/tmp/vindral-fleet-XXXXXX";
};

bool answered(const std::string& typed) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    EXPECT_EQ(write(ends[1], typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    close(ends[1]);
    testing::internal::CaptureStderr();
    const bool yes = ask_yes_or_no(ends[0], "Really? ");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Really? ");
    close(ends[0]);
    return yes;
}

} // namespace

TEST_F(fleet_files, are_read_as_they_are) {
    const std::string text = "version: 1\r\n\xff\x1b";
    write(text);
    EXPECT_EQ(read_fleet_input(name()).text, text);
    EXPECT_EQ(read_fleet_input(name()).called, name());
    write(std::string(1'000'000, '#'));
    EXPECT_EQ(read_fleet_input(name()).text.size(), 1'000'000u);
}

TEST_F(fleet_files, that_are_none) {
    EXPECT_EQ(wrong(name()), name() + " cannot be read: No such file or directory");
    EXPECT_EQ(wrong(directory), std::string(directory) + " cannot be read: Is a directory");
    EXPECT_EQ(wrong("\x1b[2J"), "?[2J cannot be read: No such file or directory");
    write("");
    EXPECT_EQ(wrong(name()),
              name() + " is empty; \"version: 1\" alone is a fleet file that has no tests");
    write(std::string(1'000'001, '#'));
    EXPECT_EQ(wrong(name()), name() + " has more than 1,000,000 bytes, which is what a fleet file "
                                      "may have");
    EXPECT_NE(wrong("/dev/zero"), "nothing");
}

TEST(questions, all_but_yes_is_no) {
    for (const char* yes : {"y\n", "yes\n", "Y\n", "y"}) {
        EXPECT_TRUE(answered(yes)) << yes;
    }
    for (const char* no :
         {"", "\n", "n\n", "yess\n", " y\n", "yes please, at once and for all\n"}) {
        EXPECT_FALSE(answered(no)) << no;
    }
}

TEST(printable_lines, keep_their_ends) {
    EXPECT_EQ(printable_lines("a:\n\tb: \x1b[2J\r\n\nc"), "a:\n b: ?[2J\n\nc");
    EXPECT_EQ(printable_lines(""), "");
    EXPECT_EQ(printable_lines("\n"), "\n");
}
