#include "plan/plan.h"

#include "base/record_summary.h"
#include "base/text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <map>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <unordered_map>

namespace {

/* The commands */

enum class effect { none, adds, modifies, removes };
enum class kind { ignored, text, number, nonzero, interval, real, useless };

struct field {
    kind what;
    const char* name;
};

struct command {
    std::string_view code;
    effect does;
    uint32_t type;             /* of the results; 0: none comes */
    size_t least, most;        /* fields, the code included */
    std::vector<field> fields; /* from field 1 on */
    uint32_t list = type;      /* one for each list of tests that an agent has */
};

const field test_id = {kind::nonzero, "test id"};
const field location = {kind::number, "location id"};
const field unused = {kind::ignored, ""};
const field seconds = {kind::interval, "number of seconds"};
const int32_t longest_interval = 31 * 86400;
const field load1 = {kind::number, "1 min maximum"};
const field load5 = {kind::number, "5 min maximum"};
const field load15 = {kind::number, "15 min maximum"};
const field host = {kind::text, "host"};
const field minimum = {kind::number, "minimum"};
const field maximum = {kind::number, "maximum"};
const field space = {kind::real, "amount"}; /* free space in GB, or the most that is read in KB */
const field written = {kind::real, "most that is written"};
const field name = {kind::text, "name"};
const field address = {kind::text, "address"};

const std::vector<field> removal = {test_id, unused};
const std::vector<field> cpu = {test_id, location, maximum, maximum, maximum,
                                minimum, maximum,  host,    name};
const std::vector<field> memory = {test_id, location, minimum, minimum,
                                   minimum, maximum,  maximum, host};
const std::vector<field> disk = {test_id, location, name, space, written};
const std::vector<field> process = {test_id, location, maximum, maximum, maximum, name};
const std::vector<field> network = {test_id, location, name,    maximum, maximum,
                                    maximum, maximum,  maximum, maximum};
const field packets = {kind::nonzero, "number of packets"};
const field packet_size = {kind::nonzero, "packet size"};
const field time_limit = {kind::nonzero, "time limit"};
const field most_lost = {kind::number, "number of lost packets"};
const field text = {kind::text, "text"};
const field flag = {kind::number, "switch"};
const field method = {kind::number, "method"};
const std::vector<field> ping = {test_id, location,   host,     packet_size,
                                 packets, time_limit, most_lost};
/* host, path, port, match text, form data, user, password, seconds; TLS, redirects, whole page,
 * must be found, method */
const std::vector<field> page = {test_id, location, host, text, text, text, text,  text,
                                 text,    text,     flag, flag, flag, flag, method};
const std::vector<field> load = {test_id, location, load1, load5, load15, host};
const field port = {kind::number, "port"};
const field set_port = {kind::nonzero,
                        "port"}; /* with 0 the agent asks port 0, of another location */
const field version = {kind::number, "version"};
const field retries = {kind::number, "number of retries"};
const field timeout = {kind::number, "time limit"};
/* host, port, repetitions, version, object, community, authentication, user, pass phrase, privacy,
 * its pass phrase, seconds, retries */
const std::vector<field> walk = {test_id, location, host, set_port, flag, version, text,   text,
                                 text,    text,     text, text,     text, timeout, retries};
/* host, port, version, objects, community, authentication, user, pass phrase, privacy, whether its
 * pass phrase is used, seconds, retries, limits */
const std::vector<field> get = {test_id, location, host, port, version, text,    text, text,
                                text,    text,     text, text, timeout, retries, text};
const std::vector<field> range = {test_id, location, address, address, text};
const std::vector<field> mysql = {test_id, location, host, port, text, text, text, text, timeout};
const field path = {kind::text, "path"};
const field addresses = {kind::text, "list of addresses"};
/* An agent only heeds it with an id of 0, which no test can have. */
const field not_with_this = {kind::useless, "SPD removes no test: use STD"};

const size_t any_more = SIZE_MAX; /* fields beyond the least are ignored */

const field listened = {kind::nonzero, "port"};

/* Lists of the agent whose members bring no results. */
const uint32_t tcp_listeners = UINT32_MAX, unix_listeners = UINT32_MAX - 1;

/* One row for each code that the agent knows. */
const std::vector<command> commands = {
    {"POL", effect::none, 0, 3, 3, {unused, seconds}},
    {"CHK", effect::none, 0, 3, 3, {unused, seconds}},
    {"UPD", effect::none, 0, 4, 4, {}},
    {"PRA", effect::adds, type_process, 7, 7, process},
    {"PRM", effect::modifies, type_process, 7, 7, process},
    {"PRD", effect::removes, type_process, 3, 3, removal},
    {"MMA", effect::adds, type_memory, 8, 9, memory},
    {"MMM", effect::modifies, type_memory, 8, 9, memory},
    {"MMD", effect::removes, type_memory, 3, 3, removal},
    {"DKA", effect::adds, type_disk, 5, 6, disk},
    {"DKM", effect::modifies, type_disk, 5, 6, disk},
    {"DKD", effect::removes, type_disk, 3, 3, removal},
    {"CUA", effect::adds, type_cpu, 8, 10, cpu},
    {"CUM", effect::modifies, type_cpu, 8, 10, cpu},
    {"CUD", effect::removes, type_cpu, 3, 3, removal},
    {"LAA", effect::adds, type_load_average, 6, 7, load},
    {"LAM", effect::modifies, type_load_average, 6, 7, load},
    {"LAD", effect::removes, type_load_average, 3, 3, removal},
    {"HPA", effect::adds, type_http, 16, 16, page},
    {"HPM", effect::modifies, type_http, 16, 16, page},
    {"HPD", effect::removes, type_http, 2, 2, {test_id}},
    {"PGA", effect::adds, type_ping, 8, 8, ping},
    {"PGM", effect::modifies, type_ping, 8, 8, ping},
    {"PGD", effect::removes, type_ping, 3, 3, removal},
    {"USA", effect::adds, 0, 3, 3, {test_id, path}, unix_listeners},
    {"USM", effect::modifies, 0, 3, 3, {test_id, path}, unix_listeners},
    {"USD", effect::removes, 0, 2, 2, {test_id}, unix_listeners},
    {"TSA", effect::adds, 0, 4, 4, {test_id, listened, addresses}, tcp_listeners},
    {"TSM", effect::modifies, 0, 4, 4, {test_id, listened, addresses}, tcp_listeners},
    {"TSD", effect::removes, 0, 2, 2, {test_id}, tcp_listeners},
    {"MQA", effect::adds, type_mysql, 10, 10, mysql},
    {"MQM", effect::modifies, type_mysql, 10, 10, mysql},
    {"MQD", effect::removes, type_mysql, 3, 3, removal},
    {"SWA", effect::adds, 0, 16, 16, walk, type_snmp},
    {"SWD", effect::removes, 0, 2, 2, {test_id}, type_snmp},
    {"STA", effect::adds, type_snmp_table, 16, 16, walk, type_snmp},
    {"STM", effect::modifies, type_snmp_table, 16, 16, walk, type_snmp},
    {"STD", effect::removes, 0, 3, 3, removal, type_snmp},
    {"SPA", effect::adds, type_snmp, 16, 16, get},
    {"SPM", effect::modifies, type_snmp, 16, 16, get},
    {"SPD", effect::none, 0, 2, 2, {not_with_this}},
    {"DCA", effect::adds, type_discovery, 5, any_more, range},
    {"DCM", effect::modifies, type_discovery, 5, any_more, range},
    {"DCR", effect::removes, type_discovery, 2, any_more, {test_id}},
    {"NTA", effect::adds, type_network, 10, any_more, network},
    {"NTM", effect::modifies, type_network, 10, any_more, network},
    {"NTD", effect::removes, type_network, 3, any_more, removal},
};

const command* find_command(std::string_view code) {
    auto found = std::find_if(commands.begin(), commands.end(),
                              [code](const command& c) { return c.code == code; });
    return found != commands.end() ? &*found : nullptr;
}

/* As the agent splits: a tab that ends the line begins no field. */
std::vector<std::string_view> split_fields(std::string_view line) {
    std::vector<std::string_view> fields;
    if (line.ends_with('\t')) {
        line.remove_suffix(1);
    }
    for (size_t tab; (tab = line.find('\t')) != line.npos; line.remove_prefix(tab + 1)) {
        fields.push_back(line.substr(0, tab));
    }
    fields.push_back(line);
    return fields;
}

/* A whole number that the agent's ids and limits can hold, and nothing else in the field. */
bool read_number(std::string_view text, int32_t& number) {
    std::string_view digits = text.starts_with('+') ? text.substr(1) : text;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return error == std::errc() && end == digits.data() + digits.size();
}

/* A number with or without a fraction, and nothing else in the field. */
bool is_real(std::string_view text) {
    double number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && std::isfinite(number);
}

std::string quoted(std::string_view text) {
    bool cut = text.size() > 40;
    /* The quotation mark goes through, too: what is wrong may be a blank at the end. */
    return "\"" + printable(std::string(text.substr(0, 40)) + (cut ? "...\"" : "\""));
}

/* The reason why an agent would not do what the line says, "" for none. */
std::string check_fields(const command& c, const std::vector<std::string_view>& fields,
                         bool ends_in_tab) {
    if (fields.back().empty()) {
        return "the last field is empty, which cannot be sent";
    }
    if (fields.size() < c.least || fields.size() > c.most) {
        std::string takes = (c.most == any_more ? "at least " : "") + std::to_string(c.least);
        if (c.most != any_more && c.most > c.least) {
            takes += (c.most > c.least + 1 ? " to " : " or ") + std::to_string(c.most);
        }
        return std::string(c.code) + " takes " + takes + " fields, here are " +
               std::to_string(fields.size()) +
               (ends_in_tab ? " (the tab at the end begins no field)" : "");
    }
    for (size_t i = 1; i < fields.size() && i <= c.fields.size(); i++) {
        const field& f = c.fields[i - 1];
        int32_t number = 0;
        if (f.what == kind::useless) {
            return f.name;
        }
        if (f.what == kind::real && !is_real(fields[i])) {
            return "the " + std::string(f.name) + " is " + quoted(fields[i]) + ", not a number";
        }
        if (f.what != kind::number && f.what != kind::nonzero && f.what != kind::interval) {
            continue;
        }
        if (!read_number(fields[i], number)) {
            return "the " + std::string(f.name) + " is " + quoted(fields[i]) +
                   ", not a whole number of 32 bits";
        }
        if ((f.what == kind::nonzero || f.what == kind::interval) && number == 0) {
            return "the " + std::string(f.name) + " is 0";
        }
        if (f.what == kind::interval && (number < 0 || number > longest_interval)) {
            std::string range = ": 1 to " + std::to_string(longest_interval);
            return "the " + std::string(f.name) + " is " + std::to_string(number) +
                   (number == -1 ? ", which ends agents for good" + range : range + " (31 days)");
        }
    }
    return "";
}

/* A test of one checker. */
using test_key = std::pair<uint32_t, int32_t>;

test_key key_of(const command& c, const std::vector<std::string_view>& fields) {
    int32_t id = 0;
    read_number(fields[1], id);
    return {c.list, id};
}

/* The type of the results that a test brings, 0 when it brings none: limits of a disk's traffic are
 * reported elsewhere. */
uint32_t result_type(const command& c, const std::vector<std::string_view>& fields) {
    bool disk_traffic = c.type == type_disk && fields.size() > c.least;
    return disk_traffic ? 0 : c.type;
}

std::string name_of(test_key key) {
    std::string kind = key.first == tcp_listeners    ? "TCP listener "
                       : key.first == unix_listeners ? "unix listener "
                                                     : type_name(key.first) + " test ";
    return kind + std::to_string(key.second);
}

/* Which tests a list of commands leaves behind, for an agent that starts without any. */
class presence {
public:
    /* `earlier`: tests that agents may have from lines which are no longer in the file. */
    explicit presence(const std::map<test_key, bool>& earlier) : earlier_(earlier) {}

