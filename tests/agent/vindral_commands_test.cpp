/* The command protocol: which line reaches which operation with which arguments. */
#include "vindral_commands.cpp"

#include "fake_core.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <malloc.h>
#include <random>
#include <sstream>
#include <string>

static const time_t no_update_yet = last_update_time;

/* With a sanitizer, whose allocator keeps its own accounts. */
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

static size_t bytes_in_use() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) {
        return __sanitizer_get_current_allocated_bytes();
    }
    struct mallinfo2 all = mallinfo2();
    return all.uordblks + all.hblkhd;
}

/* What the commands reach, recorded as text, and the memory in use when the last one was. */
static std::string calls;
static size_t in_use_at_call;

static void append(std::ostringstream& out, const char* text) {
    out << " " << (text != nullptr ? text : "(none)");
}
static void append(std::ostringstream& out, char* text) {
    append(out, static_cast<const char*>(text));
}
template <typename T>
static void append(std::ostringstream& out, T value) {
    out << " " << value;
}
template <typename... A>
static void record(const char* operation, A... arguments) {
    in_use_at_call = bytes_in_use();
    std::ostringstream out;
    out << operation;
    (append(out, arguments), ...);
    calls += out.str() + "\n";
}

void set_poll_interval(int poll_interval) {
    record("POL", poll_interval);
}
void set_check_intervals(int t_sec) {
    record("CHK", t_sec);
}
void add_proc(char* pr_name, int t_id, int loc_id, int cpu, int rss, int vsize) {
    record("add_proc", pr_name, t_id, loc_id, cpu, rss, vsize);
}
void mod_proc(char* pr_name, int t_id, int loc_id, int cpu, int rss, int vsize) {
    record("mod_proc", pr_name, t_id, loc_id, cpu, rss, vsize);
}
void rem_proc(int t_id) {
    record("rem_proc", t_id);
}
void add_http(long id, int loc_id, char* host, char* url, char* port, char* match, char* post,
              char* user, char* pass, char* tout, char* agent, int ssl, int redirect, int full,
              int found, int method) {
    record("add_http", id, loc_id, host, url, port, match, post, user, pass, tout, agent, ssl,
           redirect, full, found, method);
}
void modify_http(long id, int loc_id, char* host, char* url, char* port, char* match, char* post,
                 char* user, char* pass, char* tout, char* agent, int ssl, int redirect, int full,
                 int found, int method) {
    record("modify_http", id, loc_id, host, url, port, match, post, user, pass, tout, agent, ssl,
           redirect, full, found, method);
}
void rem_http(int t_id) {
    record("rem_http", t_id);
}
void add_ping(int tid, int loc_id, char* host, int size, int count, int timeout, int lost) {
    record("add_ping", tid, loc_id, host, size, count, timeout, lost);
}
void mod_ping(int tid, int loc_id, char* host, int size, int count, int timeout, int lost) {
    record("mod_ping", tid, loc_id, host, size, count, timeout, lost);
}
void rem_ping(int t_id) {
    record("rem_ping", t_id);
}
void add_mem(int tid, int loc_id, int mem, int swap, int virt, int buffers, int cached,
             char* host) {
    record("add_mem", tid, loc_id, mem, swap, virt, buffers, cached, host);
}
void modify_mem(int tid, int loc_id, int mem, int swap, int virt, int buffers, int cached,
                char* host) {
    record("modify_mem", tid, loc_id, mem, swap, virt, buffers, cached, host);
}
void rem_mem(int t_id) {
    record("rem_mem", t_id);
}
void add_diskdesc(int tid, int lid, char* mp, double min_free, double max_read, double max_write) {
    record("add_diskdesc", tid, lid, mp, min_free, max_read, max_write);
}
void modify_disk(int tid, int lid, char* mp, double min_free, double max_read, double max_write) {
    record("modify_disk", tid, lid, mp, min_free, max_read, max_write);
}
void rem_disk(int tid) {
    record("rem_disk", tid);
}
void add_cpu(int tid, int loc_id, int user, int system, int nice, int idle, int iowait, char* host,
             char* kind) {
    record("add_cpu", tid, loc_id, user, system, nice, idle, iowait, host, kind);
}
void modify_cpu(int tid, int loc_id, int user, int system, int nice, int idle, int iowait,
                char* host, char* kind) {
    record("modify_cpu", tid, loc_id, user, system, nice, idle, iowait, host, kind);
}
void rem_cpu(int t_id) {
    record("rem_cpu", t_id);
}
void add_lda(int tid, int loc_id, int la1, int la5, int la15, char* host) {
    record("add_lda", tid, loc_id, la1, la5, la15, host);
}
void modify_lda(int tid, int loc_id, int la1, int la5, int la15, char* host) {
    record("modify_lda", tid, loc_id, la1, la5, la15, host);
}
void rem_lda(int t_id) {
    record("rem_lda", t_id);
}
void add_snmp(int tid, int loc_id, int type, int bulk, char* oids, char* host, int port,
              int version, int timeout, int retries, char* community, char* login, char* passwd,
              char* privpasswd, char* authproto, char* privproto, char* min_max) {
    record("add_snmp", tid, loc_id, type, bulk, oids, host, port, version, timeout, retries,
           community, login, passwd, privpasswd, authproto, privproto, min_max);
}
void mod_snmp(int tid, int loc_id, int type, int bulk, char* oids, char* host, int port,
              int version, int timeout, int retries, char* community, char* login, char* passwd,
              char* privpasswd, char* authproto, char* privproto, char* min_max) {
    record("mod_snmp", tid, loc_id, type, bulk, oids, host, port, version, timeout, retries,
           community, login, passwd, privpasswd, authproto, privproto, min_max);
}
void rem_snmp(int t_id) {
    record("rem_snmp", t_id);
}
void add_ndis(int tid, int lid, char* ipstart, char* ipend, char* oids) {
    record("add_ndis", tid, lid, ipstart, ipend, oids);
}
void mod_ndis(int tid, int lid, char* ipstart, char* ipend, char* oids) {
    record("mod_ndis", tid, lid, ipstart, ipend, oids);
}
void rem_ndis(int tid) {
    record("rem_ndis", tid);
}
void add_unix_server(int tid, char* us_path) {
    record("add_unix_server", tid, us_path);
}
void modify_unix_server(int tid, char* new_upath) {
    record("modify_unix_server", tid, new_upath);
}
void remove_unix_server(int tid) {
    record("remove_unix_server", tid);
}
static void record_tcp_server(const char* operation, int tid, int port, char** list, int len) {
    std::string addresses;
    size_t count = static_cast<size_t>(len);
    for (size_t i = 0; i < count; i++) {
        addresses += std::string(list[i]) + ",";
    }
    record(operation, tid, port, addresses.c_str(), len);
    if (count > 0) { /* they are the listener's */
        free_uparser_array(&list, &count);
    }
}
void add_tcp_server(int tid, int port, char** ip_list, int ip_list_len) {
    record_tcp_server("add_tcp_server", tid, port, ip_list, ip_list_len);
}
void modify_tcp_server(int tid, int port, char** ip_list, int ip_list_len) {
    record_tcp_server("modify_tcp_server", tid, port, ip_list, ip_list_len);
}
void remove_tcp_server(int tid) {
    record("remove_tcp_server", tid);
}
void add_mysqldesc(int tid, int loc_id, char* host, int port, char* user, char* pass,
                   char* unixsock, char* params, unsigned timeout) {
    record("add_mysqldesc", tid, loc_id, host, port, user, pass, unixsock, params, timeout);
}
void modify_mysqldesc(int tid, int loc_id, char* host, int port, char* user, char* pass,
                      char* unixsock, char* params, unsigned timeout) {
    record("modify_mysqldesc", tid, loc_id, host, port, user, pass, unixsock, params, timeout);
}
void rem_mysqldesc(int t_id) {
    record("rem_mysqldesc", t_id);
}
void add_nettest(int tid, int lid, char* adapter, int pkts_sent, int pkts_recv, int bytes_sent,
                 int bytes_recv, int errors_sent, int errors_recv) {
    record("add_nettest", tid, lid, adapter, pkts_sent, pkts_recv, bytes_sent, bytes_recv,
           errors_sent, errors_recv);
}
void modify_nettest(int tid, int lid, char* adapter, int pkts_sent, int pkts_recv, int bytes_sent,
                    int bytes_recv, int errors_sent, int errors_recv) {
    record("modify_nettest", tid, lid, adapter, pkts_sent, pkts_recv, bytes_sent, bytes_recv,
           errors_sent, errors_recv);
}
void rem_nettest(int tid) {
    record("rem_nettest", tid);
}
char* agent_home = nullptr;

