/* A compressed body with the two numbers that announce it. Input: the size in one line, the
 * checksum in the next, then the stream. */
#include "compression_routine.h"

#include "fuzz.h"
#include "vindral_common.h"

#include <cerrno>
#include <climits>
#include <cstring>

static const unsigned long ANNOUNCED_MOST = 1 << 20; /* what the search may take */

static bool is_readable(const std::string& number, unsigned long* value) {
    errno = 0;
    *value = strtoul(number.c_str(), nullptr, 10);
    return errno == 0 || *value != ULONG_MAX;
}

static void check_checksum(const std::string& stream, const std::string& checksum) {
    unsigned long actual = calculate_checksum(stream.data(), stream.size());
    unsigned long claimed;
    bool readable = is_readable(checksum, &claimed);
    int valid = validate_data(stream.data(), stream.size(), checksum.c_str());
    require(valid == (readable && (claimed == 0 || claimed == actual)));
    require(validate_data(stream.data(), stream.size(), std::to_string(actual).c_str()) == 1);
    require(validate_data(stream.data(), stream.size(), std::to_string(actual + 1).c_str()) == 0);
}

static void check_stream(const std::string& stream, const std::string& announced) {
    unsigned long size;
    if (is_readable(announced, &size) && size > ANNOUNCED_MOST) {
        return;
    }
    char* data = nullptr;
    unsigned long length = 0;
    if (!decompress_data(stream.data(), stream.size(), announced.c_str(), &data, &length)) {
        return;
    }
    heap_text plain(data);
    require(length <= size);
    calculate_checksum(plain.get(), length); /* reads all of it */
}

/* The text packed and unpacked, announced as it is, too short and too long. A length of 0 is none
 * to zlib. */
static void check_round_trip(const std::string& text) {
    char* data = nullptr;
    unsigned long length = 0;
    require(compress_data(text.data(), text.size(), &data, &length) == 1);
    heap_text packed(data);
    for (long excess : {0L, 1L, -1L}) {
        long announced = static_cast<long>(text.size()) + excess;
        if (announced < (excess < 0 ? 1 : 0)) {
            continue;
        }
        unsigned long unpacked_length = 0;
        int unpacked = decompress_data(packed.get(), length, std::to_string(announced).c_str(),
                                       &data, &unpacked_length);
        require(unpacked == (excess >= 0));
        if (unpacked) {
            heap_text plain(data);
            require(unpacked_length == text.size());
            require(memcmp(plain.get(), text.data(), text.size()) == 0);
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int loaded = init_zlib();
    require(loaded == 1);
    std::string_view input(reinterpret_cast<const char*>(data), size);
    size_t first = input.find('\n');
    size_t second = first != input.npos ? input.find('\n', first + 1) : input.npos;
    if (second == input.npos) {
        return 0;
    }
    std::string announced(input.substr(0, first));
    std::string checksum(input.substr(first + 1, second - first - 1));
    std::string stream(input.substr(second + 1));
    require_no_growth([&] {
        check_checksum(stream, checksum);
        check_stream(stream, announced);
        check_round_trip(stream);
    });
    return 0;
}