    /* The reason why the command does nothing, "" when it does something. */
    std::string apply(effect does, test_key key) {
        auto known = tests_.find(key);
        bool there = known != tests_.end() && known->second;
        bool maybe_there = there || (known == tests_.end() && earlier_.contains(key));
        if (does == effect::adds && there) {
            return name_of(key) + " is there already, adding it again does nothing";
        }
        if (does == effect::modifies && !maybe_there) {
            return name_of(key) + " is not there, modifying it does nothing";
        }
        if (does == effect::removes && !maybe_there) {
            return name_of(key) + " is not there, removing it does nothing";
        }
        if (does != effect::modifies) {
            tests_[key] = does == effect::adds;
        }
        return "";
    }

    bool has(test_key key) const {
        auto known = tests_.find(key);
        return known != tests_.end() && known->second;
    }

private:
    const std::map<test_key, bool>& earlier_;
    std::map<test_key, bool> tests_;
};

/* The file */

const size_t max_file = 8u << 20;
const size_t max_line = 64u << 10;
const size_t max_problems = 1000; /* reported in one reading */
const int64_t quiet_ns = 2000000000;

int64_t nanoseconds(const timespec& t) {
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

int64_t clock_ns(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return nanoseconds(now);
}
int64_t (*read_clock_ns)(clockid_t) = clock_ns; /* a test pins it */

std::string system_error(const std::string& path) {
    return path + ": " + std::generic_category().message(errno);
}

/* Never waits: a pipe or a device is refused before it is read. */
bool read_file(const std::string& path, std::string& content, std::string& trouble) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        trouble =
            fd >= 0 && !S_ISREG(status.st_mode) ? path + ": is not a file" : system_error(path);
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    content.clear();
    std::string piece(64 * 1024, '\0');
    ssize_t got;
    while (content.size() <= max_file && (got = read(fd, piece.data(), piece.size())) != 0) {
        if (got > 0) {
            content.append(piece, 0, static_cast<size_t>(got));
        } else if (errno != EINTR) {
            trouble = system_error(path);
            close(fd);
            return false;
        }
    }
    close(fd);
    if (content.size() > max_file) {
        trouble = path + ": is larger than 8 MiB";
        return false;
    }
    return true;
}

/* One line without what ends it; false at the end of the text. */
bool take_line(std::string_view& text, std::string_view& line) {
    if (text.empty()) {
        return false;
    }
    size_t end = text.find('\n');
    line = text.substr(0, end);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
    while (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return true;
}

bool is_comment(std::string_view line) {
    size_t first = line.find_first_not_of(" \t");
    return first == line.npos || line[first] == '#';
}

struct parsed_line {
    int number = 0;
    std::string_view text;
    effect does = effect::none;
    test_key key; /* when it does something to a test */
    uint64_t serial = 0;
};

} // namespace

struct plan::state {
    struct file_identity {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = -1;
        int64_t modified_ns = 0;
        int64_t changed_ns = 0;
        bool operator==(const file_identity&) const = default;
    };