/* Runs a reply and returns the calls it made. */
static std::string run(std::string reply) {
    calls.clear();
    parse_data(reply.data());
    return calls;
}

TEST(Commands, poll_interval) {
    EXPECT_EQ("POL 30\n", run("POL\t0\t30"));
    EXPECT_EQ("", run("POL\t30"));
    EXPECT_EQ("POL -1\n", run("POL\tx\t-1"));
    EXPECT_EQ("POL -7\n", run("POL\tx\t-7"));
    EXPECT_EQ("", run("POL\t1\t0"));
    EXPECT_EQ("", run("POL\t1\tabc"));
    EXPECT_EQ("", run("POL\t1\t30\t1"));
    EXPECT_EQ("", run("POL"));
    EXPECT_EQ("POL 12\n", run("POL\t\t12xyz"));
    EXPECT_EQ("POL 30\n", run("POL\t0\t30\r\n"));
    EXPECT_EQ("", run("POL\t1\t4294967296")); /* 0 in 32 bits */
}

TEST(Commands, check_interval) {
    EXPECT_EQ("", run("CHK\t1\t0"));
    EXPECT_EQ("CHK 5\n", run("CHK\t1\t5"));
    EXPECT_EQ("CHK -1\n", run("CHK\t1\t-1"));
    EXPECT_EQ("", run("CHK\t5"));
    EXPECT_EQ("", run("CHK\t1\t5\t1"));
    EXPECT_EQ("", take_log_text());
}

