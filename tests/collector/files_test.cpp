#include "base/files.h"

#include "collector_test_support.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

static mode_t mode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

static bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

TEST(files, a_descriptor_is_closed_once_by_whoever_has_it_last) {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        unique_fd first(fd), second;
        EXPECT_FALSE(second);
        second = std::move(first);
        unique_fd third(std::move(second));
        EXPECT_EQ(third.get(), fd);
        EXPECT_TRUE(is_open(fd));
    }
    EXPECT_FALSE(is_open(fd));
}

TEST(files, a_file_is_replaced_whole) {
    scratch_directory home;
    std::string path = home / "key";
    write_text(path + ".new", "left over");
    ASSERT_TRUE(replace_file(path, "one", 0600));
    EXPECT_EQ(read_text(path), "one");
    EXPECT_EQ(mode_of(path), 0600u);
    ASSERT_TRUE(replace_file(path, "two", 0400));
    EXPECT_EQ(read_text(path), "two");
    EXPECT_EQ(mode_of(path), 0400u);
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST(files, what_cannot_be_replaced_says_why) {
    scratch_directory home;
    EXPECT_FALSE(replace_file(home / "nowhere/key", "text", 0600));
    EXPECT_EQ(system_error("key"), "key: No such file or directory");
    std::filesystem::create_directory(home / "directory");
    EXPECT_FALSE(replace_file(home / "directory", "text", 0600));
    EXPECT_EQ(errno, EISDIR);
}

TEST(files, writing_fails_where_there_is_no_room) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(full);
    EXPECT_FALSE(write_all(full.get(), "text"));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(write_all(full.get(), ""));
}

TEST(files, a_directory_that_is_made_is_its_owner_s_alone) {
    scratch_directory home;
    ASSERT_TRUE(make_private_directory(home / "state"));
    EXPECT_EQ(mode_of(home / "state"), 0700u);
    ASSERT_EQ(chmod((home / "state").c_str(), 0755), 0);
    EXPECT_TRUE(make_private_directory(home / "state"));
    EXPECT_EQ(mode_of(home / "state"), 0755u);
    EXPECT_TRUE(sync_directory(home / "state"));
    write_text(home / "file", "");
    EXPECT_FALSE(make_private_directory(home / "file"));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(make_private_directory(home / "file/state"));
    EXPECT_EQ(errno, ENOTDIR);
    for (const char* name : {"slash/", "slashes//", "dot/.", "far/away/"}) {
        EXPECT_TRUE(make_private_directory(home / name)) << name;
        EXPECT_EQ(mode_of(home / name), 0700u) << name;
    }
    std::filesystem::create_symlink(home / "nowhere", home / "link");
    EXPECT_FALSE(make_private_directory(home / "link"));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(make_private_directory(home / "new/state"));
    EXPECT_EQ(mode_of(home / "new/state"), 0700u);
    EXPECT_FALSE(sync_directory(home / "nowhere"));
}

TEST(files, bytes_as_digits) {
    EXPECT_EQ(hex(std::string_view("\x00\x7f\xab\xff", 4)), "007fabff");
    EXPECT_EQ(hex(""), "");
}

TEST(files, roots_file_may_belong_to_the_owner_of_the_directory) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    scratch_directory home;
    ASSERT_EQ(chown((home / ".").c_str(), 65534, 65534), 0);
    struct stat status;
    ASSERT_TRUE(replace_file(home / "key", "text", 0600, file_owner::directory));
    ASSERT_EQ(stat((home / "key").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 65534u);
    EXPECT_EQ(status.st_gid, 65534u);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    ASSERT_TRUE(replace_file(home / "key", "text", 0600));
    ASSERT_EQ(stat((home / "key").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0u);
}

TEST(files, one_holds_a_directory_at_a_time) {
    scratch_directory home;
    std::atomic<int> inside = 0, most = 0, done = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            for (int n = 0; n < 100; n++) {
                directory_lock lock(home / ".");
                const int now = ++inside;
                most = std::max(most.load(), now);
                std::this_thread::yield();
                --inside;
                ++done;
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(most, 1);
    EXPECT_EQ(done, 400);
    directory_lock none(home / "nowhere");
}
