#include "udc_reader.h"

#include <bit>
#include <ostream>
#include <sstream>
#include <string_view>

/* Little-endian number of `width` bytes. */
static uint64_t number(std::string_view bytes, size_t at, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value |= uint64_t{static_cast<unsigned char>(bytes[at + i])} << (8 * i);
    }
    return value;
}

static std::optional<udc_content> read(std::string_view bytes);

/* The records that fill the bytes exactly. */
static std::optional<std::vector<udc_content>> read_run(std::string_view bytes) {
    std::vector<udc_content> records;
    while (!bytes.empty()) {
        size_t size = bytes.size() < 4 ? 0 : number(bytes, 0, 4);
        if (size == 0 || size > bytes.size()) {
            return std::nullopt;
        }
        std::optional<udc_content> record = read(bytes.substr(0, size));
        if (!record) {
            return std::nullopt;
        }
        records.push_back(*record);
        bytes.remove_prefix(size);
    }
    return records;
}

/* With as many strings as declared, or else with the most that leave the nested records whole. */
static bool read_strings_and_records(std::string_view bytes, uint32_t nested,
                                     udc_content& content) {
    std::vector<size_t> ends = {0};
    while (ends.size() <= content.declared_strings) {
        size_t nul = bytes.find('\0', ends.back());
        if (nul == std::string_view::npos) {
            break;
        }
        ends.push_back(nul + 1);
    }
    for (size_t strings = ends.size(); strings-- > 0;) {
        auto records = read_run(bytes.substr(ends[strings]));
        if (!records || records->size() != nested) {
            continue;
        }
        for (size_t i = 0; i < strings; i++) {
            content.strings.emplace_back(bytes.substr(ends[i], ends[i + 1] - ends[i] - 1));
        }
        content.records = std::move(*records);
        return true;
    }
    return false;
}

static std::optional<udc_content> read(std::string_view bytes) {
    if (bytes.size() < 32 || number(bytes, 0, 4) != bytes.size()) {
        return std::nullopt;
    }
    uint64_t counts[7];
    for (size_t i = 0; i < 7; i++) {
        counts[i] = number(bytes, 4 + 4 * i, 4);
    }
    if (32 + 4 * (counts[0] + counts[1]) + 8 * (counts[2] + counts[3] + counts[4]) > bytes.size()) {
        return std::nullopt;
    }
    size_t at = 32;
    auto next = [&](size_t width) {
        at += width;
        return number(bytes, at - width, width);
    };
    udc_content content;
    for (uint64_t i = 0; i < counts[0]; i++) {
        content.i32.push_back(static_cast<int32_t>(next(4)));
    }
    for (uint64_t i = 0; i < counts[1]; i++) {
        content.ui32.push_back(static_cast<uint32_t>(next(4)));
    }
    for (uint64_t i = 0; i < counts[2]; i++) {
        content.i64.push_back(static_cast<int64_t>(next(8)));
    }
    for (uint64_t i = 0; i < counts[3]; i++) {
        content.ui64.push_back(next(8));
    }
    for (uint64_t i = 0; i < counts[4]; i++) {
        content.d64.push_back(std::bit_cast<double>(next(8)));
    }
    content.declared_strings = static_cast<uint32_t>(counts[5]);
    if (!read_strings_and_records(bytes.substr(at), static_cast<uint32_t>(counts[6]), content)) {
        return std::nullopt;
    }
    return content;
}

std::optional<udc_content> read_udc(const void* bytes, size_t length) {
    return read({static_cast<const char*>(bytes), length});
}

std::optional<std::vector<udc_content>> read_udc_list(const void* bytes, size_t length) {
    return read_run({static_cast<const char*>(bytes), length});
}

template <typename T>
static void print(std::ostream& out, const char* name, const std::vector<T>& values) {
    if (values.empty()) {
        return;
    }
    out << name;
    for (const T& value : values) {
        out << ' ' << value;
    }
    out << "; ";
}

std::ostream& operator<<(std::ostream& out, const udc_content& content) {
    out << '{';
    print(out, "i32", content.i32);
    print(out, "ui32", content.ui32);
    print(out, "i64", content.i64);
    print(out, "ui64", content.ui64);
    print(out, "d64", content.d64);
    out << "strings ";
    for (const std::string& text : content.strings) {
        out << '"' << text << "\" ";
    }
    out << "of " << content.declared_strings;
    for (const udc_content& record : content.records) {
        out << "; " << record;
    }
    return out << '}';
}

std::string to_text(const udc_content& content) {
    std::ostringstream out;
    out << content;
    return out.str();
}