TEST(Commands, numbers_are_decimal) {
    EXPECT_EQ("add_lda 10 0 8 -3 1 (none)\n", run("LAA\t010\t0x10\t 08\t-3.9\t1e9"));
    EXPECT_EQ("add_diskdesc 10 0 / -1 1e+09 -3.5\n", run("DKA\t010\tx\t/\t1e9\t-3.5GB"));
}

TEST(Commands, load_average) {
    EXPECT_EQ("add_lda 7 3 1 2 4 (none)\n", run("LAA\t7\t3\t1\t2\t4"));
    EXPECT_EQ("add_lda 7 3 1 2 4 db.example\n", run("LAA\t7\t3\t1\t2\t4\tdb.example"));
    EXPECT_EQ("add_lda 7 3 -1 -1 -1 (none)\n", run("LAA\t7\t3\t-1\t-1\t-1\t"));
    EXPECT_EQ("add_lda -7 3 0 0 0 (none)\n", run("LAA\t-7\t3\tx\ty\tz"));
    EXPECT_EQ("", run("LAA\t0\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LAA\tabc\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LAA\t7\t3\t1\t2"));
    EXPECT_EQ("", run("LAA\t7\t3\t1\t2\t4\th\tx"));
    EXPECT_EQ("modify_lda 7 3 1 2 4 (none)\n", run("LAM\t7\t3\t1\t2\t4"));
    EXPECT_EQ("modify_lda 7 3 1 2 4 h\n", run("LAM\t7\t3\t1\t2\t4\th"));
    EXPECT_EQ("", run("LAM\t0\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LAM\t7"));
    EXPECT_EQ("rem_lda 7\n", run("LAD\t7\t0"));
    EXPECT_EQ("", run("LAD\t7"));
    EXPECT_EQ("", run("LAD\t0\t0"));
    EXPECT_EQ("", run("LAD\t7\t0\t0"));
    EXPECT_EQ("", take_log_text()); /* malformed commands are dropped silently */
}

TEST(Commands, local_checkers) {
    struct {
        const char* code;
        const char* fields; /* of the shortest line, the code left out */
        const char* call;
        size_t surplus; /* fields that may follow; SIZE_MAX: any number */
    } const cases[] = {
        {"PRA", "7\t3\t50\t-1\t300\tmy daemon", "add_proc my daemon 7 3 50 -1 300", 0},
        {"PRM", "7\t3\t50\t-1\t300\tx", "mod_proc x 7 3 50 -1 300", 0},
        {"PRD", "7\t0", "rem_proc 7", 0},
        {"PGA", "7\t3\thost\t32\t4\t500\t0", "add_ping 7 3 host 32 4 500 0", 0},
        {"PGM", "7\t3\thost\t32\t4\t500\t1", "mod_ping 7 3 host 32 4 500 1", 0},
        {"PGD", "7\t0", "rem_ping 7", 0},
        {"HPD", "7", "rem_http 7", 0},
        {"MMA", "7\t3\t1\t2\t4\t5\t6", "add_mem 7 3 1 2 4 5 6 (none)", 1},
        {"MMM", "7\t3\t1\t2\t4\t5\t6", "modify_mem 7 3 1 2 4 5 6 (none)", 1},
        {"MMD", "7\t0", "rem_mem 7", 0},
        {"DKA", "7\t3\t/(/dev/sda1|ext4)\t1.5", "add_diskdesc 7 3 /(/dev/sda1|ext4) 1.5 -1 -1", 1},
        {"DKM", "7\t3\t/\tx", "modify_disk 7 3 / 0 -1 -1", 1},
        {"DKD", "7\t0", "rem_disk 7", 0},
        {"CUA", "7\t3\t1\t2\t4\t5\t6", "add_cpu 7 3 1 2 4 5 6 (none) (none)", 2},
        {"CUM", "7\t3\t1\t2\t4\t5\t6", "modify_cpu 7 3 1 2 4 5 6 (none) (none)", 2},
        {"CUD", "7\t0", "rem_cpu 7", 0},
        {"NTA", "7\t3\teth0\t1\t2\t4\t5\t6\t8", "add_nettest 7 3 eth0 1 2 4 5 6 8", SIZE_MAX},
        {"NTM", "7\t3\teth0\t1\t2\t4\t5\t6\t8", "modify_nettest 7 3 eth0 1 2 4 5 6 8", SIZE_MAX},
        {"NTD", "7\t0", "rem_nettest 7", SIZE_MAX},
        {"USA", "7\t/run/feed", "add_unix_server 7 /run/feed", 0},
        {"USM", "7\t/run/feed", "modify_unix_server 7 /run/feed", 0},
        {"TSA", "7\t8080\tall", "add_tcp_server 7 8080  0", 0},
        {"TSM", "7\t8080\t10.0.0.1;10.0.0.2", "modify_tcp_server 7 8080 10.0.0.1,10.0.0.2, 2", 0},
        {"TSD", "7", "remove_tcp_server 7", 0},
        {"MQA", "7\t3\thost\t3307\t/sock\tuser\tpass\tUptime;Threads|9|1\t5",
         "add_mysqldesc 7 3 host 3307 user pass /sock Uptime;Threads|9|1 5", 0},
        {"MQA", "7\t3\thost\t0\t\tuser\tpass\tUptime\t0",
         "add_mysqldesc 7 3 host 3306 user pass  Uptime 10", 0},
        {"MQM", "7\t3\thost\t0\t\tuser\tpass\tUptime\tx",
         "modify_mysqldesc 7 3 host 3306 user pass  Uptime 10", 0},
        {"MQD", "7\t0", "rem_mysqldesc 7", 0},
        {"SWD", "7", "rem_snmp 7", 0},
        {"STD", "7\t0", "rem_snmp 7", 0},
        {"DCR", "7", "rem_ndis 7", SIZE_MAX},
    };
    take_log();
    for (const auto& c : cases) {
        std::string line = std::string(c.code) + "\t" + c.fields;
        EXPECT_EQ(std::string(c.call) + "\n", run(line));
        EXPECT_EQ("", run(line.substr(0, line.rfind('\t')))) << "a field short: " << line;
        EXPECT_EQ("", run(std::string(c.code)));
        std::string id_0 = line, id_text = line;
        EXPECT_EQ("", run(id_0.replace(4, 1, "0"))) << id_0;
        EXPECT_EQ("", run(id_text.replace(4, 1, "x"))) << id_text;
        if (c.surplus == SIZE_MAX) {
            EXPECT_EQ(std::string(c.call) + "\n", run(line + "\tmore\tmore\tmore"));
        } else {
            for (size_t i = 0; i <= c.surplus; i++) {
                line += "\tx";
            }
            EXPECT_EQ("", run(line)) << "a field too many: " << line;
        }
    }
    EXPECT_EQ("", take_log_text()); /* malformed commands are dropped silently */
}

