#include "library_directory.h"

#include "guards.h"

#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>

class dynlib : public testing::Test {
protected:
    void SetUp() override {
        library_directory = VINDRAL_STUBS "/zlib_incomplete";
        library_attempts.clear();
    }
    void TearDown() override {
        if (handle_ != nullptr) {
            dlclose(handle_);
        }
    }
    void* handle_ = nullptr;
};

TEST_F(dynlib, opens_the_first_candidate_that_loads_and_tries_no_further) {
    const char* const names[] = {"libabsent.so", "libz.so", "libz.so.1"};
    handle_ = dynlib_open(names, 3);
    EXPECT_NE(handle_, nullptr);
    ASSERT_EQ(library_attempts.size(), 2u);
    EXPECT_EQ(library_attempts[1].name, "libz.so");
    EXPECT_EQ(library_attempts[1].mode, RTLD_NOW);
}

TEST_F(dynlib, leaves_the_reason_of_the_last_candidate_when_none_loads) {
    const char* const names[] = {"libfirst.so", "liblast.so"};
    EXPECT_EQ(dynlib_open(names, 2), nullptr);
    EXPECT_EQ(std::string(dynlib_error()),
              library_directory +
                  "/liblast.so: cannot open shared object file: No such file or directory");
    EXPECT_STREQ(dynlib_error(), "");
}

TEST_F(dynlib, forgets_an_older_error) {
    EXPECT_EQ(dlopen("/nonexistent", RTLD_NOW), nullptr);
    EXPECT_EQ(dynlib_open(nullptr, 0), nullptr);
    EXPECT_STREQ(dynlib_error(), "");
}

TEST_F(dynlib, binds_in_order_up_to_the_first_missing_name) {
    const char* const names[] = {"libz.so"};
    handle_ = dynlib_open(names, 1);
    ASSERT_NE(handle_, nullptr);
    void (*first)() = nullptr;
    void (*missing)() = nullptr;
    void (*behind)() = nullptr;
    const dynlib_symbol symbols[] = {
        {"adler32", reinterpret_cast<void**>(&first), nullptr},
        {"uncompress", reinterpret_cast<void**>(&missing), nullptr},
        {"compress2", reinterpret_cast<void**>(&behind), nullptr},
    };
    EXPECT_EQ(dynlib_bind(handle_, symbols, 3), 0);
    EXPECT_EQ(reinterpret_cast<void*>(first), dlsym(handle_, "adler32"));
    EXPECT_EQ(missing, nullptr);
    EXPECT_EQ(behind, nullptr);
    EXPECT_EQ(dynlib_bind(handle_, symbols, 1), 1);
    EXPECT_EQ(dynlib_bind(handle_, symbols, 0), 1);
}

TEST_F(dynlib, takes_a_fallback_only_for_a_missing_name) {
    const char* const names[] = {"libz.so"};
    handle_ = dynlib_open(names, 1);
    ASSERT_NE(handle_, nullptr);
    void (*own)() = nullptr;
    void (*replaced)() = nullptr;
    void (*nothing)() = nullptr;
    auto compress2 = [](void* handle) { return dlsym(handle, "compress2"); };
    auto none = [](void*) -> void* { return nullptr; };
    const dynlib_symbol symbols[] = {
        {"adler32", reinterpret_cast<void**>(&own), compress2},
        {"uncompress", reinterpret_cast<void**>(&replaced), compress2},
        {"uncompress", reinterpret_cast<void**>(&nothing), none},
    };
    EXPECT_EQ(dynlib_bind(handle_, symbols, 2), 1);
    EXPECT_EQ(reinterpret_cast<void*>(own), dlsym(handle_, "adler32"));
    EXPECT_EQ(reinterpret_cast<void*>(replaced), dlsym(handle_, "compress2"));
    EXPECT_EQ(dynlib_bind(handle_, symbols, 3), 0);
    EXPECT_EQ(nothing, nullptr);
}

/* Whether the process has the page of an address (proc(5), pagemap). */
static bool is_mapped(const unsigned char* address) {
    uint64_t entry = 0,
             page = reinterpret_cast<uintptr_t>(address) / static_cast<size_t>(getpagesize());
    unique_fd file(open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(pread(file.get(), &entry, sizeof entry, static_cast<off_t>(page * sizeof entry)), 8);
    return entry >> 63;
}

TEST_F(dynlib, code_goes_from_memory_and_comes_back_when_it_is_used) {
    library_directory = "";
    const char* const names[] = {"libz.so.1"};
    handle_ = dynlib_open(names, 1);
    ASSERT_NE(handle_, nullptr);
    unsigned long (*checksum)(unsigned long, const unsigned char*, unsigned) = nullptr;
    const dynlib_symbol symbols[] = {dynlib_entry("adler32", &checksum)};
    ASSERT_EQ(dynlib_bind(handle_, symbols, 1), 1);
    const unsigned char* code = nullptr;
    memcpy(&code, &checksum, sizeof code);
    const unsigned char text[] = {'a', 'b'};
    unsigned long sum = checksum(1, text, 2);
    EXPECT_TRUE(is_mapped(code));
    dynlib_forget_pages();
    EXPECT_FALSE(is_mapped(code));
    EXPECT_EQ(checksum(1, text, 2), sum);
    EXPECT_TRUE(is_mapped(code));
}
