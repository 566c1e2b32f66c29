/* An SNMP agent for tests, inside the test program: a second session of the library listens on a
 * loopback port and is served while a check waits for its answer, in the same thread. The exchange
 * is complete, with packets through the kernel. */
#ifndef VINDRAL_SNMP_AGENT_H
#define VINDRAL_SNMP_AGENT_H

#include "snmpmon_lib.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

using oid_path = std::vector<oid>;

/* A value as it goes into a packet: its tag and its bytes as the library keeps them. */
struct agent_value {
    u_char type;
    std::string bytes;
};
agent_value number(u_char type, long value);
agent_value octets(const std::string& text, u_char type = ASN_OCTET_STR);
agent_value upper_lower(u_char type, u_long upper, u_long lower); /* 64-bit types */
agent_value object_id(const oid_path& path);

/* Binds the real library with the tests' own MIB and without the host's configuration; once per
 * program, false when there is none. */
bool use_real_library();

oid_path path_of(const std::string& dotted);

class snmp_agent {
public:
    explicit snmp_agent(int port = 0); /* 0: one that the kernel picks */
    ~snmp_agent();
    snmp_agent(const snmp_agent&) = delete;
    snmp_agent& operator=(const snmp_agent&) = delete;

    int port() const { return port_; }

    /* For an agent in a process of its own. */
    [[noreturn]] void serve_on();

    std::map<oid_path, agent_value> values;
    int requests = 0;
    int last_command = 0;
    long last_non_repeaters = 0;
    long last_repetitions = 0;
    size_t last_variables = 0;

    /* Has the last say about a response, which holds what a correct agent would send. */
    std::function<void(const netsnmp_pdu* request, netsnmp_pdu* response)> twist;

    /* Does not answer at all. */
    bool silent = false;

    void add(netsnmp_pdu* response, const oid_path& path, const agent_value& value) const;
    void clear(netsnmp_pdu* response) const;

private:
    static int serve(int operation, netsnmp_session* session, int, netsnmp_pdu* request,
                     void* self);
    void fill(const netsnmp_pdu* request, netsnmp_pdu* response) const;
    oid_path add_next(netsnmp_pdu* response, const oid_path& path) const;

    netsnmp_session* session_ = nullptr;
    int port_ = 0;
};

#endif
