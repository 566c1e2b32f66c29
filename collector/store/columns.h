/* Columns of numbers as bytes, for what is packed (pack.h): its format is described here, and what
 * stands in it there.
 *
 * A PIECE is
 *
 *   a byte      what it is and in which version
 *   a number    bytes of the text, inflated
 *   a number    bytes of the text as it stands here, deflated (RFC 1951); 0: it is not deflated
 *   bytes       the text: all that is written here in turn, but for the noise
 *   bytes       the noise: bytes that nothing would make smaller, in turn
 *   4 bytes     CRC-32 of all before it
 *
 * All is little-endian. A NUMBER is written by seven bits a byte, the lowest first, each byte but
 * the last with its highest bit set. Where a number may be below zero it is folded: 0, -1, 1, -2,
 * ... become 0, 1, 2, 3, ...
 *
 * A COLUMN is a list of 64-bit words whose length the reader knows. It is cut into its bytes: the
 * lowest bytes of all words, then the next higher ones. Two bytes tell of these eight planes, two
 * bits for each, the lowest for the lowest: 0 all its bytes are 0, and none stands there; 1 they
 * stand in the text; 2 they stand in the noise. The planes follow.
 *
 * WHOLE NUMBERS are a byte for how (0 or 1), a folded number, and a column: (0) what each is above
 * that number; (1) the number is the first one, and each that follows is told as the folded
 * difference to the one before. Both modulo 2^64. Of an empty list nothing is written.
 *
 * REAL NUMBERS are a byte for how, and
 *   0        eight bytes, the bits of the first one, and a column: of each that follows, the bits
 *            that differ from the one before
 *   1 to 13  whole numbers; each divided by 1, 10, ... 10^9, 2^10, 2^20, 2^30 is the real one
 *   14       whole numbers, and whole numbers for the exponents: each is the decimal number, n
 * times ten to the power of e, that it says, in the nearest real number Of an empty list nothing is
 * written. */
#ifndef VINDRAL_COLLECTOR_COLUMNS_H
#define VINDRAL_COLLECTOR_COLUMNS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class column_writer {
public:
    void number(uint64_t value);
    void folded(int64_t value);
    void text(std::string_view bytes) { text_ += bytes; }

    void whole(const std::vector<int64_t>& values);
    void real(const std::vector<double>& values);
    /* Keeps six digits where the list is neither of numbers with at most seven, as they are counted
     * or measured in steps, nor nearly constant. `values` become what a reader gets. */
    void real_shortened(std::vector<double>& values);

    /* The piece, in place of what was in `packed`. */
    void seal(uint8_t kind, std::string& packed) const;

private:
    void column(const std::vector<uint64_t>& words);
    bool stepped(const std::vector<double>& values, int64_t most);
    void bits(const std::vector<double>& values);

    std::string text_, noise_;
    std::vector<int64_t> steps_;
    std::vector<uint64_t> words_;
};

/* Reads what a column_writer wrote. Once something was damaged every call returns false. */
class column_reader {
public:
    /* False when it is not a whole piece of that kind, or has a text of more than `most` bytes. The
     * bytes have to stay: what is read are views of them, or of what this keeps. */
    bool open(std::string_view packed, uint8_t kind, size_t most);

    bool number(uint64_t& value, uint64_t most = UINT64_MAX);
    bool folded(int64_t& value);
    bool text(size_t bytes, std::string_view& text);
    /* Up to a NUL, which is passed over. */
    bool string(std::string_view& text);
    bool whole(size_t count, std::vector<int64_t>& values);
    bool real(size_t count, std::vector<double>& values);

    /* Bytes of the text that are left. */
    std::string_view rest() const { return text_; }
    /* Whether all was read. */
    bool at_end() const { return text_.empty() && noise_.empty(); }

private:
    bool column(size_t count, std::vector<uint64_t>& words);

    std::string inflated_;
    std::string_view text_, noise_;
    std::vector<uint64_t> words_;
    std::vector<int64_t> steps_, exponents_;
};

#endif
