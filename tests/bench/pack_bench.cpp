/* What packing makes of results: bytes of each in a chunk, of each bucket in a roll-up, and the
 * processor time of packing and unpacking.
 *
 *   pack_bench [RECORDS_A_CHUNK]
 *
 * `noisy` are four values that use all their digits, shares of a sum that itself varies. */
#include "collector_test_support.h"
#include "store/pack.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>

static std::mt19937_64 noise(5);

static double normal(double mean, double deviation) {
    return std::max(0.0, std::normal_distribution<>(mean, deviation)(noise));
}

using maker = std::function<std::vector<double>()>;

static std::vector<double> shares() {
    double sum = std::uniform_int_distribution<>(5985, 6015)(noise);
    double user = std::floor(normal(1800, 500)), system = std::floor(normal(600, 200)),
           wait = std::floor(normal(200, 100));
    double idle = std::max(0.0, sum - user - system - wait);
    return {user / sum * 100, system / sum * 100, wait / sum * 100, idle / sum * 100};
}

static std::vector<double> tenths() {
    std::vector<double> values = shares();
    for (double& value : values) {
        value = std::round(value * 10) / 10;
    }
    return values;
}

static std::vector<double> loads() {
    static double load = 1;
    load = std::max(0.0, load * 0.9 + normal(0.1, 0.1));
    return {std::round(load * 120) / 100, std::round(load * 100) / 100,
            std::round(load * 90) / 100};
}

static std::vector<double> megabytes() {
    static double kilobytes = 8e6;
    kilobytes = std::floor(std::clamp(kilobytes + normal(5000, 5000) - 5000, 1e6, 1.6e7));
    return {kilobytes / 1024, 16384000 / 1024.0, 2000000 / 1024.0,
            std::floor(normal(900000, 50)) / 1024};
}

static std::vector<double> steady() {
    return {17, 0, 0, 100.0 / 3};
}

static double milliseconds_of(const std::function<void()>& work) {
    std::clock_t start = std::clock();
    int runs = 0;
    double ms = 0;
    for (; ms < 200; runs++) {
        work();
        ms = 1000.0 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    }
    return ms / runs;
}

static void measure_chunk(const char* name, const maker& make, size_t count) {
    std::vector<std::string> kept;
    std::vector<arrived_record> records;
    size_t raw = 0;
    for (size_t i = 0; i < count; i++) {
        int64_t time = 1780000000 + static_cast<int64_t>(i) * 60 + (noise() % 50 == 0 ? 1 : 0);
        kept.push_back(record_builder{.ui32 = {44, 7, 7, 0},
                                      .i64 = {time},
                                      .d64 = make(),
                                      .strings = {"CPU values are within acceptable limits\n"}}
                           .bytes());
        raw += kept.back().size();
    }
    for (size_t i = 0; i < count; i++) {
        records.push_back({1780000030 + static_cast<int64_t>(i * 60 + noise() % 3), kept[i]});
    }
    std::string packed;
    double pack_ms = milliseconds_of([&] { pack_chunk(records, packed); });
    size_t seen = 0;
    double unpack_ms = milliseconds_of(
        [&] { unpack_chunk(packed, [&](const arrived_record&) { return ++seen > 0; }); });
    printf("%-10s %6zu results in a chunk: %6.2f bytes each (raw %zu), packed in %.3f ms, unpacked "
           "in %.3f ms\n",
           name, count, static_cast<double>(packed.size()) / static_cast<double>(count),
           raw / count, pack_ms, unpack_ms);
}

static void measure_roll_up(const char* name, const maker& make, uint32_t width) {
    std::vector<bucket> day;
    for (uint32_t start = 0; start < 86400; start += width) {
        bucket b = {.start = start, .count = width / 60, .ok = width, .problem = 0, .values = {}};
        for (uint32_t i = 0; i < b.count; i++) {
            std::vector<double> values = make();
            b.values.resize(values.size());
            for (uint32_t v = 0; v < values.size(); v++) {
                value_summary& value = b.values[v];
                value.id = 4 + v;
                value.min = i == 0 ? values[v] : std::min(value.min, values[v]);
                value.max = i == 0 ? values[v] : std::max(value.max, values[v]);
                value.mean += values[v] / b.count;
                value.count++;
            }
        }
        day.push_back(b);
    }
    std::string packed;
    double pack_ms = milliseconds_of([&] { pack_roll_up(day, packed); });
    std::vector<bucket> unpacked;
    double unpack_ms = milliseconds_of([&] { unpack_roll_up(packed, unpacked); });
    printf("%-10s %6zu buckets of %u s: %6.2f bytes each, packed in %.3f ms, unpacked in %.3f ms\n",
           name, day.size(), width,
           static_cast<double>(packed.size()) / static_cast<double>(day.size()), pack_ms,
           unpack_ms);
}

int main(int argc, char** argv) {
    size_t count = argc > 1 ? strtoul(argv[1], nullptr, 10) : 60;
    const std::pair<const char*, maker> makers[] = {{"noisy", shares},
                                                    {"tenths", tenths},
                                                    {"loads", loads},
                                                    {"megabytes", megabytes},
                                                    {"steady", steady}};
    for (const auto& [name, make] : makers) {
        measure_chunk(name, make, count);
    }
    for (const auto& [name, make] : makers) {
        measure_roll_up(name, make, 300);
        measure_roll_up(name, make, 3600);
    }
    return 0;
}
