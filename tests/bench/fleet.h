/* A simulated agent with twenty tests, whose values move as those of hosts do: most of them little
 * or not at all from one pass to the next. The same number makes the same values. */
#ifndef VINDRAL_FLEET_H
#define VINDRAL_FLEET_H

#include "protocol/record_layout.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

class simulated_agent {
public:
    static constexpr uint32_t tests = 20;

    explicit simulated_agent(uint32_t number) : state_(0x9e3779b97f4a7c15u * (number + 1)) {
        for (double& level : levels_) {
            level = 20 + 60 * random();
        }
    }

    /* The records of one pass of all tests. */
    void add_pass(int64_t time, std::string& block) {
        uint32_t test = 0;
        auto next = [&]() -> double& { return moved(levels_[test++]); };
        double load = next();
        add(block, {66, test, 1, 0}, time, {load / 20, load / 25, load / 30},
            "Load Average values are within acceptable limits\n");
        for (int i = 0; i < 2; i++) {
            double busy = next();
            add(block, {44, test, 1, 0}, time, {busy, busy / 4, 0, 100 - busy * 1.3, busy / 20},
                "CPU usage is within acceptable limits");
        }
        double used = std::floor(next() * 80);
        const double none = 18446744073709551616.0;
        add(block, {47, test, 1, 0}, time,
            {8000 - used, 8000, 2048, 2048, 300, 2000 + std::floor(used / 8), none, none},
            "Memory usage is within acceptable limits");
        for (int i = 0; i < 4; i++) {
            double gigabytes = next();
            add(block, {46, test, 1, 0}, time, {100, std::floor(gigabytes * 256) / 256},
                "Free space is within acceptable limits");
        }
        for (int i = 0; i < 2; i++) {
            auto bytes = static_cast<uint32_t>(next() * 1000);
            add(block, {38, test, 1, bytes, bytes / 500, 0, bytes / 2, bytes / 900, 0, 0}, time, {},
                "Network adapter: eth0 Statistics are within acceptable limits.");
        }
        for (int i = 0; i < 4; i++) {
            double ms = next();
            bool is_bad = random() < 0.0005;
            add(block, {48, test, 1, is_bad ? 2u : 0, is_bad ? 2u : 0}, time,
                {static_cast<float>(ms / 10)},
                is_bad ? "Number of lost packages: 2 / Max value: 1"
                       : "ICMP echo results are within acceptable limits");
        }
        for (int i = 0; i < 4; i++) {
            auto ms = static_cast<uint32_t>(next());
            char text[80];
            snprintf(text, sizeof text, "HTTP OK HTTP/1.1 200 OK - %.3f second response time",
                     ms / 1000.0);
            add(block, {49, test, 1, 0, ms, 200, 5120}, time, {}, text);
        }
        for (uint32_t i = 0; i < 2; i++) {
            double cpu = next();
            add(block, {43, test, 1, 1000 + i, 0}, time,
                {std::floor(cpu) / 4, std::floor(cpu * 4), 900}, "");
        }
    }

    /* The same number of results of five values, four of which use all their digits: shares of
     * a sum that itself varies. */
    void add_noisy_pass(int64_t time, std::string& block) {
        for (uint32_t test = 1; test <= tests; test++) {
            double sum = 5985 + std::floor(30 * random());
            double user = std::floor(300 + 3000 * random()), system = std::floor(1200 * random());
            double wait = std::floor(400 * random());
            add(block, {44, test, 1, 0}, time,
                {user / sum * 100, system / sum * 100, 0, (sum - user - system - wait) / sum * 100,
                 wait / sum * 100},
                "CPU usage is within acceptable limits");
        }
    }

    /* What every collection has besides. */
    static void add_inventories(int64_t time, std::string& block) {
        std::string names, mounts;
        for (int i = 0; i < 120; i++) {
            names += "process" + std::to_string(i) + "\t";
        }
        for (const char* each : {"/(/dev/sda1|ext4)\t", "/home(/dev/sda2|ext4)\t"}) {
            mounts += each;
        }
        add(block, {39, 0, 0}, time, {}, "eth0\teth1\t");
        add(block, {42, 0, 0}, time, {}, names);
        add(block, {45, 0, 0}, time, {}, mounts);
    }

private:
    double random() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<double>(state_ >> 11) / 9007199254740992.0;
    }
    double& moved(double& level) {
        if (random() < 0.7) {
            level = std::clamp(level + 2 * (random() - 0.5), 1.0, 99.0);
        }
        return level;
    }

    template <typename T>
    static void put(std::string& into, T value) {
        char bytes[sizeof value];
        memcpy(bytes, &value, sizeof value);
        into.append(bytes, sizeof value);
    }
    static void add(std::string& block, std::initializer_list<uint32_t> ui32, int64_t time,
                    std::initializer_list<double> d64, std::string_view message) {
        size_t text = message.empty() ? 0 : message.size() + 1;
        auto size = static_cast<uint32_t>(sizeof(protocol::record_header) + 4 * ui32.size() + 8 +
                                          8 * d64.size() + text);
        for (uint32_t each : {size, 0u, static_cast<uint32_t>(ui32.size()), 1u, 0u,
                              static_cast<uint32_t>(d64.size()), 1u, 0u}) {
            put(block, each);
        }
        for (uint32_t each : ui32) {
            put(block, each);
        }
        put(block, time);
        for (double each : d64) {
            put(block, each);
        }
        if (text > 0) {
            block.append(message).append(1, '\0');
        }
    }

    uint64_t state_;
    double levels_[tests];
};

#endif