TEST(Commands, pings_without_a_size_a_count_or_a_time_out) {
    for (const char* line : {"PGA\t7\t3\th\t0\t4\t500\t0", "PGA\t7\t3\th\t32\t0\t500\t0",
                             "PGA\t7\t3\th\t32\t4\t0\t0", "PGM\t7\t3\th\tx\t4\t500\t0"}) {
        EXPECT_EQ("", run(line)) << line;
    }
}

TEST(Commands, pages) {
    const std::string fields =
        "\t7\t3\thost\t/path\t443\tmatch\tpost\tuser\tpass\t20\t1\t2\t3\t4\t5";
    take_log();
    EXPECT_EQ("add_http 7 3 host /path 443 match post user pass 20 (none) 1 2 3 4 5\n",
              run("HPA" + fields));
    EXPECT_EQ("modify_http 7 3 host /path 443 match post user pass 20 (none) 1 2 3 4 5\n",
              run("HPM" + fields));
    EXPECT_EQ("add_http 7 3 host /path 80      (none) 0 0 0 0 5\n",
              run("HPA\t7\t3\thost\t/path\t80\t\t\t\t\t\t0\t0\t0\t0\t5"));
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ("", run("HPA"));
    EXPECT_EQ("", run("HPA" + fields + "\tx"));
    EXPECT_EQ("", run("HPM\t7"));
    EXPECT_EQ("", run("HPA\tx" + fields.substr(2)));
    EXPECT_EQ("", run("HPM\t0" + fields.substr(2)));
    EXPECT_EQ("0 ERROR: HPA argument's count is 1, expected 16\n"
              "0 ERROR: HPA argument's count is 17, expected 16\n"
              "0 ERROR: HPM argument's count is 2, expected 16\n"
              "0 ERROR: HPA test ID is incorrect: x, 0\n"
              "0 ERROR: HPM test ID is incorrect: 0, 0\n",
              take_log_text());
}

TEST(Commands, feed_listeners) {
    EXPECT_EQ("add_tcp_server 7 8080 10.0.0.1,10.0.0.2, 2\n",
              run("TSA\t7\t8080\t10.0.0.1;10.0.0.2"));
    EXPECT_EQ("add_tcp_server 7 8080  0\n", run("TSA\t7\t8080\tall;10.0.0.2"));
    EXPECT_EQ("add_tcp_server 7 8080 10.0.0.1,all, 2\n", run("TSA\t7\t8080\t10.0.0.1;all"));
    EXPECT_EQ("", run("TSA\t7\t0\tall"));
    EXPECT_EQ("", run("TSM\t7\tx\tall"));
    EXPECT_EQ("remove_unix_server 7\n", run("USD\t7"));
    EXPECT_EQ("remove_unix_server 0\n", run("USD\t0"));
    EXPECT_EQ("", run("USD"));
    EXPECT_EQ("", run("USD\t7\t0"));
}