    bool taken = false;     /* a reading succeeded */
    bool result = true;     /* what refresh() returned last */
    file_identity seen;     /* the last stat */
    int64_t seen_at_ns = 0; /* when it came to look like that */
    bool settled = false;   /* it lay still when it was last read; nothing to do until it changes */
    file_identity taken_from;
    std::string content; /* what was taken */
    std::string trouble; /* with the whole file, as last reported */
    std::map<std::string, int>
        problems; /* of the last reading, by line and reason, and how often */
    std::map<test_key, bool>
        at_agents; /* tests that were ever added; whether running agents have them */
    std::chrono::seconds poll_interval{60};

    /* What logins need to know of the lines, one for one. */
    struct line_use {
        bool sent;  /* it does something to an agent that began without tests */
        bool twice; /* as a modify command, too: the agent may have the test */
        test_key key;
    };
    std::vector<line_use> uses;
    std::set<test_key> planned; /* left when all lines are done */
    std::set<test_key> gone;    /* removed before the lines from any agent that ran already */
    std::set<test_key> meant;   /* added by lines that are refused: not to be removed */
    bool sure = false;          /* what is not in the plan is not meant to be there */
    void prepare_logins(const std::vector<parsed_line>& lines);

    bool fail(plan& owner, const std::string& why);
    bool is_quiet() const;
    void take(plan& owner, std::string_view text);
};

bool plan::state::fail(plan& owner, const std::string& why) {
    if (why != trouble && owner.report_) {
        owner.report_({0, why});
    }
    trouble = why;
    result = false;
    return false;
}

/* The time of the last change may be in the future, after a wrong clock; then we time it ourselves.
 */
bool plan::state::is_quiet() const {
    return read_clock_ns(CLOCK_MONOTONIC) - seen_at_ns >= quiet_ns ||
           read_clock_ns(CLOCK_REALTIME) - seen.changed_ns >= quiet_ns;
}

namespace {

/* Fills what the line does; returns the reason why it is not to be sent, "" when it is. */
std::string check_line(parsed_line& line, presence& tests) {
    line.does = effect::adds; /* it may be meant to, whatever is wrong with it */
    line.key = {};
    if (line.text.size() > max_line) {
        return "the line is longer than 64 KiB";
    }
    if (line.text.find('\0') != line.text.npos) {
        return "there is a NUL byte in the line";
    }
    std::vector<std::string_view> fields = split_fields(line.text);
    const command* c = find_command(fields[0]);
    if (c == nullptr) {
        return find_command(fields[0].substr(0, fields[0].find(' '))) != nullptr
                   ? "blanks stand where tabs separate the fields"
                   : "unknown code " + quoted(fields[0]);
    }
    std::string reason = check_fields(*c, fields, line.text.ends_with('\t'));
    line.does = c->does;
    line.key = c->does != effect::none && fields.size() > 1 ? key_of(*c, fields) : test_key{};
    if (reason.empty() && c->does != effect::none) {
        reason = tests.apply(c->does, line.key);
    }
    return reason;
}

/* What is wrong with the first line of a text in which none is to be sent, although there are some;
 * "" for any other text. */
std::string why_none(std::string_view text, const std::map<test_key, bool>& at_agents) {
    presence tests(at_agents);
    parsed_line line;
    std::string first;
    while (take_line(text, line.text)) {
        line.number++;
        if (is_comment(line.text)) {
            continue;
        }
        std::string reason = check_line(line, tests);
        if (reason.empty()) {
            return "";
        }
        if (first.empty()) {
            first = "line " + std::to_string(line.number) + ": " + reason;
        }
    }
    return first;
}

/* Gives each line the serial that it had, one occurrence after the other. */
void keep_serials(const std::vector<plan_line>& before, std::vector<parsed_line>& lines) {
    std::unordered_map<std::string_view, std::deque<uint64_t>> serials;
    for (const plan_line& line : before) {
        serials[line.text].push_back(line.serial);
    }
    for (parsed_line& line : lines) {
        auto known = serials.find(line.text);
        if (known != serials.end() && !known->second.empty()) {
            line.serial = known->second.front();
            known->second.pop_front();
        }
    }
}

/* Agents that run get only the new lines. A new remove above an old add would leave them without a
 * test that an agent which logs in gets: then the lines from that add on count as new, too. */
void renew_lost_tests(const presence& tests, std::map<test_key, bool>& at_agents,
                      std::vector<parsed_line>& lines) {
    std::set<test_key> lost;
    for (auto& [key, there] : at_agents) {
        if (!there && tests.has(key)) {
            there = true;
            lost.insert(key);
        }
    }
    for (auto line = lines.rbegin(); line != lines.rend() && !lost.empty(); ++line) {
        auto found = line->does != effect::none ? lost.find(line->key) : lost.end();
        if (found != lost.end()) {
            line->serial = 0;
            if (line->does == effect::adds) {
                lost.erase(found);
            }
        }
    }
}

} // namespace

void plan::state::take(plan& owner, std::string_view text) {
    std::map<std::string, int> found;
    size_t reported = 0;
    auto problem = [&](const parsed_line& line, const std::string& reason) {
        std::string key = reason + "\n" + std::string(line.text);
        if (++found[key] <= problems[key] || reported > max_problems || !owner.report_) {
            return;
        }
        bool last = reported++ == max_problems;
        owner.report_({line.number, last ? "there are more problems from here on" : reason});
    };

    presence tests(at_agents);
    std::vector<parsed_line> lines;
    parsed_line line;
    bool refused = false;
    meant.clear();
    for (std::string_view rest = text; take_line(rest, line.text);) {
        line.number++;
        if (is_comment(line.text)) {
            continue;
        }
        std::string reason = check_line(line, tests);
        if (reason.empty()) {
            lines.push_back(line);
            continue;
        }
        problem(line, reason);
        refused = true;
        if (line.does == effect::adds) {
            meant.insert(line.key);
        }
    }
    sure = !text.empty() && !(refused && lines.empty()) &&
           std::none_of(meant.begin(), meant.end(), [](test_key key) { return key.second == 0; });
    keep_serials(owner.lines_, lines);
    for (const parsed_line& added : lines) {
        if (added.serial != 0 || (added.does != effect::adds && added.does != effect::removes)) {
            continue;
        }
        bool& there = at_agents[added.key];
        if (there && added.does == effect::adds) {
            problem(added,
                    "agents that run have " + name_of(added.key) +
                        " already and keep it as it was: modify it, or remove it first (sent all "
                        "the same, for agents that start anew)");
        }
        there = added.does == effect::adds;
    }
    renew_lost_tests(tests, at_agents, lines);

    owner.lines_.clear();
    for (const parsed_line& held : lines) {
        uint64_t serial = held.serial != 0 ? held.serial : ++owner.newest_;
        owner.lines_.push_back({serial, held.number, std::string(held.text)});
    }
    prepare_logins(lines);
    problems = std::move(found);
    if (owner.taken_) {
        owner.taken_(owner.lines_);
    }
}

plan::plan(std::string path, std::function<void(const plan_problem&)> report,
           std::function<void(const line_list&)> taken)
    : path_(std::move(path)), report_(std::move(report)), taken_(std::move(taken)),
      state_(std::make_shared<state>()) {}

bool plan::refresh() {
    state& s = *state_;
    if (path_.empty()) {
        return true;
    }
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) {
        s.seen = {};
        return s.fail(*this, system_error(path_));
    }
    state::file_identity now = {status.st_dev, status.st_ino, status.st_size,
                                nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
    bool changed = now != s.seen;
    if (changed) {
        s.seen = now;
        s.seen_at_ns = read_clock_ns(CLOCK_MONOTONIC);
    }
    bool quiet = s.is_quiet();
    if (!changed && (s.settled || !quiet)) {
        return s.result;
    }
    s.settled = quiet;

    std::string content, trouble;
    if (!read_file(path_, content, trouble)) {
        return s.fail(*this, trouble);
    }
    if (content.empty() && !lines_.empty()) {
        return s.fail(*this, path_ +
                                 ": is empty; the lines that were in it stay in force (one with "
                                 "only a comment drops them)");
    }
    bool same_file =
        s.taken && s.taken_from.inode == now.inode && s.taken_from.device == now.device;
    if (same_file && !quiet && !content.starts_with(s.content)) {
        return s.result; /* being rewritten */
    }
    std::string_view text = content;
    std::string_view tail = text.substr(text.rfind('\n') + 1);
    bool known = std::any_of(lines_.begin(), lines_.end(),
                             [&](const plan_line& line) { return line.text == tail; });
    if (s.taken && !quiet && !known) {
        text.remove_suffix(tail.size()); /* being written */
        if (text.empty() && !lines_.empty()) {
            return s.result;
        }
    }
    if (!s.taken || text != s.content) {
        std::string none = lines_.empty() ? "" : why_none(text, s.at_agents);
        if (!none.empty()) {
            return s.fail(*this, path_ + ": every line is refused (" + none +
                                     "); the lines that were in it stay in force");
        }
        s.take(*this, text);
        s.content = text;
    }
    s.taken = true;
    s.taken_from = now;
    s.trouble.clear();
    s.result = true;
    return true;
}

std::string plan::text_after(uint64_t after) const {
    std::string text;
    if (after >= newest_) {
        return text;
    }
    for (const plan_line& line : lines_) {
        if (line.serial > after) {
            text.append(line.text).append("\n");
        }
    }
    return text;
}

std::chrono::seconds plan::poll_interval() const {
    return state_->poll_interval;
}

namespace {

/* The list of an agent whose tests bring results of this type, 0 for none. */
uint32_t list_of(uint32_t type) {
    auto found = std::find_if(commands.begin(), commands.end(), [=](const command& c) {
        return c.does == effect::adds && type != 0 && c.type == type;
    });
    return found != commands.end() ? found->list : 0;
}

/* An agent logs an error when it is to remove one that it does not have. */
bool must_be_there(uint32_t list) {
    return list == type_disk || list == type_process || list == type_network ||
           list == type_discovery;
}

void append_removal(std::string& text, test_key key) {
    auto c = std::find_if(commands.begin(), commands.end(), [&](const command& each) {
        return each.does == effect::removes && each.list == key.first;
    });
    text.append(c->code).append("\t").append(std::to_string(key.second));
    text.append(c->least > 2 ? "\t0\n" : "\n");
}

} // namespace

void plan::state::prepare_logins(const std::vector<parsed_line>& lines) {
    uses.clear();
    planned.clear();
    poll_interval = std::chrono::seconds(60); /* what agents begin with */
    for (const parsed_line& line : lines) {
        bool there = planned.contains(line.key);
        bool sent = line.does == effect::none || (line.does == effect::adds) != there;
        uses.push_back({sent, false, line.key});
        if (line.does == effect::adds) {
            planned.insert(line.key);
        } else if (line.does == effect::removes) {
            planned.erase(line.key);
        }
        std::vector<std::string_view> fields = split_fields(line.text);
        int32_t interval = 0;
        if (fields[0] == "POL" && read_number(fields[2], interval)) {
            poll_interval = std::chrono::seconds(interval);
        }
    }
    std::set<test_key> added;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].does == effect::adds && added.insert(lines[i].key).second) {
            uses[i].twice = lines[i].key.first != type_snmp &&
                            lines[i].key.first != type_discovery && planned.contains(lines[i].key);
        }
    }
    gone.clear();
    for (const auto& [key, there] : at_agents) {
        /* Agents keep all SNMP tests in one list, and no modify command makes another kind of a
         * walk. Of other kinds, an add and a remove command in the plan do it without a word. */
        bool stays = there && (!sure || meant.contains(key));
        if (key.first == type_snmp ? planned.contains(key) || !stays
                                   : !added.contains(key) && !stays) {
            gone.insert(key);
        }
    }
}

