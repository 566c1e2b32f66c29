/* Reads result records for tests, byte by byte and without a line of the writer's code, so that the
 * two cannot share a mistake. */
#ifndef VINDRAL_UDC_READER_H
#define VINDRAL_UDC_READER_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

struct udc_content {
    std::vector<int32_t> i32;
    std::vector<uint32_t> ui32;
    std::vector<int64_t> i64;
    std::vector<uint64_t> ui64;
    std::vector<double> d64;
    uint32_t declared_strings = 0; /* strings.size() may be less */
    std::vector<std::string> strings;
    std::vector<udc_content> records;

    bool operator==(const udc_content&) const = default;
};

/* The record that fills the `length` bytes exactly; nothing when they are no whole record. */
std::optional<udc_content> read_udc(const void* bytes, size_t length);

/* A run of records as a checker hands over; nothing when it is not made of whole records. */
std::optional<std::vector<udc_content>> read_udc_list(const void* bytes, size_t length);

/* On one line: {i32 1; ui32 66 7; d64 0.5; strings "text" of 2; {...}} */
std::string to_text(const udc_content& content);
std::ostream& operator<<(std::ostream& out, const udc_content& content);

#endif