/* No addresses must not come to mean all of them. */
TEST(Commands, a_feed_listener_with_an_empty_list_is_refused) {
    take_log();
    for (const char* code : {"TSA", "TSM"}) {
        std::string line = code;
        EXPECT_EQ("", run(line + "\t7\t8080\t\t"));
        EXPECT_EQ("0 ERROR: " + line + " address list is empty, the command is ignored: 7\n",
                  take_log_text());
        EXPECT_EQ("", run(line + "\t7\t0\t\t"));
        EXPECT_EQ("", run(line + "\t0\t8080\t\t"));
        EXPECT_EQ("", run(line + "\t7\t8080\t")); /* three fields */
        EXPECT_EQ("", run(line + "\t7\t8080\t\t\t"));
        EXPECT_EQ("", take_log_text());
    }
    EXPECT_EQ("add_tcp_server 7 8080 ;, 1\n", run("TSA\t7\t8080\t;"));
    EXPECT_EQ("add_tcp_server 7 8080 ;10.0.0.1, 1\n", run("TSA\t7\t8080\t;10.0.0.1"));
    EXPECT_EQ("add_tcp_server 7 8080 \r, 1\n", run("TSA\t7\t8080\t\r"));
    EXPECT_EQ("", take_log_text());
}

TEST(Commands, snmp_walks_and_tables) {
    const std::string fields =
        "\t7\t3\thost\t1161\t20\t3\t1.3.6\tpub\tmd5\tuser\tpass\tdes\tpriv\t5\t2";
    const std::string arguments = " 20 1.3.6 host 1161 3 5 2 pub user pass priv md5 des (none)\n";
    take_log();
    EXPECT_EQ("add_snmp 7 3 3" + arguments, run("SWA" + fields));
    EXPECT_EQ("add_snmp 7 3 1" + arguments, run("STA" + fields));
    EXPECT_EQ("mod_snmp 7 3 1" + arguments, run("STM" + fields));
    EXPECT_EQ("", run("SWM" + fields));
    EXPECT_EQ("", run("SWM"));
    for (const char* code : {"SWA", "STA", "STM"}) {
        EXPECT_EQ("", run(code + fields + "\tx"));
        EXPECT_EQ("", run(code + fields.substr(0, fields.size() - 2)));
        EXPECT_EQ("", run(std::string(code) + "\t0" + fields.substr(2)));
        EXPECT_EQ("", run(code));
    }
    EXPECT_EQ("add_snmp 7 161 3 0 (none) (none) 0 0 0 0 (none) (none) (none) (none) (none) (none) "
              "(none)\n",
              run("SWA\t7\t3\t\t0\t0\t\t\t\t\t\t\t\t\t\t0"));
    EXPECT_EQ("mod_snmp 7 161 1 0 1.3 h 0 2 1 0 pub (none) (none) (none) (none) (none) (none)\n",
              run("STM\t7\t3\th\tx\t0\t2\t1.3\tpub\t\t\t\t\t\t1\t0"));
    EXPECT_EQ("", take_log_text());
}

TEST(Commands, snmp_gets) {
    const std::string fields =
        "\t7\t3\thost\t1161\t3\t1.3;1.4\tpub\tmd5\tuser\tpass\tdes\t1\t5\t2\t1,5;2,9";
    take_log();
    EXPECT_EQ("add_snmp 7 3 2 0 1.3;1.4 host 1161 3 5 2 pub user pass des md5 des 1,5;2,9\n",
              run("SPA" + fields));
    EXPECT_EQ("mod_snmp 7 3 2 0 1.3;1.4 host 1161 3 5 2 pub user pass des md5 des 1,5;2,9\n",
              run("SPM" + fields));
    for (const char* code : {"SPA", "SPM"}) {
        EXPECT_EQ("", run(code + fields + "\tx"));
        EXPECT_EQ("", run(code + fields.substr(0, fields.rfind('\t'))));
        EXPECT_EQ("", run(std::string(code) + "\t0" + fields.substr(2)));
        EXPECT_EQ("", run(code));
    }
    /* Without a flag no privacy pass phrase; without a port the standard one. */
    EXPECT_EQ("add_snmp 7 3 2 0 1.3 h 161 2 1 0 (none) (none) (none) (none) (none) des -\n",
              run("SPA\t7\t3\th\t0\t2\t1.3\t\t\t\t\tdes\t\t1\t0\t-"));
    EXPECT_EQ("add_snmp 7 3 2 0 (none) (none) 161 2 1 0 (none) (none) (none) (none) (none) "
              "(none) -\n",
              run("SPA\t7\t3\t\t0\t2\t\t\t\t\t\t\t1\t1\t0\t-"));
    EXPECT_EQ("", take_log_text());
}

TEST(Commands, a_get_is_only_removed_with_the_id_that_none_has) {
    EXPECT_EQ("", run("SPD\t5"));
    EXPECT_EQ("", run("SPD\t-1"));
    EXPECT_EQ("rem_snmp 0\n", run("SPD\t0"));
    EXPECT_EQ("rem_snmp 0\n", run("SPD\tx"));
    EXPECT_EQ("", run("SPD"));
    EXPECT_EQ("", run("SPD\t0\t0"));
}

