#include "library_directory.h"

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
