/* A directory for a checker's unit test: fixture kernel files under proc_root, stub programs first
 * on PATH, and the records that a checker hands over. */
#ifndef VINDRAL_CHECKER_PLACE_H
#define VINDRAL_CHECKER_PLACE_H

#include "checker.h"
#include "eventually.h"
#include "udc_reader.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
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

    /* As stub, but the program ends only when let_answer is called. */
    void waiting_stub(const std::string& program, const std::string& output);
    void let_answer();

    /* A pass over the tests 1 to 4, of which 2 and 3 ask waiting stubs and 1 and 4 are local. A
     * stop ends it, and there are records of what was measured only. */
    void expect_stop_ends_the_pass(checker& c, void (*pass)(), void (*set_interval)(int),
                                   int (*get_results)(char**, int*));

    /* A pass over a local test and then one that asks a waiting stub. Meanwhile the list is locked,
     * the record of the first can be collected; the second bears the time at which it began. */
    void expect_pass_locks_the_list(checker& c, void (*pass)(), int (*get_results)(char**, int*));
};

/* Leaves this process so many descriptors to open, for a scope. */
class descriptors_left {
public:
    explicit descriptors_left(unsigned count);
    ~descriptors_left() { setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_;
};

/* As if the checker had never been stopped. */
void revive(checker& c);

/* Signals given to a worker so far. */
unsigned wakes_of(checker& c);

/* Whether nobody holds a mutex, this thread included. */
bool is_free(mutex& m);

/* Takes what a checker has collected. */
std::vector<udc_content> take_records(int (*get_results)(char**, int*));

#endif
