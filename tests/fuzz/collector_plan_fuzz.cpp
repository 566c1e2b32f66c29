/* The plan, read anew when its file is replaced. Input: the versions of the file with a line of
 * "====" between them. There are secrets "a", "b" and "c"; a value is never more than the part of a
 * field that it stands in, and only for agents that have proven who they are. */
#include "fuzz.h"
#include "plan/plan.h"
#include "plan/summary.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>

static const std::string& place() {
    static const std::string directory = [] {
        static std::string made = make_directory();
        atexit([] { std::filesystem::remove_all(made); });
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

/* In each value, and in nothing else that is made here. */
static const std::string mark = "\xc3\xb8mark\xc3\xb8";

static known_secrets& secrets() {
    static std::unique_ptr<settings> kept;
    static std::unique_ptr<known_secrets> all;
    if (!all) {
        std::string note, error;
        kept = settings::open(place(), note, error);
        require(kept != nullptr);
        all = std::make_unique<known_secrets>(*kept, place());
        require(all->set("a", mark, "", 1, error) &&
                all->set("b", mark + ";|,\"'\\${secret:a}${b} #LAA", "", 1, error) &&
                all->set("c", mark + std::string(4000, 'c'), "", 1, error));
    }
    return *all;
}

static bool has_placeholder(std::string_view text) {
    placeholder at;
    return find_placeholder(text, 0, at);
}

/* Which lines of the plan are in a text for agents: each of these is one, with its fields. */
static void check_text(const plan& p, const std::string& text) {
    require(text.empty() || text.back() == '\n');
    std::vector<std::string> sent = split(text, "\n");
    sent.pop_back();
    auto fields = [](std::string_view line) { return std::count(line.begin(), line.end(), '\t'); };
    /* Of add and modify commands the same; the next field may be a secret. */
    auto head = [](std::string_view line) { return std::string(line.substr(0, 2)); };
    std::multimap<std::string, const plan_line*> lines;
    for (const plan_line& line : p.lines()) {
        lines.emplace(head(line.text), &line);
    }
    for (const std::string& line : sent) {
        require(line.size() <= longest_plan_line && line.find('\0') == line.npos);
        if (line.find(mark) == line.npos) {
            continue;
        }
        auto [first, end] = lines.equal_range(head(line));
        require(std::any_of(first, end, [&](const auto& known) {
            return has_placeholder(known.second->text) &&
                   fields(known.second->text) == fields(line);
        }));
    }
}

/* Whom a value goes to, and in what it is. */
static void check_secrets(plan& p) {
    const std::vector<known_test> known = {{49, 7}, {57, 9}, {74, 1}};
    for (const std::string& text : {p.text_after(0, true), p.text_for_new(true),
                                    p.text_for_running(known, true), p.text_for_check(true)}) {
        check_text(p, text);
    }
    for (const std::string& text :
         {p.text_after(0), p.text_for_new(), p.text_for_running(known), p.text_for_check()}) {
        require(text.find(mark) == text.npos && !has_placeholder(text));
    }
    for (const owned_definition& d : definitions_of(p.lines())) {
        require(d.name.find(mark) == d.name.npos && d.text.find(mark) == d.text.npos);
    }
    uint64_t newest = p.newest();
    require(p.text_after(newest, true).empty());
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
    require(p.text_after(p.newest()).empty());
    require(has_placeholder(all) || (p.text_after(0) == all && p.text_after(0, true) == all));
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
    if (!first.refresh() || first.secret_tests_count() > 0) { /* not all of it is sent then */
        return;
    }
    replace_plan(first.text_after(0) + "#\n");
    size_t problems = 0;
    plan second(place() + "/plan", [&](const plan_problem&) { problems++; });
    require(second.refresh() && problems == 0);
    require(texts_of(second) == texts_of(first));
}

static void check_versions(const std::vector<std::string>& versions) {
    auto report = [](const plan_problem& problem) {
        require(!problem.reason.empty() && problem.reason.find(mark) == problem.reason.npos);
    };
    plan p(place() + "/plan", report, nullptr, &secrets());
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
        check_secrets(p);
        std::vector<std::string> texts = texts_of(p);
        require(p.refresh() == read && texts_of(p) == texts);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> versions =
        split({reinterpret_cast<const char*>(data), size}, "\n====\n");
    for (const std::string& version : versions) {
        if (version.find(mark) != version.npos) {
            return 0;
        }
    }
    secrets();
    require_no_growth([&] {
        check_sent_is_accepted(versions[0]);
        check_versions(versions);
        for (int fd : replaced) {
            close(fd);
        }
        replaced = {};
        secrets().note_uses({}, {});
    });
    return 0;
}