TEST(Commands, scans) {
    take_log();
    EXPECT_EQ("add_ndis 7 3 10.0.0.1 10.0.0.9 (none)\n", run("DCA\t7\t3\t10.0.0.1\t10.0.0.9"));
    EXPECT_EQ("add_ndis 7 3 10.0.0.1 10.0.0.9 1.3;1.4\n",
              run("DCA\t7\t3\t10.0.0.1\t10.0.0.9\t1.3;1.4\tmore"));
    EXPECT_EQ("mod_ndis 7 3 10.0.0.1 10.0.0.9 1.3\n", run("DCM\t7\t3\t10.0.0.1\t10.0.0.9\t1.3"));
    EXPECT_EQ("mod_ndis 7 3 10.0.0.1 10.0.0.9 (none)\n", run("DCM\t7\t3\t10.0.0.1\t10.0.0.9"));
    EXPECT_EQ("mod_ndis 7 3 10.0.0.1 (none) (none)\n", run("DCM\t7\t3\t10.0.0.1"));
    EXPECT_EQ("", run("DCA\t0\t3\t10.0.0.1\t10.0.0.9"));
    EXPECT_EQ("", run("DCM\tx\t3\t10.0.0.1\t10.0.0.9"));
    EXPECT_EQ("", run("DCR"));
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ("", run("DCA\t7\t3\t10.0.0.1"));
    EXPECT_EQ("", run("DCA"));
    EXPECT_EQ("", run("DCM\t7\t3"));
    EXPECT_EQ("0 ERROR: Wrong number of parameters for DCA: \n"
              "0 ERROR: Wrong number of parameters for DCA: \n"
              "0 ERROR: Wrong number of parameters for DCM: \n",
              take_log_text());
}

TEST(Commands, optional_fields) {
    EXPECT_EQ("add_mem 7 3 1 2 4 5 6 h\n", run("MMA\t7\t3\t1\t2\t4\t5\t6\th"));
    EXPECT_EQ("modify_mem 7 3 1 2 4 5 6 h\n", run("MMM\t7\t3\t1\t2\t4\t5\t6\th"));
    EXPECT_EQ("add_cpu 7 3 1 2 4 5 6 h (none)\n", run("CUA\t7\t3\t1\t2\t4\t5\t6\th"));
    EXPECT_EQ("add_cpu 7 3 1 2 4 5 6 h linux\n", run("CUA\t7\t3\t1\t2\t4\t5\t6\th\tlinux"));
    EXPECT_EQ("modify_cpu 7 3 1 2 4 5 6 h (none)\n", run("CUM\t7\t3\t1\t2\t4\t5\t6\th"));
    EXPECT_EQ("modify_cpu 7 3 1 2 4 5 6 h x\n", run("CUM\t7\t3\t1\t2\t4\t5\t6\th\tx"));
}

/* Five fields watch the free space, six what is read and written. */
TEST(Commands, two_kinds_of_disk_test) {
    EXPECT_EQ("add_diskdesc 5 1 / 10 -1 -1\n", run("DKA\t5\t1\t/\t10"));
    EXPECT_EQ("add_diskdesc 5 1 / -1 10 20\n", run("DKA\t5\t1\t/\t10\t20"));
    EXPECT_EQ("modify_disk 5 1 / -1 10 -1\n", run("DKM\t5\t1\t/\t10\t-1"));
}

TEST(Commands, only_the_low32_bits_of_an_id_count) {
    EXPECT_EQ("", run("LAD\t4294967296\t0"));
    EXPECT_EQ("rem_lda 1\n", run("LAD\t4294967297\t0"));
    EXPECT_EQ("rem_lda -1\n", run("LAD\t99999999999999999999\t0"));
}

TEST(Commands, unknown_codes_are_logged) {
    take_log();
    EXPECT_EQ("", run("XYZ"));
    EXPECT_EQ("0 ERROR: Invalid test string received: XYZ\n", take_log_text());
    EXPECT_EQ("", run("LAAX\t7\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LA\t7\t3\t1\t2\t4"));
    EXPECT_EQ("", run("laa\t7\t3\t1\t2\t4"));
    EXPECT_EQ("0 ERROR: Invalid test string received: LAAX\n"
              "0 ERROR: Invalid test string received: LA\n"
              "0 ERROR: Invalid test string received: laa\n",
              take_log_text());
    EXPECT_EQ("", run("%s%n\t1"));
    EXPECT_EQ("0 ERROR: Invalid test string received: %s%n\n", take_log_text());
}

/* It stays in the last field, and in a code that stands alone. */
TEST(Commands, a_carriage_return_is_no_part_of_the_line_end) {
    take_log();
    EXPECT_EQ("add_lda 7 3 1 2 4 h\r\n", run("LAA\t7\t3\t1\t2\t4\th\r\n"));
    EXPECT_EQ("", run("\r\nXYZ\r\n"));
    EXPECT_EQ("0 ERROR: Invalid test string received: \r\n"
              "0 ERROR: Invalid test string received: XYZ\r\n",
              take_log_text());
}

TEST(Commands, lines_of_a_reply) {
    take_log();
    EXPECT_EQ("POL 1\nadd_lda 1 1 1 1 1 (none)\nrem_lda 1\n",
              run("POL\t0\t1\n\nLAA\t1\t1\t1\t1\t1\nLAD\t1\t0\n"));
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ("", run(""));
    parse_data(nullptr);
}

