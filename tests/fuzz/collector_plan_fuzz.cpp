/* The plan, read anew when its file is replaced. Input: the versions of the file with a line of
 * "====" between them. */
#include "fuzz.h"
#include "plan/plan.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>

static const std::string& place() {
    static const std::string directory = [] {
        static std::string made = make_directory();
        atexit([] {
            unlink((made + "/plan").c_str());
            rmdir(made.c_str());
        });
        return made;
    }();
    return directory;
}

/* Earlier files of one input, so that no later one gets the inode of one that the plan knows. */
static std::vector<int> replaced;

/* The file as an editor replaces it: another one of the same name. */
static void replace_plan(const std::string& text) {
    std::string path = place() + "/plan";
    std::ofstream(path + ".new", std::ios::binary) << text;
    replaced.push_back(open((path + ".new").c_str(), O_RDONLY | O_CLOEXEC));
    require(rename((path + ".new").c_str(), path.c_str()) == 0);
}

static std::vector<std::string> texts_of(const plan& p) {
    std::vector<std::string> texts;
    for (const plan_line& line : p.lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

static void check_lines(const plan& p) {
    std::string all;
    int number = 0;
    std::vector<uint64_t> serials;
    for (const plan_line& line : p.lines()) {
        require(!line.text.empty() && line.text.size() <= 64 * 1024);
        require(line.text.find_first_of(std::string_view("\n\0", 2)) == line.text.npos);
        require(line.text.back() != '\r' && !line.text.ends_with("\t\t") && line.text[0] != '#');
        require(line.number > number && line.serial > 0 && line.serial <= p.newest());
        number = line.number;
        serials.push_back(line.serial);
        all += line.text + "\n";
    }
    require(p.text_after(0) == all && p.text_after(p.newest()).empty());
    std::sort(serials.begin(), serials.end());
    require(std::adjacent_find(serials.begin(), serials.end()) == serials.end());
    for (const planned_test& test : planned_tests(p.lines())) {
        require(test.id != 0 && test.type != 0);
    }
}

/* What is sent of a plan that was never anything else is a plan of just these lines. */
static void check_sent_is_accepted(const std::string& text) {
    replace_plan(text);
    plan first(place() + "/plan", nullptr);
    if (!first.refresh()) {
        return;
    }
    replace_plan(first.text_after(0) + "#\n");
    size_t problems = 0;
    plan second(place() + "/plan", [&](const plan_problem&) { problems++; });
    require(second.refresh() && problems == 0);
    require(texts_of(second) == texts_of(first));
}

static void check_versions(const std::vector<std::string>& versions) {
    plan p(place() + "/plan",
           [](const plan_problem& problem) { require(!problem.reason.empty()); });
    for (const std::string& version : versions) {
        uint64_t newest = p.newest();
        std::map<uint64_t, std::string> before;
        for (const plan_line& line : p.lines()) {
            before[line.serial] = line.text;
        }
        replace_plan(version);
        bool read = p.refresh();
        require(p.newest() >= newest && (before.empty() ? read : !(read && version.empty())));
        /* A file of which all is refused, or in which only one unfinished line is, changes nothing.
         */
        require(read || p.lines().size() == before.size());
        for (const plan_line& line : p.lines()) {
            auto held = before.find(line.serial);
            require(held != before.end() ? held->second == line.text : line.serial > newest);
        }
        check_lines(p);
        std::vector<std::string> texts = texts_of(p);
        require(p.refresh() == read && texts_of(p) == texts);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> versions =
        split({reinterpret_cast<const char*>(data), size}, "\n====\n");
    require_no_growth([&] {
        check_sent_is_accepted(versions[0]);
        check_versions(versions);
        for (int fd : replaced) {
            close(fd);
        }
        replaced = {};
    });
    return 0;
}
