/* A directory for a checker's unit test: fixture kernel files under proc_root, stub programs first
 * on PATH, and the records that a checker hands over. */
#ifndef VINDRAL_CHECKER_PLACE_H
#define VINDRAL_CHECKER_PLACE_H

#include "udc_reader.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

class checker_place : public testing::Test {
protected:
    std::filesystem::path place;
    std::string root; /* proc_root while the test runs */

    checker_place();
    ~checker_place() override;

    /* A file below proc_root; directories are made. */
    void write(const std::string& name, const std::string& text);
    void remove(const std::string& name);

    /* A program first on PATH that writes its arguments down, a line each call, and prints this. */
    void stub(const std::string& program, const std::string& output);
    /* The arguments of all calls of stubs so far. */
    std::string asked();
};

/* Takes what a checker has collected. */
std::vector<udc_content> take_records(int (*get_results)(char**, int*));

#endif
