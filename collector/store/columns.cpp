#include "store/columns.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <zlib.h>

static constexpr uint64_t fold(int64_t value) {
    return (static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63);
}

static constexpr int64_t unfold(uint64_t value) {
    return static_cast<int64_t>((value >> 1) ^ (~(value & 1) + 1));
}

static uint64_t word(int64_t value) {
    return static_cast<uint64_t>(value);
}

static uint32_t crc_of(std::string_view bytes) {
    return static_cast<uint32_t>(
        crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

static constexpr size_t crc_size = 4, planes = 8;
enum plane_kind : unsigned { plane_zero, plane_text, plane_noise };
enum whole_kind : uint8_t { whole_above, whole_steps };
enum real_kind : uint8_t { real_bits, real_scaled, real_digits = 14 };

/* By which whole numbers are divided: decimals as people and kernels write them, and kilobytes told
 * in larger units. */
static constexpr std::array<double, 13> scales = {1,   1e1, 1e2, 1e3,  1e4,     1e5,       1e6,
                                                  1e7, 1e8, 1e9, 1024, 1048576, 1073741824};
static_assert(real_scaled + scales.size() == real_digits);

/* ---- deflate ---- */

/* Empty when it would not be shorter. */
static std::string deflated(const std::string& text) {
    /* Tables no larger than the text needs: most are small, and setting up large ones costs more
     * than the rest. */
    int window = std::clamp(static_cast<int>(std::bit_width(text.size())), 9, 15);
    z_stream stream = {};
    if (deflateInit2(&stream, 6, Z_DEFLATED, -window, std::min(window - 5, 9),
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        return {};
    }
    /* The largest are records of 32 MB, most of them much shorter then. */
    constexpr size_t usual = 128 << 10;
    std::string out(std::min(text.size(), usual), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    int result = Z_OK;
    while (result == Z_OK) {
        size_t filled = stream.total_out;
        if (filled == out.size()) {
            out.resize(std::min(text.size(), 2 * filled));
        }
        stream.next_out = reinterpret_cast<Bytef*>(out.data() + filled);
        stream.avail_out = static_cast<uInt>(out.size() - filled);
        result = deflate(&stream, Z_FINISH);
        if (result == Z_OK && out.size() == text.size()) {
            break;
        }
    }
    bool shorter = result == Z_STREAM_END && stream.total_out < text.size();
    out.resize(shorter ? stream.total_out : 0);
    deflateEnd(&stream);
    return out;
}

/* To exactly as many bytes as `out` has. */
static bool inflate_into(std::string_view packed, std::string& out) {
    z_stream stream = {};
    if (inflateInit2(&stream, -15) != Z_OK) {
        return false;
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    stream.avail_in = static_cast<uInt>(packed.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    bool good =
        inflate(&stream, Z_FINISH) == Z_STREAM_END && stream.avail_in == 0 && stream.avail_out == 0;
    inflateEnd(&stream);
    return good;
}

/* ---- writing ---- */

void column_writer::number(uint64_t value) {
    for (; value >= 0x80; value >>= 7) {
        text_.push_back(static_cast<char>(value | 0x80));
    }
    text_.push_back(static_cast<char>(value));
}

void column_writer::folded(int64_t value) {
    number(fold(value));
}

/* Whether the bytes look random: hardly more pairs of them are alike than would be. Among other
 * bytes they would take more room than they do alone. */
static bool looks_random(std::string_view bytes) {
    if (bytes.size() < 16) {
        return false;
    }
    std::array<uint32_t, 256> counts = {};
    for (char byte : bytes) {
        counts[static_cast<unsigned char>(byte)]++;
    }
    double alike = 0, expected = std::pow(static_cast<double>(bytes.size()), 2) / 256;
    for (uint32_t count : counts) {
        alike += static_cast<double>(count) * (count - 1.0);
    }
    return alike <= expected + 2 * std::sqrt(2 * expected);
}

void column_writer::column(const std::vector<uint64_t>& words) {
    size_t kinds_at = text_.size();
    text_.append(2, '\0');
    unsigned kinds = 0;
    uint64_t used = 0;
    for (uint64_t each : words) {
        used |= each;
    }
    std::string plane;
    for (size_t i = 0; i < planes; i++) {
        if ((used >> (8 * i) & 0xff) == 0) { /* most of them */
            continue;
        }
        plane.resize(words.size());
        for (size_t at = 0; at < words.size(); at++) {
            plane[at] = static_cast<char>(words[at] >> (8 * i));
        }
        bool random = looks_random(plane);
        (random ? noise_ : text_) += plane;
        kinds |= (random ? plane_noise : plane_text) << (2 * i);
    }
    text_[kinds_at] = static_cast<char>(kinds);
    text_[kinds_at + 1] = static_cast<char>(kinds >> 8);
}

void column_writer::whole(const std::vector<int64_t>& values) {
    if (values.empty()) {
        return;
    }
    int64_t lowest = *std::min_element(values.begin(), values.end());
    unsigned above = 0, steps = 0; /* bits that it takes either way */
    for (size_t i = 0; i < values.size(); i++) {
        above += static_cast<unsigned>(std::bit_width(word(values[i]) - word(lowest)));
        if (i > 0) {
            uint64_t step = word(values[i]) - word(values[i - 1]);
            steps += static_cast<unsigned>(std::bit_width(fold(static_cast<int64_t>(step))));
        }
    }
    words_.clear();
    if (above <= steps) {
        text_.push_back(whole_above);
        folded(lowest);
        for (int64_t value : values) {
            words_.push_back(word(value) - word(lowest));
        }
    } else {
        text_.push_back(whole_steps);
        folded(values.front());
        for (size_t i = 1; i < values.size(); i++) {
            words_.push_back(fold(static_cast<int64_t>(word(values[i]) - word(values[i - 1]))));
        }
    }
    column(words_);
}

/* The whole number that divided by `scale` is the value to the bit. */
static bool find_step(double value, double scale, int64_t most, int64_t& step) {
    double product = value * scale;
    if (!(std::fabs(product) <= static_cast<double>(most))) {
        return false; /* no number, too */
    }
    step = std::llround(product);
    return std::bit_cast<uint64_t>(static_cast<double>(step) / scale) ==
           std::bit_cast<uint64_t>(value);
}

/* Writes them as whole numbers in equal steps, none above `most`, when they are such. */
bool column_writer::stepped(const std::vector<double>& values, int64_t most) {
    for (size_t i = 0; i < scales.size(); i++) {
        steps_.resize(values.size());
        size_t at = 0;
        while (at < values.size() && find_step(values[at], scales[i], most, steps_[at])) {
            at++;
        }
        if (at == values.size()) {
            text_.push_back(static_cast<char>(real_scaled + i));
            whole(steps_);
            return true;
        }
    }
    return false;
}

void column_writer::bits(const std::vector<double>& values) {
    text_.push_back(real_bits);
    words_.clear();
    uint64_t before = std::bit_cast<uint64_t>(values.front());
    text_.append(reinterpret_cast<const char*>(&before), sizeof(before));
    for (size_t i = 1; i < values.size(); i++) {
        auto now = std::bit_cast<uint64_t>(values[i]);
        words_.push_back(now ^ before);
        before = now;
    }
    column(words_);
}

void column_writer::real(const std::vector<double>& values) {
    if (!values.empty() && !stepped(values, int64_t{1} << 53)) {
        bits(values);
    }
}

/* n times ten to the power of e. */
static double decimal(int64_t n, int64_t e) {
    static constexpr double powers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                        1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                        1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    constexpr int64_t most = int64_t{1} << 53;
    if (-most < n && n < most && -22 <= e && e <= 22) { /* all of this is exact */
        return e < 0 ? static_cast<double>(n) / powers[-e] : static_cast<double>(n) * powers[e];
    }
    char text[64];
    snprintf(text, sizeof(text), "%lldE%lld", static_cast<long long>(n), static_cast<long long>(e));
    return strtod(text, nullptr);
}

/* Six digits of a finite number. */
static void find_digits(double value, int64_t& n, int64_t& e) {
    char text[32]; /* -d.ddddde+ddd */
    *std::to_chars(text, text + sizeof(text) - 1, value, std::chars_format::scientific, 5).ptr =
        '\0';
    char* end = text;
    n = 0;
    for (; *end != '\0' && *end != 'e'; end++) {
        if (*end >= '0' && *end <= '9') {
            n = 10 * n + (*end - '0');
        }
    }
    e = *end == '\0' ? 0 : atoi(end + 1) - 5;
    n = text[0] == '-' ? -n : n;
    e = n == 0 ? 0 : e;
}

void column_writer::real_shortened(std::vector<double>& values) {
    if (values.empty() || stepped(values, 9999999)) {
        return;
    }
    size_t changes = 1;
    bool finite = true;
    for (size_t i = 0; i < values.size(); i++) {
        finite = finite && std::isfinite(values[i]);
        changes +=
            i > 0 && std::bit_cast<uint64_t>(values[i]) != std::bit_cast<uint64_t>(values[i - 1]);
    }
    if (!finite || changes <= values.size() / 8 + 1) {
        bits(values);
        return;
    }
    std::vector<int64_t> exponents(values.size());
    steps_.resize(values.size());
    for (size_t i = 0; i < values.size(); i++) {
        find_digits(values[i], steps_[i], exponents[i]);
        values[i] = decimal(steps_[i], exponents[i]);
    }
    text_.push_back(real_digits);
    whole(steps_);
    whole(exponents);
}

void column_writer::seal(uint8_t kind, std::string& packed) const {
    std::string shorter = deflated(text_);
    column_writer head;
    head.number(text_.size());
    head.number(shorter.size());
    packed.clear();
    packed.reserve(1 + head.text_.size() + (shorter.empty() ? text_ : shorter).size() +
                   noise_.size() + crc_size);
    packed.push_back(static_cast<char>(kind));
    packed += head.text_;
    packed += shorter.empty() ? text_ : shorter;
    packed += noise_;
    uint32_t sum = crc_of(packed);
    packed.append(reinterpret_cast<const char*>(&sum), crc_size);
}

/* ---- reading ---- */

static bool take_number(std::string_view& bytes, uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; shift < 64 && !bytes.empty(); shift += 7) {
        auto byte = static_cast<unsigned char>(bytes.front());
        bytes.remove_prefix(1);
        value |= uint64_t{byte & 0x7fu} << shift;
        if (byte < 0x80) {
            return shift < 63 || byte <= 1;
        }
    }
    return false;
}

bool column_reader::open(std::string_view packed, uint8_t kind, size_t most) {
    text_ = noise_ = {};
    if (packed.size() <= crc_size || static_cast<uint8_t>(packed[0]) != kind) {
        return false;
    }
    uint32_t sum;
    memcpy(&sum, packed.data() + packed.size() - crc_size, crc_size);
    packed.remove_suffix(crc_size);
    if (sum != crc_of(packed)) {
        return false;
    }
    packed.remove_prefix(1);
    uint64_t size, shorter;
    if (!take_number(packed, size) || !take_number(packed, shorter) || size > most ||
        (shorter == 0 ? size : shorter) > packed.size()) {
        return false;
    }
    if (shorter == 0) {
        text_ = packed.substr(0, size);
        noise_ = packed.substr(size);
        return true;
    }
    if (size / 1032 > shorter) { /* no more comes of a deflated byte */
        return false;
    }
    inflated_.resize(size);
    if (!inflate_into(packed.substr(0, shorter), inflated_)) {
        return false;
    }
    text_ = inflated_;
    noise_ = packed.substr(shorter);
    return true;
}

bool column_reader::number(uint64_t& value, uint64_t most) {
    return take_number(text_, value) && value <= most;
}

bool column_reader::folded(int64_t& value) {
    uint64_t folded;
    if (!number(folded)) {
        return false;
    }
    value = unfold(folded);
    return true;
}

bool column_reader::text(size_t bytes, std::string_view& text) {
    if (bytes > text_.size()) {
        return false;
    }
    text = text_.substr(0, bytes);
    text_.remove_prefix(bytes);
    return true;
}

bool column_reader::string(std::string_view& text) {
    size_t length = text_.find('\0');
    if (length == std::string_view::npos) {
        return false;
    }
    text = text_.substr(0, length);
    text_.remove_prefix(length + 1);
    return true;
}

bool column_reader::column(size_t count, std::vector<uint64_t>& words) {
    std::string_view kinds_text;
    if (!text(2, kinds_text)) {
        return false;
    }
    auto kinds = static_cast<unsigned>(static_cast<unsigned char>(kinds_text[0]) |
                                       (static_cast<unsigned char>(kinds_text[1]) << 8));
    words.assign(count, 0);
    for (size_t i = 0; i < planes; i++) {
        unsigned kind = (kinds >> (2 * i)) & 3;
        if (kind == plane_zero) {
            continue;
        }
        std::string_view& from = kind == plane_noise ? noise_ : text_;
        if (kind > plane_noise || from.size() < count) {
            return false;
        }
        for (size_t at = 0; at < count; at++) {
            words[at] |= uint64_t{static_cast<unsigned char>(from[at])} << (8 * i);
        }
        from.remove_prefix(count);
    }
    return true;
}

bool column_reader::whole(size_t count, std::vector<int64_t>& values) {
    values.clear();
    if (count == 0) {
        return true;
    }
    std::string_view how;
    int64_t first;
    if (!text(1, how) || static_cast<uint8_t>(how[0]) > whole_steps || !folded(first)) {
        return false;
    }
    bool steps = static_cast<uint8_t>(how[0]) == whole_steps;
    if (!column(count - steps, words_)) {
        return false;
    }
    values.reserve(count);
    if (steps) {
        values.push_back(first);
    }
    for (uint64_t told : words_) {
        values.push_back(static_cast<int64_t>(steps ? word(values.back()) + word(unfold(told))
                                                    : word(first) + told));
    }
    return true;
}

bool column_reader::real(size_t count, std::vector<double>& values) {
    values.clear();
    if (count == 0) {
        return true;
    }
    std::string_view how, first;
    if (!text(1, how) || static_cast<uint8_t>(how[0]) > real_digits) {
        return false;
    }
    auto kind = static_cast<uint8_t>(how[0]);
    if (kind == real_bits) {
        if (!text(sizeof(uint64_t), first) || !column(count - 1, words_)) {
            return false;
        }
        values.reserve(count);
        uint64_t now;
        memcpy(&now, first.data(), sizeof(now));
        values.push_back(std::bit_cast<double>(now));
        for (uint64_t told : words_) {
            now ^= told;
            values.push_back(std::bit_cast<double>(now));
        }
        return true;
    }
    if (!whole(count, steps_) || (kind == real_digits && !whole(count, exponents_))) {
        return false;
    }
    values.reserve(count);
    for (size_t i = 0; i < count; i++) {
        values.push_back(kind == real_digits
                             ? decimal(steps_[i], exponents_[i])
                             : static_cast<double>(steps_[i]) / scales[kind - real_scaled]);
    }
    return true;
}
