/* Arrays that grow, on malloc memory: what comes in pieces whose number nobody knows before.
 *
 * Nothing is ever thrown: without memory, or when it would pass its limit, an array stays as it was
 * and the caller is told. Elements are moved as bytes and never destroyed, so they are plain data.
 * No lock of its own: the caller guards what several threads use. */
#ifndef VINDRAL_BYTES_H
#define VINDRAL_BYTES_H

#include "guards.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

/* Gives a malloc'd array, which may be null, room for exactly `count` elements, 1 at least; it may
 * move. False without memory: the array is as it was. For memory that belongs to a structure of
 * pointers; what grows for itself is a growing<T>. */
template <typename T>
bool resize_array(T*& array, size_t count) {
    static_assert(std::is_trivially_copyable_v<T>);
    void* moved = count <= SIZE_MAX / sizeof(T)
                      ? realloc(array, (count > 0 ? count : 1) * sizeof(T))
                      : nullptr;
    if (moved == nullptr) {
        return false;
    }
    array = static_cast<T*>(moved);
    return true;
}
template <typename T>
bool resize_array(heap<T>& array, size_t count) {
    T* moved = array.release();
    bool resized = resize_array(moved, count);
    array.reset(moved);
    return resized;
}

/* An array that owns its memory. Its room doubles whenever it is used up, so that filling it takes
 * time in proportion to what it holds. */
template <typename T>
class growing {
public:
    /* `least` elements is the room it begins with, `limit` what it may ever have room for. */
    explicit growing(size_t least = 0, size_t limit = SIZE_MAX) : least_(least), limit_(limit) {}
    growing(growing&& other) noexcept
        : data_(std::move(other.data_)), size_(std::exchange(other.size_, 0)),
          room_(std::exchange(other.room_, 0)), least_(other.least_), limit_(other.limit_) {}
    growing& operator=(growing&& other) noexcept {
        data_ = std::move(other.data_);
        size_ = std::exchange(other.size_, 0);
        room_ = std::exchange(other.room_, 0);
        least_ = other.least_;
        limit_ = other.limit_;
        return *this;
    }

    T* data() const { return data_.get(); } /* null until something was reserved */
    size_t size() const { return size_; }
    size_t room() const { return room_; }
    bool is_empty() const { return size_ == 0; }
    T* begin() const { return data(); }
    T* end() const { return data() + size_; }
    T& operator[](size_t at) const { return data()[at]; }

    /* Makes room for `more` elements behind the last one. False when that passes the limit, and
     * without memory. */
    bool reserve(size_t more) {
        if (more <= room_ - size_) {
            return true;
        }
        if (more > limit_ - size_) {
            return false;
        }
        size_t twice = room_ <= limit_ / 2 ? 2 * room_ : limit_;
        size_t wanted = std::min(std::max({size_ + more, twice, least_}), limit_);
        if (!resize_array(data_, wanted)) {
            return false;
        }
        room_ = wanted;
        return true;
    }

    /* Makes the room as large as this, whatever the limit; no less than what is there. False
     * without memory. */
    bool set_room(size_t room) {
        if (!resize_array(data_, room)) {
            return false;
        }
        room_ = room;
        return true;
    }

    /* Counts elements that were written at end(), within the room. */
    void added(size_t count) { size_ += count; }

    /* `values` lie outside of the array. */
    bool append(const T* values, size_t count) {
        if (!reserve(count)) {
            return false;
        }
        if (count > 0) {
            memcpy(end(), values, count * sizeof(T));
        }
        size_ += count;
        return true;
    }
    bool append(const T& value) {
        T copy = value; /* which may lie in the array */
        return append(&copy, 1);
    }

    /* Writes a zero behind the last element, which does not count: text for those who want a NUL.
     * False as reserve(1). */
    bool terminate() {
        if (!reserve(1)) {
            return false;
        }
        *end() = T{};
        return true;
    }

    /* Drops elements from the front, `count` of those there are; the room stays. */
    void drop_front(size_t count) {
        size_ -= count;
        if (size_ > 0 && count > 0) {
            memmove(data(), data() + count, size_ * sizeof(T));
        }
    }

    /* Keeps the first `size` of the elements there are; the room stays. */
    void cut(size_t size) { size_ = size; }

    /* Hands the memory over (null when nothing was ever reserved) and begins anew. */
    heap<T> take() {
        size_ = room_ = 0;
        return std::move(data_);
    }

    /* The same for a caller who frees with free(). */
    T* release() { return take().release(); }

private:
    heap<T> data_;
    size_t size_ = 0, room_ = 0;
    size_t least_, limit_;
};

using bytes = growing<char>;

#endif
