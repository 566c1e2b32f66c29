/* A packed piece of the store as a damaged file may hand it over: what the first byte says is the
 * kind, and its sum is made right, or nothing would ever get past it. And records as an agent may
 * send them, which have to come out of a chunk as they went in. */
#include "fuzz.h"
#include "protocol/record.h"
#include "store/pack.h"

#include <algorithm>
#include <bit>
#include <zlib.h>

struct kept_record {
    int64_t received;
    std::string record;
    bool operator==(const kept_record&) const = default;
};

static std::vector<kept_record> unpacked(std::string_view packed, bool& whole) {
    std::vector<kept_record> records;
    size_t bytes = 0;
    whole = unpack_chunk(packed, [&](const arrived_record& one) {
        require(one.record.size() >= 4 && length_of_record(one.record) == one.record.size());
        bytes += one.record.size();
        require(bytes <= chunk_max_bytes && records.size() < chunk_max_records);
        records.push_back({one.received, std::string(one.record)});
        return true;
    });
    return records;
}

static void check_round_trip(const std::vector<kept_record>& records) {
    std::vector<arrived_record> arrived;
    for (const kept_record& one : records) {
        arrived.push_back({one.received, one.record});
    }
    std::string packed;
    bool whole;
    require(pack_chunk(arrived, packed));
    require(unpacked(packed, whole) == records && whole);
}

static void check_chunk(std::string_view packed) {
    bool whole;
    std::vector<kept_record> records = unpacked(packed, whole);
    check_round_trip(records);
}

static void check_roll_up(std::string_view packed) {
    std::vector<bucket> buckets, again;
    if (!unpack_roll_up(packed, buckets)) {
        require(buckets.empty());
        return;
    }
    require(buckets.size() <= roll_up_max_buckets);
    std::string once, twice;
    pack_roll_up(buckets, once);
    require(unpack_roll_up(once, again) && again.size() == buckets.size());
    for (size_t i = 0; i < again.size(); i++) {
        require(again[i].start == buckets[i].start && again[i].count == buckets[i].count &&
                again[i].ok == buckets[i].ok && again[i].problem == buckets[i].problem &&
                again[i].values.size() == buckets[i].values.size());
        for (size_t v = 0; v < again[i].values.size(); v++) {
            const value_summary &have = again[i].values[v], &want = buckets[i].values[v];
            require(have.id == want.id && have.count == want.count);
            require(!(have.min <= have.max) || (have.min <= have.mean && have.mean <= have.max));
        }
    }
    /* What was shortened once stays as it is. */
    pack_roll_up(again, twice);
    std::vector<bucket> third;
    require(unpack_roll_up(twice, third) && third.size() == again.size());
    for (size_t i = 0; i < again.size(); i++) {
        for (size_t v = 0; v < again[i].values.size(); v++) {
            require(std::bit_cast<uint64_t>(third[i].values[v].min) ==
                        std::bit_cast<uint64_t>(again[i].values[v].min) &&
                    std::bit_cast<uint64_t>(third[i].values[v].max) ==
                        std::bit_cast<uint64_t>(again[i].values[v].max));
        }
    }
}

/* Each record as often as makes a shape, with something changed in it from time to time. */
static void check_records(std::string_view block) {
    std::vector<kept_record> records;
    size_t bytes = 0;
    for (block_reader reader(block); reader.next();) {
        if (!reader.good) {
            continue;
        }
        std::string record(reader.current.raw);
        bytes += 16 * record.size();
        if (bytes > chunk_max_bytes) {
            break;
        }
        for (size_t i = 0; i < 16; i++) {
            size_t at = record_header_size + 4 + 8 * (i / 2);
            if (at < record.size()) {
                record[at] = static_cast<char>(record[at] + static_cast<char>(i));
            }
            records.push_back({static_cast<int64_t>(i * i), record});
        }
    }
    check_round_trip(records);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    auto sum = static_cast<uint32_t>(crc32_z(0, data, size));
    std::string packed = bytes;
    packed.append(reinterpret_cast<const char*>(&sum), sizeof(sum));
    require_no_growth([&] {
        check_chunk(packed);
        check_roll_up(packed);
        check_records(bytes);
    });
    return 0;
}