/* The calls and the log of a reply that is first split into all of its lines. */
static std::string run_split(const std::string& reply) {
    calls.clear();
    char** lines = nullptr;
    size_t line_count = 0;
    uparser(reply.c_str(), &lines, &line_count, '\n');
    for (size_t i = 0; i < line_count; i++) {
        char** fields = nullptr;
        size_t field_count = 0;
        if (uparser(lines[i], &fields, &field_count, '\t')) {
            add_from_array(fields, field_count);
            free_uparser_array(&fields, &field_count);
        }
    }
    free_uparser_array(&lines, &line_count);
    return calls + take_log_text();
}

TEST(Commands, lines_are_those_of_a_split_text) {
    take_log();
    std::vector<std::string> replies = {"\n",
                                        "\n\n",
                                        "\n\n\n",
                                        "\nPOL\t0\t1",
                                        "\n\nPOL\t0\t1",
                                        "POL\t0\t1\n\n",
                                        "\t",
                                        "\t\n\t\n",
                                        "\tPOL\t0\t1",
                                        "\n\tPOL\t0\t1\n",
                                        "POL\t0\t1\t",
                                        "POL\t0\t1\t\t",
                                        "POL\t\t",
                                        "POL\t0\t\n1",
                                        "\r\n\r\n",
                                        "x\n",
                                        "DCA\t1\t2\t3\t4",
                                        "DCM\t1\t2\t3",
                                        "DCA\t1\t2\t3\t4\t"};
    for (const char* code : {"HPA", "NTA", "SWM", "STA", "XYZ"}) {
        for (int tabs = 8; tabs < 20; tabs++) {
            std::string empty = code + std::string(size_t(tabs), '\t');
            std::string filled = code;
            for (int i = 0; i < tabs; i++) {
                filled += "\t" + std::to_string(i + 1);
            }
            for (const std::string& line : {empty, filled}) {
                replies.insert(replies.end(), {line, line + "\t", line + "\t\n", line + "\nx"});
            }
        }
    }
    std::minstd_rand random(1);
    const char* const pieces[] = {"\n", "\n", "\t", "\t", "\t1", "\t2", "\r", "POL", "NTA", "x"};
    for (int i = 0; i < 2000; i++) {
        std::string reply;
        for (size_t length = random() % 40; length > 0; length--) {
            reply += pieces[random() % std::size(pieces)];
        }
        replies.push_back(reply);
    }
    for (const std::string& reply : replies) {
        std::string expected = run_split(reply);
        std::string seen = run(reply);
        EXPECT_EQ(expected, seen + take_log_text()) << testing::PrintToString(reply);
    }
}

TEST(Commands, every_field_counts) {
    take_log();
    EXPECT_EQ("", run("HPA" + std::string(1000000, '\t') + "x"));
    EXPECT_EQ("0 ERROR: HPA argument's count is 1000001, expected 16\n", take_log_text());
    EXPECT_EQ("", run("POL\t0\t7" + std::string(1000000, '\t')));
    EXPECT_EQ("", take_log_text());
}

/* Whatever a reply consists of, it takes little memory besides its own. */
TEST(Commands, a_reply_is_not_copied) {
    const size_t many = 1000000, little = 65536;
    const std::string net = "NTA\t1\t2\teth0\t3\t4\t5\t6\t7\t8";
    struct {
        std::string reply, call;
    } cases[] = {
        {"SWM" + std::string(many, '\n') + net + std::string(many, '\n'),
         "add_nettest 1 2 eth0 3 4 5 6 7 8\n"},
        {"SWM\t" + std::string(many, 'x') + "\n" + net, "add_nettest 1 2 eth0 3 4 5 6 7 8\n"},
        {net + std::string(many, '\t'), "add_nettest 1 2 eth0 3 4 5 6 7 8\n"},
        {net + "\t" + std::string(many, 'x'), "add_nettest 1 2 eth0 3 4 5 6 7 8\n"},
    };
    for (auto& c : cases) {
        calls.clear();
        size_t before = bytes_in_use();
        parse_data(c.reply.data());
        EXPECT_EQ(c.call, calls);
        EXPECT_LT(in_use_at_call, before + little + (c.reply.back() == 'x' ? many : 0));
    }
    EXPECT_EQ("", take_log_text());
}

TEST(Commands, no_fields_nothing_happens) {
    take_log();
    char code[] = "XYZ";
    char* fields[] = {nullptr, code};
    add_from_array(nullptr, 3);
    add_from_array(fields, 2);
    add_from_array(fields + 1, 0);
    EXPECT_EQ("", take_log_text());
}

TEST(Commands, long_reply_can_be_cancelled_between_two_commands) {
    std::string reply;
    for (int i = 0; i < 1000; i++) {
        reply += "POL\t0\t" + std::to_string(i + 1) + "\n";
    }
    calls.clear();
    pthread_t thread;
    auto cancelled = [](void* text) -> void* {
        cancel_off except_in_waits;
        pthread_cancel(pthread_self());
        parse_data(static_cast<char*>(text));
        return text;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, cancelled, reply.data()));
    void* ended = nullptr;
    pthread_join(thread, &ended);
    EXPECT_EQ(PTHREAD_CANCELED, ended);
    EXPECT_EQ("", calls);
}

