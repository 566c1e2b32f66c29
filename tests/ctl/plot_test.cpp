#include "ctl/plot.h"
#include "ctl/text.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <sstream>

namespace {

constexpr int64_t noon = 1777636800; /* 2026-05-01T12:00:00Z */

struct plot_test : testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }

    /* Points of a minute, from noon on. */
    static plot_series points(std::vector<double> mean, double around = 0) {
        plot_series all;
        all.from = noon;
        all.to = noon + 60 * static_cast<int64_t>(mean.size());
        all.resolution = 60;
        plot_curve curve{"load", "", {}, mean, {}};
        for (size_t i = 0; i < mean.size(); i++) {
            all.time.push_back(noon + 60 * static_cast<int64_t>(i));
            all.ok.push_back(60);
            all.problem.push_back(0);
            all.unknown.push_back(0);
            curve.min.push_back(mean[i] - around);
            curve.max.push_back(mean[i] + around);
        }
        all.curves.push_back(curve);
        return all;
    }

    static std::vector<std::string> lines(const plot_series& all, size_t rows, const screen& on) {
        std::istringstream text(plot_text(all, all.curves[0], rows, on));
        std::vector<std::string> found;
        for (std::string line; std::getline(text, line);) {
            EXPECT_LE(display_width(line), on.picture_width()) << line;
            found.push_back(line);
        }
        return found;
    }

    static constexpr screen ascii{.width = 47, .ascii = true, .color = false};
    static constexpr screen braille{.width = 47, .ascii = false, .color = false};
};

} // namespace

TEST_F(plot_test, a_rising_line) {
    std::vector<double> values;
    for (int i = 0; i < 40; i++) {
        values.push_back(i * 10.0 / 39);
    }
    std::vector<std::string> found = lines(points(values), 5, ascii);
    ASSERT_EQ(found.size(), 9u);
    EXPECT_EQ(found[0], "load: lowest 0, mean 5, highest 10");
    EXPECT_EQ(found[1].substr(0, 7), "   10 +");
    EXPECT_EQ(found[5].substr(0, 8), "    0 +*");
    EXPECT_EQ(found[1].back(), '*');
    EXPECT_EQ(found[1].size(), 47u);
    size_t before = 1000;
    for (size_t row = 1; row <= 5; row++) { /* down, and to the left */
        size_t first = found[row].find('*');
        ASSERT_NE(first, std::string::npos);
        EXPECT_LT(first, before);
        before = first;
    }
    EXPECT_EQ(found[6].substr(0, 8), "      ++");
    EXPECT_EQ(found[6].size(), 47u);
    EXPECT_EQ(found[7], "state  " + std::string(40, '.'));
    EXPECT_NE(found[8].find("12:30"), std::string::npos);
}

TEST_F(plot_test, the_band_is_behind_the_line) {
    std::vector<std::string> found = lines(points(std::vector<double>(40, 50), 40), 11, ascii);
    size_t bands = 0, stars = 0;
    for (const std::string& line : found) {
        bands += line.find(":::::::::") != std::string::npos && line.find('*') == std::string::npos;
        stars += line.find("**********") != std::string::npos;
    }
    EXPECT_GE(bands, 7u);
    EXPECT_EQ(stars, 1u);
    for (const std::string& line : lines(points(std::vector<double>(40, 50)), 11, ascii)) {
        EXPECT_EQ(line.find("::"), std::string::npos) << "nothing lies between lowest and highest";
    }
}

TEST_F(plot_test, gaps_are_gaps) {
    std::vector<double> values(40, 5);
    for (size_t i = 10; i < 20; i++) {
        values[i] = NAN;
    }
    plot_series all = points(values);
    for (size_t i = 10; i < 20; i++) {
        all.ok[i] = 0;
    }
    for (size_t i = 30; i < 40; i++) {
        all.ok[i] = 0;
        (i < 35 ? all.problem : all.unknown)[i] = 60;
    }
    std::vector<std::string> found = lines(all, 5, ascii);
    std::string row;
    for (const std::string& line : found) {
        row = line.find("***") != std::string::npos ? line : row;
    }
    EXPECT_EQ(row.substr(7), std::string(10, '*') + std::string(10, ' ') + std::string(20, '*'));
    EXPECT_EQ(found[7], "state  .........." + std::string(10, ' ') + "..........!!!!!?????");
}

