#include "fleet/kinds.h"

#include <algorithm>

namespace {

using form = value_form;

/* ---- what several kinds have ---- */

constexpr key_def remote_host = {.name = "host",
                                 .form = form::host,
                                 .help = "another host, asked by SNMP; default: the agent's own",
                                 .beside = true};

/* A maximum that is reached when it is met. */
constexpr key_def most(const char* name, form in, const char* help) {
    return {.name = name, .form = in, .help = help, .least = 1};
}

constexpr key_def within_seconds(const char* help) {
    return {.name = "within", .form = form::seconds, .help = help, .least = 1, .most = 3600};
}

constexpr key_def port(const char* help) {
    return {.name = "port", .form = form::whole, .help = help, .least = 1, .most = 65535};
}

/* ---- a list for each kind, in the order in which a test is shown ---- */

constexpr key_def load_keys[] = {
    most("1m", form::whole, "most of the average of one minute"),
    most("5m", form::whole, "most of the average of five minutes"),
    most("15m", form::whole, "most of the average of fifteen minutes"),
    remote_host,
};

constexpr key_def share(const char* name, const char* help) {
    return {.name = name, .form = form::percent, .help = help, .least = 1, .most = 100};
}
constexpr key_def cpu_keys[] = {
    share("user", "most of the time that may be the users'"),
    share("system", "most that may be the system's"),
    share("nice", "most that may be that of processes with a nice value"),
    share("idle", "least that has to be idle"),
    share("iowait", "most that may be spent waiting for disks"),
    remote_host,
    {.name = "os",
     .form = form::choice,
     .help = "what the other host is: `linux` has all shares, since its start; `other` user and "
             "idle only; default: other",
     .choices = "linux|other",
     .beside = true},
};

constexpr key_def memory(const char* name, const char* help) {
    return {.name = name, .form = form::megabytes, .help = help};
}
constexpr key_def memory_keys[] = {
    memory("free", "least that has to be free"),
    memory("swap", "least swap that has to be free"),
    memory("virtual", "least virtual memory that has to be free, of another host only"),
    memory("buffers", "most that buffers may have"),
    memory("cached", "most that caches may have"),
    remote_host,
};

constexpr key_def disk_keys[] = {
    {.name = "free",
     .form = form::gigabytes,
     .help = "least that has to be free, as a size or as a share of the disk",
     .most = 1e9},
};

constexpr key_def process_keys[] = {
    {.name = "cpu",
     .form = form::percent,
     .help = "most of a processor that one process may use: 200 % are two processors",
     .least = 1,
     .most = 1e6},
    most("resident", form::megabytes, "most memory that one process may have"),
    most("virtual", form::megabytes, "most address space that one process may have"),
};

constexpr key_def network_keys[] = {
    most("sent", form::rate, "most bytes sent per second"),
    most("received", form::rate, "most bytes received per second"),
    most("packets", form::whole, "most packets per second, each way"),
    most("packets sent", form::whole, "most packets sent per second"),
    most("packets received", form::whole, "most packets received per second"),
    most("errors", form::whole, "most errors per second, each way"),
    most("errors sent", form::whole, "most errors per second in what is sent"),
    most("errors received", form::whole, "most errors per second in what is received"),
};

constexpr key_def ping_keys[] = {
    {.name = "packets",
     .form = form::whole,
     .help = "how many are sent, one after the other; default: 3",
     .least = 1,
     .most = 1000},
    {.name = "size",
     .form = form::whole,
     .help = "bytes of data in each; default: 56",
     .least = 44,
     .most = 65507},
    {.name = "within",
     .form = form::milliseconds,
     .help = "time for the reply to each; default: 1s",
     .least = 1,
     .most = 60'000},
    {.name = "lost",
     .form = form::whole,
     .help = "most that may be lost; default: all but one",
     .most = 999},
};

constexpr key_def http_keys[] = {
    {.name = "contains", .form = form::text, .help = "text that has to be in the page"},
    {.name = "without", .form = form::text, .help = "text that must not be in the page"},
    within_seconds("time for everything, redirections included; default: 10s"),
    {.name = "method",
     .form = form::choice,
     .help = "default: get, and post with form data",
     .choices = "get|post|head"},
    {.name = "post",
     .form = form::secret_text,
     .help = "form data to be sent: \"name=value&other=value\""},
    {.name = "user", .form = form::text, .help = "name to sign in with (basic authentication)"},
    {.name = "password", .form = form::secret_text, .help = "password of that user"},
    {.name = "redirects",
     .form = form::flag,
     .help = "whether redirections are followed, 16 at the most; default: true"},
};

constexpr key_def snmp_version = {
    .name = "version", .form = form::choice, .help = "default: 2", .choices = "1|2|3"};
constexpr key_def snmp_community = {
    .name = "community", .form = form::secret_text, .help = "of versions 1 and 2; default: public"};
constexpr key_def snmp_user = {
    .name = "user", .form = form::text, .help = "of version 3, with its password"};
constexpr key_def snmp_password = {
    .name = "password", .form = form::secret_text, .help = "of version 3: 8 characters or more"};
constexpr key_def snmp_authentication = {.name = "authentication",
                                         .form = form::choice,
                                         .help = "of version 3; default: sha",
                                         .choices = "sha|md5"};
constexpr key_def snmp_within = within_seconds("time for the reply to each request; default: 2s");
constexpr key_def snmp_retries = {.name = "retries",
                                  .form = form::whole,
                                  .help = "how often a request is repeated; default: 1",
                                  .most = 100};

constexpr key_def snmp_keys[] = {
    {.name = "objects",
     .form = form::whole_limits,
     .help = "what is asked for: numbers, or names that the agent's machine knows",
     .required = true},
    port("default: 161"),
    snmp_version,
    snmp_community,
    snmp_user,
    snmp_password,
    snmp_authentication,
    snmp_within,
    snmp_retries,
};

constexpr key_def snmp_table_keys[] = {
    {.name = "table",
     .form = form::name,
     .help = "the table: a number, or a name that the agent's machine knows",
     .required = true},
    port("default: 161"),
    snmp_version,
    snmp_community,
    snmp_user,
    snmp_password,
    snmp_authentication,
    {.name = "repetitions",
     .form = form::whole,
     .help = "rows asked for at once; default: 20, and 0 (one after the other) with version 1",
     .most = 1000},
    snmp_within,
    snmp_retries,
};

constexpr key_def mysql_keys[] = {
    {.name = "user", .form = form::text, .help = "name to log in with", .required = true},
    {.name = "password", .form = form::secret_text, .help = "default: none"},
    port("default: 3306"),
    {.name = "values",
     .form = form::limits,
     .help = "names of SHOW GLOBAL STATUS and SHOW VARIABLES; default: Uptime"},
    within_seconds("time to connect; default: 10s"),
};

constexpr key_def discovery_keys[] = {
    {.name = "objects",
     .form = form::list,
     .help = "SNMP objects that are asked for besides those of the system"},
};

/* ---- the table ---- */

/* Each is there, or this is not compiled. Compared with null it would not be, with sanitizers. */
consteval const protocol::command_def* command(std::string_view code) {
    for (const protocol::command_def& each : protocol::commands) {
        if (each.code == code) {
            return &each;
        }
    }
    throw "there is no such command";
}

constexpr key_def no_value(const char* word) {
    return {.name = word, .form = form::limits, .help = "", .required = true};
}

constexpr key_def value(const char* word, form in, const char* help) {
    return {.name = word, .form = in, .help = help, .required = true};
}

constexpr test_kind kinds[] = {
    {"load", "load averages", &protocol::load_average, command("LAA"), command("LAM"),
     command("LAD"), no_value("load"), true, load_keys},
    {"cpu", "what processors spend their time on", &protocol::cpu, command("CUA"), command("CUM"),
     command("CUD"), no_value("cpu"), true, cpu_keys},
    {"memory", "free memory and swap", &protocol::memory, command("MMA"), command("MMM"),
     command("MMD"), no_value("memory"), true, memory_keys},
    {"disk", "free space of a file system", &protocol::disk, command("DKA"), command("DKM"),
     command("DKD"), value("disk", form::name, "the directory where it is mounted: /, /home"),
     false, disk_keys},
    {"process", "whether a process runs, and what it takes", &protocol::process, command("PRA"),
     command("PRM"), command("PRD"),
     value("process", form::name, "its name as the kernel has it, 15 characters at the most"),
     false, process_keys},
    {"network", "what passes a network interface", &protocol::network, command("NTA"),
     command("NTM"), command("NTD"), value("network", form::name, "the interface: eth0"), false,
     network_keys},
    {"ping", "whether a host answers", &protocol::ping, command("PGA"), command("PGM"),
     command("PGD"), value("ping", form::host, "a host name or an IPv4 address"), false, ping_keys},
    {"http", "a page of a web server", &protocol::http, command("HPA"), command("HPM"),
     command("HPD"), value("http", form::url, "the page: https://shop.example.org/"), false,
     http_keys},
    {"snmp", "objects of an SNMP agent", &protocol::snmp, command("SPA"), command("SPM"),
     command("STD"), value("snmp", form::host, "the host that is asked"), false, snmp_keys},
    {"snmp table", "a table of an SNMP agent", &protocol::snmp_table, command("STA"),
     command("STM"), command("STD"), value("snmp table", form::host, "the host that is asked"),
     false, snmp_table_keys},
    {"mysql", "a MySQL or MariaDB server", &protocol::mysql, command("MQA"), command("MQM"),
     command("MQD"),
     value("mysql", form::name, "its host, or the path of its socket on the agent's machine"),
     false, mysql_keys},
    {"discovery", "the hosts of a network, once", &protocol::discovery, command("DCA"),
     command("DCM"), command("DCR"),
     value("discovery", form::addresses, "10.0.0.1 - 10.0.0.254, both included, or 10.0.0.0/24"),
     false, discovery_keys, true},
};

static_assert(std::ranges::all_of(kinds, [](const test_kind& kind) {
    return kind.add->results == kind.record->code;
}));

} // namespace

std::span<const test_kind> test_kinds() {
    return kinds;
}

const test_kind* find_kind(std::string_view word) {
    for (const test_kind& kind : kinds) {
        if (kind.word == word) {
            return &kind;
        }
    }
    return nullptr;
}

const test_kind* kind_of_record(uint32_t type) {
    for (const test_kind& kind : kinds) {
        if (kind.record->code == type) {
            return &kind;
        }
    }
    return nullptr;
}
