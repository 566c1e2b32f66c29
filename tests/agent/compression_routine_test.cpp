#include "compression_routine.h"

#include "fake_core.h"
#include "guards.h"
#include "library_directory.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

/* The sanitizers would end the program where malloc says no. */
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

static constexpr const char* NO_MEMORY_COMPRESS =
    "0 ERROR: compress_data: there was not enough memory\n";
static constexpr const char* NO_MEMORY_DECOMPRESS =
    "0 ERROR: decompress_data: there was not enough memory\n";

/* Loading */

class zlib_loading : public testing::Test {
protected:
    void SetUp() override {
        zlib_handle = nullptr;
        library_attempts.clear();
        take_log();
    }
    void TearDown() override { library_directory.clear(); }
};

TEST_F(zlib_loading, names_the_first_candidate_when_none_opens) {
    library_directory = VINDRAL_STUBS "/nothing";
    EXPECT_EQ(init_zlib(), 0);
    EXPECT_EQ(zlib_handle, nullptr);
    ASSERT_EQ(library_attempts.size(), 2u);
    EXPECT_EQ(library_attempts[0].name, "libz.so");
    EXPECT_EQ(library_attempts[0].mode, RTLD_NOW);
    EXPECT_EQ(library_attempts[1].name, "libz.so.1");
    EXPECT_EQ(library_attempts[1].mode, RTLD_NOW);
    EXPECT_EQ(take_log_text(), "0 ZLIB: failed on loading libz.so, " + library_directory +
                                   "/libz.so.1: cannot open shared object file: No such file or "
                                   "directory\n");
}

