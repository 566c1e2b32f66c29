/* An engine on a directory of its own, opened before each test. */
#ifndef KEPT_ENGINE_H
#define KEPT_ENGINE_H

#include "store/engine.h"

#include "collector_test_support.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

using strings = std::vector<std::string>;

inline const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct kept_engine : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state";
    strings told; /* by the engine */
    std::unique_ptr<engine> e;
    std::string error;

    void SetUp() override { open(); }
    void open() {
        e.reset();
        e = open_engine({state, 30, [this](const std::string& text) { told.push_back(text); }},
                        error);
        ASSERT_TRUE(e) << error;
    }
    std::unique_ptr<result_reader> reader() {
        std::unique_ptr<result_reader> opened = open_reader(state, error);
        EXPECT_TRUE(opened) << error;
        return opened;
    }
    /* In one transaction. */
    template <typename Do>
    void within(Do actions) {
        ASSERT_TRUE(e->begin()) << e->reason();
        actions();
        ASSERT_TRUE(e->commit()) << e->reason();
    }
};

#endif
