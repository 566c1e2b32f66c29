/* Records, blocks and directories for the collector's tests. Builds bytes by itself: it shares no
 * code with what writes or reads records in the programs. */
#ifndef COLLECTOR_TEST_SUPPORT_H
#define COLLECTOR_TEST_SUPPORT_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

/* Types of records. */
enum {
    type_network = 38,
    type_network_interfaces = 39,
    type_discovery = 40,
    type_process_names = 42,
    type_process = 43,
    type_cpu = 44,
    type_file_systems = 45,
    type_disk = 46,
    type_memory = 47,
    type_ping = 48,
    type_http = 49,
    type_snmp = 57,
    type_load_average = 66,
    type_snmp_table = 67,
    type_mysql = 74
};

struct record_builder {
    std::vector<int32_t> i32 = {};
    std::vector<uint32_t> ui32 = {};
    std::vector<int64_t> i64 = {};
    std::vector<uint64_t> ui64 = {};
    std::vector<double> d64 = {};
    std::vector<std::string> strings = {};
    std::vector<std::string> nested = {};
    uint32_t missing_strings = 0; /* declared, but not held */

    template <typename T>
    static void append(std::string& bytes, T value) {
        bytes.append(reinterpret_cast<const char*>(&value), sizeof(T));
    }
    template <typename T>
    static void append_all(std::string& bytes, const std::vector<T>& values) {
        for (T value : values) {
            append(bytes, value);
        }
    }

    std::string bytes() const {
        std::string tail;
        append_all(tail, i32);
        append_all(tail, ui32);
        append_all(tail, i64);
        append_all(tail, ui64);
        append_all(tail, d64);
        for (const std::string& text : strings) {
            tail.append(text).push_back('\0');
        }
        for (const std::string& inner : nested) {
            tail += inner;
        }
        std::string head;
        append(head, static_cast<uint32_t>(32 + tail.size()));
        for (size_t count : {i32.size(), ui32.size(), i64.size(), ui64.size(), d64.size(),
                             strings.size() + missing_strings, nested.size()}) {
            append(head, static_cast<uint32_t>(count));
        }
        return head + tail;
    }
};

inline std::string load_record(uint32_t test, int64_t time, uint32_t status = 0,
                               const std::string& message = "fine\n") {
    return record_builder{.ui32 = {66, test, 7, status},
                          .i64 = {time},
                          .d64 = {0.5, 0.25, 0.125},
                          .strings = {message}}
        .bytes();
}

/* Replaces the 32-bit word at `offset`. */
inline std::string with_word(std::string bytes, size_t offset, uint32_t value) {
    memcpy(bytes.data() + offset, &value, sizeof(value));
    return bytes;
}

/* A directory of its own, removed with all that is in it. */
class scratch_directory {
public:
    scratch_directory() {
        /* In memory where there is such a place: nothing in here has to outlive a power cut. */
        bool in_memory = access("/dev/shm", W_OK) == 0;
        std::filesystem::path parent =
            in_memory ? "/dev/shm" : std::filesystem::temp_directory_path();
        std::string name = (parent / "collector-test-XXXXXX").string();
        path_ = mkdtemp(name.data());
    }
    ~scratch_directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_directory(const scratch_directory&) = delete;
    scratch_directory& operator=(const scratch_directory&) = delete;
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

inline void write_text(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline void append_text(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::app) << text;
}

inline std::string read_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

#endif