TEST_F(plot_test, results_that_are_far_apart_are_not_joined) {
    plot_series all = points(std::vector<double>(40, 5));
    all.resolution = 0;
    all.time.erase(all.time.begin() + 10, all.time.begin() + 30);
    for (std::vector<double>* each :
         {&all.curves[0].min, &all.curves[0].mean, &all.curves[0].max}) {
        each->resize(20);
    }
    std::string row;
    for (const std::string& line : lines(all, 5, ascii)) {
        row = line.find("***") != std::string::npos ? line : row;
    }
    EXPECT_EQ(row.substr(7), std::string(10, '*') + std::string(20, ' ') + std::string(10, '*'));
}

TEST_F(plot_test, braille_has_four_dots_a_row) {
    std::vector<double> values;
    for (int i = 0; i < 80; i++) {
        values.push_back(i % 2 == 0 ? 0 : 10);
    }
    std::string text;
    for (const std::string& line : lines(points(values), 4, braille)) {
        text += line + "\n";
    }
    /* Up on the right of each cell, down on its left. */
    EXPECT_NE(text.find("\xe2\xa2\xb8"), std::string::npos);
    EXPECT_NE(text.find("\xe2\xa1\x87"), std::string::npos);
    EXPECT_NE(text.find("\xe2\x94\xa4"), std::string::npos);
    EXPECT_EQ(text.find('*'), std::string::npos);
}

TEST_F(plot_test, odd_series_are_drawn_all_the_same) {
    for (const screen& on : {ascii, braille, screen{}, screen{.width = 20}}) {
        plot_series none = points({NAN, NAN});
        EXPECT_EQ(lines(none, 5, on), std::vector<std::string>{"load: no values"});
        plot_series no_time = points({1});
        no_time.to = no_time.from;
        EXPECT_EQ(lines(no_time, 5, on), std::vector<std::string>{"load: no values"});
        for (double value : {0.0, 1.0, -5.0, 1e300, -1e300, 1e-300, 5e17}) {
            EXPECT_EQ(plot_text(points({value}), points({value}).curves[0], 5, on).back(), '\n');
            plot_series two = points({value, value + std::abs(value) / 2});
            two.curves[0].name = "a\nb";
            EXPECT_EQ(plot_text(two, two.curves[0], 0, on).find("a b"), 0u);
        }
        plot_series outside = points({1, 2, 3});
        outside.time = {noon - int64_t{10000000000}, noon, noon + int64_t{10000000000}};
        EXPECT_EQ(plot_text(outside, outside.curves[0], 5, on).back(), '\n');
    }
}

TEST_F(plot_test, colours_change_no_character) {
    plot_series all = points(std::vector<double>(40, 50), 40);
    std::string plain = plot_text(all, all.curves[0], 5, ascii);
    screen colored = ascii;
    colored.color = true;
    std::string text = plot_text(all, all.curves[0], 5, colored), bare;
    EXPECT_NE(text.find("\x1b["), std::string::npos);
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\x1b') {
            i = text.find('m', i);
        } else {
            bare += text[i];
        }
    }
    EXPECT_EQ(bare, plain);
}

/* Whatever it is told, it ends soon and stays within its frame. */
TEST_F(plot_test, numbers_that_make_no_sense) {
    const double nothing = std::nan(""), most = 1.7e308;
    plot_series all = points({1, 2, 3, 4});
    all.curves[0].min.assign(4, nothing);
    all.curves[0].max.assign(4, nothing);
    EXPECT_EQ(lines(all, 5, ascii)[0], "load: lowest 1, mean 2.5, highest 4");
    all.curves[0].min.assign(4, 50);
    all.curves[0].max.assign(4, -50);
    EXPECT_EQ(lines(all, 5, ascii)[0], "load: lowest 1, mean 2.5, highest 4");
    all = points({1, most, -most, 4});
    EXPECT_EQ(lines(all, 5, ascii)[0], "load: lowest 1, mean 2.5, highest 4");
    all = points({1, 2, 3, 4});
    all.resolution = INT64_MAX;
    all.ok.assign(4, INT64_MAX);
    all.problem.assign(4, INT64_MIN);
    all.unknown.assign(4, INT64_MAX);
    all.time[3] = 253402300799;
    EXPECT_EQ(lines(all, 5, braille).size(), 9u);
    all.time.push_back(253402300799); /* and one that the columns do not have */
    EXPECT_EQ(lines(all, 5, braille).size(), 9u);
}