std::string plan::text_for_new() const {
    std::string text;
    text.reserve(state_->content.size());
    for (size_t i = 0; i < lines_.size(); ++i) {
        if (state_->uses[i].sent) {
            text.append(lines_[i].text).append("\n");
        }
    }
    return text;
}

std::string plan::text_for_running(const std::vector<known_test>& known) const {
    const state& s = *state_;
    std::string text;
    text.reserve(2 * s.content.size());
    for (const test_key& key : s.gone) {
        append_removal(text, key);
    }
    std::set<test_key> removed; /* besides these */
    for (const known_test& test : known) {
        test_key key{list_of(test.type), test.id};
        bool planned = s.planned.contains(key);
        bool stays = key.first == 0 || s.gone.contains(key) ||
                     (must_be_there(key.first) && !test.recent) ||
                     (planned ? key.first == type_discovery : !s.sure || s.meant.contains(key));
        if (!stays && removed.insert(key).second) {
            append_removal(text, key);
        }
    }
    for (size_t i = 0; i < lines_.size(); ++i) {
        const std::string& line = lines_[i].text;
        if (!s.uses[i].sent) {
            continue;
        }
        text.append(line).append("\n");
        if (s.uses[i].twice && !removed.contains(s.uses[i].key)) {
            size_t at = text.size();
            text.append(line).append("\n");
            text[at + 2] = 'M'; /* the same fields */
        }
    }
    return text;
}