TEST_F(zlib_loading, uses_the_second_name_when_the_first_is_missing) {
    library_directory = VINDRAL_STUBS "/zlib_second";
    EXPECT_EQ(init_zlib(), 1);
    EXPECT_EQ(library_attempts.size(), 2u);
    EXPECT_EQ(reinterpret_cast<void*>(lib_uncompress), dlsym(zlib_handle, "uncompress"));
    EXPECT_EQ(init_zlib(), 1) << "a second call sees the handle";
    EXPECT_EQ(library_attempts.size(), 2u);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(zlib_loading, closes_an_incomplete_library) {
    library_directory = VINDRAL_STUBS "/zlib_incomplete";
    EXPECT_EQ(init_zlib(), 0);
    EXPECT_EQ(zlib_handle, nullptr);
    EXPECT_EQ(dlopen((library_directory + "/libz.so").c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_EQ(take_log_text(), "");
    EXPECT_EQ(init_zlib(), 0) << "a second call tries again";
    EXPECT_EQ(library_attempts.size(), 2u);
}

/* Routines, on the host's zlib */

class zlib_routines : public testing::Test {
protected:
    void SetUp() override {
        zlib_handle = nullptr;
        ASSERT_EQ(init_zlib(), 1);
        take_log();
    }
    void TearDown() override { dlclose(zlib_handle); }

    static std::string compressed(const std::string& text) {
        char* data = nullptr;
        unsigned long length = 0;
        EXPECT_EQ(compress_data(text.data(), text.size(), &data, &length), 1);
        heap_text owner(data);
        return {data, length};
    }

    /* The result of decompress_data, its length and its bytes when it succeeded. */
    int decompress(const std::string& stream, const char* size) {
        char* data = nullptr;
        int done = decompress_data(stream.data(), stream.size(), size, &data, &length);
        if (done) {
            heap_text owner(data);
            restored.assign(data, length);
        }
        return done;
    }
    unsigned long length = 0;
    std::string restored;
};

/* compress2 and uncompress that fail as told, after having spoilt the length. */
static int failure = Z_OK;

static int failing_compress2(Bytef*, uLongf* length, const Bytef*, uLong, int level) {
    EXPECT_EQ(level, -1);
    *length = 1;
    return failure;
}

static int failing_uncompress(Bytef*, uLongf* length, const Bytef*, uLong) {
    *length = 1;
    return failure;
}

TEST_F(zlib_routines, a_checksum_starts_at_1) {
    EXPECT_EQ(calculate_checksum("", 0), 1u);
    EXPECT_EQ(calculate_checksum(nullptr, 0), 1u);
    EXPECT_EQ(calculate_checksum("Wikipedia", 9), 0x11E60398u);
    EXPECT_EQ(calculate_checksum("a\0b", 3), adler32(1, reinterpret_cast<const Bytef*>("a\0b"), 3));
}

TEST_F(zlib_routines, a_checksum_takes_the_length_as_32_bits) {
    EXPECT_EQ(calculate_checksum("Wikipedia", (size_t{1} << 32) + 9), 0x11E60398u);
}

TEST_F(zlib_routines, nothing_compresses_to_an_empty_stream) {
    char* data = nullptr;
    unsigned long length = 0;
    ASSERT_EQ(compress_data("", 0, &data, &length), 1);
    heap_text owner(data);
    /* RFC 1950 header, an empty final block, the checksum 1. */
    EXPECT_EQ(std::string(data, length), std::string("\x78\x9c\x03\x00\x00\x00\x00\x01", 8));
    EXPECT_EQ(decompress({data, length}, "0"), 1);
    EXPECT_EQ(restored, "");
    char* none = nullptr;
    ASSERT_EQ(compress_data(nullptr, 0, &none, &length), 1);
    EXPECT_EQ(length, 8u);
    free(none);
}

TEST_F(zlib_routines, what_is_compressed_comes_back) {
    for (size_t size : {1, 12, 13, 999, 1000, 100000}) {
        std::string text(size, '\0');
        for (size_t i = 0; i < size; i++) {
            text[i] = static_cast<char>(i * i >> 3);
        }
        std::string stream = compressed(text);
        ASSERT_EQ(decompress(stream, std::to_string(size).c_str()), 1) << size;
        EXPECT_EQ(restored, text);
    }
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(zlib_routines, data_that_does_not_shrink_fits_the_bound) {
    unsigned state = 1;
    for (size_t size : {1, 100, 5000, 1000000}) {
        std::string noise(size, '\0');
        for (char& byte : noise) {
            state = state * 1103515245 + 12345;
            byte = static_cast<char>(state >> 16);
        }
        EXPECT_GT(compressed(noise).size(), size);
    }
}

TEST_F(zlib_routines, the_bound_is_a_thousandth_and_13_more) {
    lib_compress2 = failing_compress2;
    failure = Z_STREAM_ERROR;
    for (auto [size, bound] : {std::pair{0UL, 13UL},
                               {999UL, 1012UL},
                               {1000UL, 1013UL},
                               /* 1000.9999... */ {2000UL, 2014UL},
                               {100000UL, 100112UL}}) {
        char* data = nullptr;
        unsigned long length = 0;
        EXPECT_EQ(compress_data("", size, &data, &length), 0);
        EXPECT_EQ(length, bound);
        EXPECT_NE(data, nullptr) << "not reset, although it is freed";
    }
}

TEST_F(zlib_routines, a_failed_compression_is_logged_by_its_code) {
    lib_compress2 = failing_compress2;
    const struct {
        int code;
        const char* line;
    } cases[] = {
        {Z_MEM_ERROR, NO_MEMORY_COMPRESS},
        {Z_STREAM_ERROR, "0 ERROR: compress_data: the level parameter is invalid\n"},
        {Z_BUF_ERROR, "0 ERROR: compress_data: there was not enough room in the output buffer\n"},
        {Z_DATA_ERROR, ""},
        {Z_VERSION_ERROR, ""},
    };
    for (const auto& c : cases) {
        char* data = nullptr;
        unsigned long length = 0;
        failure = c.code;
        EXPECT_EQ(compress_data("data", 4, &data, &length), 0);
        EXPECT_EQ(take_log_text(), c.line);
        EXPECT_EQ(length, 17u);
    }
}

TEST_F(zlib_routines, compressing_more_than_memory_holds_fails) {
    for (unsigned long size : {ULONG_MAX, ULONG_MAX - 13, ULONG_MAX / 2, ULONG_MAX / 4}) {
        char* data = nullptr;
        unsigned long length = 0;
        EXPECT_EQ(compress_data("", size, &data, &length), 0);
        EXPECT_EQ(take_log_text(), NO_MEMORY_COMPRESS);
    }
}

TEST_F(zlib_routines, a_failed_decompression_is_logged_by_its_code) {
    lib_uncompress = failing_uncompress;
    const struct {
        int code;
        const char* line;
    } cases[] = {
        {Z_MEM_ERROR, NO_MEMORY_DECOMPRESS},
        {Z_DATA_ERROR, "0 ERROR: decompress_data: the input data was corrupted\n"},
        {Z_BUF_ERROR, "0 ERROR: decompress_data: there was not enough room in the output buffer\n"},
        {Z_STREAM_ERROR, ""},
    };
    for (const auto& c : cases) {
        failure = c.code;
        EXPECT_EQ(decompress("data", "77"), 0);
        EXPECT_EQ(take_log_text(), c.line);
        EXPECT_EQ(length, 77u);
    }
}

TEST_F(zlib_routines, a_size_below_the_real_one_leaves_not_enough_room) {
    std::string stream = compressed("some data that is longer");
    EXPECT_EQ(decompress(stream, "23"), 0);
    EXPECT_EQ(take_log_text(),
              "0 ERROR: decompress_data: there was not enough room in the output buffer\n");
    EXPECT_EQ(decompress(stream, "0"), 0);
    EXPECT_EQ(decompress(stream, "no number"), 0) << "reads as 0";
    take_log(); /* which code 0 bytes of room are, depends on the release of zlib */
    EXPECT_EQ(decompress(stream, "24"), 1);
    EXPECT_EQ(restored, "some data that is longer");
    EXPECT_EQ(decompress(stream, "024"), 1) << "decimal";
    EXPECT_EQ(decompress(stream, "25 and text"), 1);
    EXPECT_EQ(length, 24u) << "the real size";
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(zlib_routines, damaged_and_cut_streams_fail) {
    std::string stream = compressed("some data that is longer");
    std::string damaged = stream;
    damaged.back() ^= 1; /* the checksum */
    EXPECT_EQ(decompress(damaged, "24"), 0);
    EXPECT_EQ(take_log_text(), "0 ERROR: decompress_data: the input data was corrupted\n");
    EXPECT_EQ(decompress("no stream at all", "24"), 0);
    EXPECT_EQ(take_log_text(), "0 ERROR: decompress_data: the input data was corrupted\n");
    for (size_t kept = 0; kept < stream.size(); kept++) {
        EXPECT_EQ(decompress(stream.substr(0, kept), "24"), 0) << kept;
    }
    take_log();
}

TEST_F(zlib_routines, an_announced_size_beyond_all_memory_fails) {
    std::string stream = compressed("data");
    for (const char* size : {"-1", "18446744073709551615", "9223372036854775807"}) {
        EXPECT_EQ(decompress(stream, size), 0);
        EXPECT_EQ(take_log_text(), NO_MEMORY_DECOMPRESS) << size;
    }
}

TEST_F(zlib_routines, an_announced_size_that_cannot_be_read_is_refused) {
    std::string stream = compressed("data");
    length = 5;
    EXPECT_EQ(decompress(stream, "18446744073709551616"), 0);
    EXPECT_EQ(take_log_text(),
              "0 Wrong Compress Value: 18446744073709551616, Numerical result out of range\n");
    EXPECT_EQ(decompress(stream, nullptr), 0);
    EXPECT_EQ(take_log_text(), "");
    EXPECT_EQ(length, 5u);
}

TEST_F(zlib_routines, a_checksum_of_0_or_no_number_accepts_anything) {
    for (const char* none : {"0", "", "no number", "0x10", "-0"}) {
        EXPECT_EQ(validate_data("Wikipedia", 9, none), 1) << none;
    }
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(zlib_routines, a_checksum_has_to_match) {
    EXPECT_EQ(validate_data("Wikipedia", 9, "300286872"), 1);
    EXPECT_EQ(validate_data("Wikipedia", 9, " +300286872 and text"), 1);
    EXPECT_EQ(validate_data("Wikipedia", 9, "300286873"), 0);
    EXPECT_EQ(validate_data("Wikipedia", 8, "300286872"), 0);
    EXPECT_EQ(validate_data("", 0, "1"), 1);
    EXPECT_EQ(validate_data("Wikipedia", 9, nullptr), 0);
    EXPECT_EQ(validate_data("Wikipedia", 9, "18446744073709551615"), 0);
    EXPECT_EQ(validate_data("Wikipedia", 9, "-1"), 0);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(zlib_routines, a_checksum_too_large_to_be_read_is_refused) {
    EXPECT_EQ(validate_data("Wikipedia", 9, "99999999999999999999"), 0);
    EXPECT_EQ(take_log_text(),
              "0 Wrong CheckSum format: 99999999999999999999, Numerical result out of range\n");
}
