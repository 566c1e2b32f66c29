/* Reading the typed result records of which a block is made; record_layout.h tells how they lie,
 * and record_types.h what is in them. 64-bit values lie at any address.
 *
 * Everything here is a view into the caller's bytes; nothing is copied. Work and memory are bounded
 * by the number of bytes given, whatever the counts in them claim. */
#ifndef VINDRAL_PROTOCOL_RECORD_H
#define VINDRAL_PROTOCOL_RECORD_H

#include "protocol/record_layout.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

/* The values of one type. */
template <typename T>
struct value_array {
    const char* bytes = nullptr;
    size_t count = 0;

    size_t size() const { return count; }
    T operator[](size_t i) const {
        T value;
        memcpy(&value, bytes + i * sizeof(T), sizeof(T));
        return value;
    }
};

/* A run of strings, or of records in a record, as it lies in the bytes: nothing is kept for each of
 * them, because a small body may unpack to millions. Going through them from front to back costs a
 * step for each, by iterator or by rising index; an index below the last one asked for begins at
 * the front again. The place of the last one asked for is kept, so that two threads must not use
 * the same list. */
template <size_t (*length)(std::string_view), size_t trailer>
class view_list {
public:
    view_list() = default;
    view_list(std::string_view bytes, size_t count) : bytes_(bytes), count_(count) {}

    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }

    std::string_view operator[](size_t i) const {
        if (i < at_) {
            at_ = offset_ = 0;
        }
        for (; at_ < i; at_++) {
            offset_ += length(bytes_.substr(offset_)) + trailer;
        }
        return bytes_.substr(offset_, length(bytes_.substr(offset_)));
    }

    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = std::string_view;
        using difference_type = std::ptrdiff_t;
        using pointer = const std::string_view*;
        using reference = std::string_view;

        iterator() = default;
        iterator(std::string_view rest, size_t left) : rest_(rest), left_(left) { find(); }
        std::string_view operator*() const { return rest_.substr(0, length_); }
        iterator& operator++() {
            rest_.remove_prefix(length_ + trailer);
            left_--;
            find();
            return *this;
        }
        iterator operator++(int) {
            iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const iterator& other) const { return left_ == other.left_; }

    private:
        void find() { length_ = left_ > 0 ? length(rest_) : 0; }
        std::string_view rest_;
        size_t left_ = 0, length_ = 0;
    };
    iterator begin() const { return {bytes_, count_}; }
    iterator end() const { return {}; }

private:
    std::string_view bytes_;
    size_t count_ = 0;
    mutable size_t at_ = 0, offset_ = 0; /* the last one asked for by index */
};

inline size_t length_of_string(std::string_view bytes) {
    return bytes.find('\0');
}
inline size_t length_of_record(std::string_view bytes) {
    uint32_t size;
    memcpy(&size, bytes.data(), sizeof(size));
    return size;
}
using string_list = view_list<length_of_string, 1>;
using record_list = view_list<length_of_record, 0>;

struct record {
    std::string_view raw; /* all bytes of the record; valid as long as the caller's bytes are */
    value_array<int32_t> i32;
    value_array<uint32_t> ui32;
    value_array<int64_t> i64;
    value_array<uint64_t> ui64;
    value_array<double> d64;
    uint32_t declared_strings = 0; /* strings.size() or more */
    string_list strings;           /* without their NUL; any bytes, never empty */
    record_list nested;            /* each a whole record that decode_record() accepts */

    uint32_t type() const { return ui32.size() > 0 ? ui32[0] : 0; }
};

enum {
    record_header_size = sizeof(protocol::record_header),
    record_max_depth = 16, /* levels of records in records */
    /* The largest that agents make is a table of SNMP: 16 MB of text in 262,144 cells, which have
     * eight bytes besides. */
    record_max_size = 32 << 20
};

/* Decodes the record that fills `bytes` exactly, and checks the records nested in it. On failure
 * returns false with the reason, and `r` holds nothing of use. Allocates nothing but a reason. */
bool decode_record(std::string_view bytes, record& r, std::string& reason);

/* Walks a block from front to back:
 *
 *   for (block_reader reader(block); reader.next();) {
 *       if (reader.good) ... reader.current ...
 *       else ... reader.bytes bytes at reader.offset are no record: reader.reason ...
 *   }
 *
 * A record that is wrong inside is passed over; where the size itself makes no sense, the rest of
 * the block is one piece that is no record. */
class block_reader {
public:
    explicit block_reader(std::string_view block) : block_(block) {}
    bool next();

    bool good = false;
    record current;     /* when good */
    size_t offset = 0;  /* where the piece begins in the block */
    size_t bytes = 0;   /* its length */
    std::string reason; /* when not good */

private:
    std::string_view block_;
};

#endif