std::vector<planned_test> planned_tests(const std::vector<plan_line>& lines) {
    struct added_test {
        size_t line;
        planned_test test;
    };
    std::map<test_key, added_test> added;
    for (size_t i = 0; i < lines.size(); i++) {
        std::vector<std::string_view> fields = split_fields(lines[i].text);
        const command* c = find_command(fields[0]);
        if (c == nullptr || c->does == effect::none) {
            continue;
        }
        test_key key = key_of(*c, fields);
        if (c->does == effect::adds) {
            added[key] = {i, {result_type(*c, fields), key.second}};
        } else if (c->does == effect::removes) {
            added.erase(key);
        } else if (auto changed = added.find(key); changed != added.end()) {
            changed->second.test.type = result_type(*c, fields);
        }
    }
    std::vector<added_test> ordered;
    for (const auto& [key, test] : added) {
        if (test.test.type != 0) {
            ordered.push_back(test);
        }
    }
    std::sort(ordered.begin(), ordered.end(),
              [](const added_test& a, const added_test& b) { return a.line < b.line; });
    std::vector<planned_test> tests;
    tests.reserve(ordered.size());
    for (const added_test& test : ordered) {
        tests.push_back(test.test);
    }
    return tests;
}

planned_intervals intervals_of(const std::vector<plan_line>& lines) {
    planned_intervals intervals;
    for (const plan_line& line : lines) {
        std::vector<std::string_view> fields = split_fields(line.text);
        int32_t seconds = 0;
        if (fields.size() > 2 && read_number(fields[2], seconds) && seconds > 0) {
            (fields[0] == "POL"   ? intervals.poll
             : fields[0] == "CHK" ? intervals.check
                                  : seconds) = seconds;
        }
    }
    return intervals;
}
