/* Binding of the MySQL client library: candidates, order, failures, initialisation. */
#include "fake_core.h"
#include "guards.h"
#include "library_directory.h"
#include "mysqlmon_lib.cpp"

#include <gtest/gtest.h>

static const std::string STUBS = VINDRAL_STUBS;

namespace {

class MysqlLibrary : public testing::Test {
protected:
    void SetUp() override {
        library_attempts.clear();
        initialize_library = nullptr;
        end_thread = nullptr;
        lib_mysql_init = nullptr;
        lib_mysql_close = nullptr;
        take_log();
    }
    void TearDown() override { library_directory.clear(); }

    static std::vector<std::string> tried() {
        std::vector<std::string> names;
        for (const auto& attempt : library_attempts) {
            EXPECT_EQ(RTLD_NOW, attempt.mode);
            names.push_back(attempt.name);
        }
        return names;
    }
    static int count_in(void* library, const char* name) {
        return *static_cast<int*>(dlsym(library, name));
    }
};

} // namespace

TEST_F(MysqlLibrary, tells_the_first_name_and_the_last_reason_when_none_loads) {
    library_directory = STUBS + "/absent";
    heap_text reason(init_mysql_lib());
    EXPECT_STREQ(("MySQL: failed on loading libmysqlclient.so, " + library_directory +
                  "/libmariadb.so.3: cannot open shared object file: No such file or directory")
                     .c_str(),
                 reason.get());
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ((std::vector<std::string>{"libmysqlclient.so", VINDRAL_MYSQL_CLIENT,
                                        "libmysqlclient.so.21", "libmysqlclient.so.20",
                                        "libmysqlclient.so.18", "libmariadb.so.3"}),
              tried());
    EXPECT_EQ(nullptr, lib_mysql_init);
    end_mysql_thread(); /* nothing to do */
}

/* The next candidate, which is complete, is not tried. */
TEST_F(MysqlLibrary, a_library_that_lacks_a_function_ends_the_search) {
    library_directory = STUBS + "/mysql_incomplete";
    std::string file = library_directory + "/libmysqlclient.so";
    heap_text reason(init_mysql_lib());
    std::string text =
        "MySQL: failed on loading libmysqlclient.so, " + file + ": undefined symbol: mysql_close";
    EXPECT_EQ(text, reason.get());
    EXPECT_EQ("0 " + text + "\n", take_log_text());
    EXPECT_EQ(1u, library_attempts.size());
    EXPECT_EQ(nullptr, lib_mysql_close);
    EXPECT_EQ(nullptr, dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD)) << "it is closed";
}

TEST_F(MysqlLibrary, is_initialised_once) {
    library_directory = STUBS + "/mysql_8";
    EXPECT_EQ(nullptr, init_mysql_lib());
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ(3u, library_attempts.size());
    void* library = dlopen((library_directory + "/libmysqlclient.so.21").c_str(), RTLD_NOW);
    ASSERT_NE(nullptr, library);
    EXPECT_EQ(1, count_in(library, "stub_initialized"));
    EXPECT_EQ(0, count_in(library, "stub_threads_ended"));
    end_mysql_thread();
    EXPECT_EQ(1, count_in(library, "stub_threads_ended"));
}

TEST_F(MysqlLibrary, every_function_is_bound_to_its_name) {
    library_directory = STUBS + "/mysql_plain";
    EXPECT_EQ(nullptr, init_mysql_lib());
    void* library = dlopen((library_directory + "/libmysqlclient.so").c_str(), RTLD_NOW);
    const std::pair<const char*, void*> bound[] = {
        {"mysql_init", reinterpret_cast<void*>(lib_mysql_init)},
        {"mysql_error", reinterpret_cast<void*>(lib_mysql_error)},
        {"mysql_options", reinterpret_cast<void*>(lib_mysql_options)},
        {"mysql_real_connect", reinterpret_cast<void*>(lib_mysql_real_connect)},
        {"mysql_query", reinterpret_cast<void*>(lib_mysql_query)},
        {"mysql_store_result", reinterpret_cast<void*>(lib_mysql_store_result)},
        {"mysql_num_fields", reinterpret_cast<void*>(lib_mysql_num_fields)},
        {"mysql_fetch_row", reinterpret_cast<void*>(lib_mysql_fetch_row)},
        {"mysql_free_result", reinterpret_cast<void*>(lib_mysql_free_result)},
        {"mysql_close", reinterpret_cast<void*>(lib_mysql_close)},
    };
    for (auto [name, address] : bound) {
        EXPECT_EQ(dlsym(library, name), address) << name;
        EXPECT_NE(nullptr, address) << name;
    }
    end_mysql_thread(); /* this one has neither of the two others */
}

/* What is called by number has the same number in both families. */
TEST(MysqlHeader, numbers_of_the_time_outs) {
    EXPECT_EQ(0, MYSQL_OPT_CONNECT_TIMEOUT);
    EXPECT_EQ(11, MYSQL_OPT_READ_TIMEOUT);
    EXPECT_EQ(12, MYSQL_OPT_WRITE_TIMEOUT);
}