namespace {

/* A home directory whose updater writes down its arguments. */
class Updater : public testing::Test {
protected:
    std::filesystem::path home =
        std::filesystem::path(testing::TempDir()) / ("commands_home." + std::to_string(getpid()));
    std::string home_text = home.string();

    void SetUp() override {
        std::filesystem::create_directories(home / "bin");
        agent_home = home_text.data();
        last_update_time = 0;
        take_log();
    }
    void TearDown() override {
        std::filesystem::remove_all(home);
        agent_home = nullptr;
    }
    void script(const std::string& body) {
        std::filesystem::path file = home / "bin" / "updater";
        std::ofstream(file) << "#!/bin/sh\n" << body;
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    }
    std::string said() {
        std::ifstream in(home / "said");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::string pid = std::to_string(getpid());
};

} // namespace

TEST_F(Updater, runs_the_updater_with_its_arguments) {
    script("echo \"$@\" >> " + home_text + "/said; exit 3");
    run("UPD\tvindral\thttps://x/y\tabc123");
    EXPECT_EQ(pid + " " + home_text + "/bin/vindral https://x/y abc123\n", said());
    EXPECT_EQ("-1 Starting Update...\n0 " + home_text + "/bin/updater " + pid + " " + home_text +
                  "/bin/vindral https://x/y abc123\n0 System call return: 768\n",
              take_log_text());
}

TEST_F(Updater, gets_no_descriptor_that_a_library_left_open) {
    unique_fd left_open(fcntl(STDOUT_FILENO, F_DUPFD, 100));
    ASSERT_GE(left_open.get(), 100);
    script("ls /proc/$$/fd > " + home_text + "/said");
    run("UPD\tvindral\thttps://x/y\tabc123");
    EXPECT_NE(said().find("2\n"), std::string::npos);
    EXPECT_EQ(said().find(std::to_string(left_open.get())), std::string::npos) << said();
}

/* Programs that go through all descriptors there may be, or know no more than 1024, are at home
 * with the limit that the system gives them. */
TEST_F(Updater, gets_the_limit_of_descriptors_that_the_agent_was_started_with) {
    rlimit own;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &own));
    ASSERT_LT(100U, own.rlim_cur);
    command_descriptors = 100;
    script("echo \"$(ulimit -S -n) $@\" > " + home_text + "/said; exit 3");
    run("UPD\tvindral\thttps://x/y\tabc123");
    command_descriptors = 0;
    EXPECT_EQ("100 " + pid + " " + home_text + "/bin/vindral https://x/y abc123\n", said());
    EXPECT_EQ("-1 Starting Update...\n0 " + home_text + "/bin/updater " + pid + " " + home_text +
                  "/bin/vindral https://x/y abc123\n0 System call return: 768\n",
              take_log_text());
}

TEST_F(Updater, a_second_request_within_ten_minutes_is_ignored) {
    script("echo \"$@\" >> " + home_text + "/said");
    EXPECT_EQ(0, no_update_yet); /* the first request always runs */
    time_t before = time(nullptr);
    run("UPD\ta\tb\tc");
    EXPECT_LE(before, last_update_time);
    EXPECT_GE(time(nullptr), last_update_time);
    take_log();
    run("UPD\ta\tb\td");
    EXPECT_EQ("", take_log_text());
    last_update_time = time(nullptr) - 599;
    run("UPD\ta\tb\te");
    EXPECT_EQ("", take_log_text());
    last_update_time = time(nullptr) - 600;
    run("UPD\ta\tb\tf");
    EXPECT_EQ(pid + " " + home_text + "/bin/a b c\n" + pid + " " + home_text + "/bin/a b f\n",
              said());
}

TEST_F(Updater, field_count) {
    run("UPD\ta\tb");
    run("UPD\ta\tb\tc\td");
    EXPECT_EQ("", take_log_text());
}

TEST_F(Updater, a_missing_updater_is_the_shells_failure) {
    run("UPD\ta\tb\tc");
    EXPECT_NE(std::string::npos, take_log_text().find("0 System call return: 32512\n"));
}

TEST_F(Updater, outlives_a_stop_of_the_agent) {
    script("echo started >> " + home_text + "/said\n" + "while [ ! -e " + home_text +
           "/go ]; do sleep 0.01; done\necho finished >> " + home_text + "/said\n");
    pthread_t thread;
    auto update = [](void*) -> void* {
        cancel_off except_in_waits;
        char a[] = "a", b[] = "b", c[] = "c";
        start_updater(a, b, c);
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, update, nullptr));
    while (said() != "started\n") {
        usleep(1000);
    }
    pthread_cancel(thread);
    void* ended = nullptr;
    pthread_join(thread, &ended);
    EXPECT_EQ(PTHREAD_CANCELED, ended);
    EXPECT_EQ("started\n", said());
    std::ofstream(home / "go") << "";
    while (said() != "started\nfinished\n") {
        usleep(1000);
    }
}
