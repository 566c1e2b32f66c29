#include "snmp_agent.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>

/* A function of the library that the agent has no use for. */
#define LIBRARY(name) reinterpret_cast<decltype(&name)>(dlsym(lib_handle, #name))

template <typename T>
static std::string bytes_of(const T& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

agent_value number(u_char type, long value) {
    return {type, bytes_of(value)};
}

agent_value octets(const std::string& text, u_char type) {
    return {type, text};
}

agent_value upper_lower(u_char type, u_long upper, u_long lower) {
    return {type, bytes_of(counter64{upper, lower})};
}

agent_value object_id(const oid_path& path) {
    return {ASN_OBJECT_ID,
            std::string(reinterpret_cast<const char*>(path.data()), path.size() * sizeof(oid))};
}

bool use_real_library() {
    static const bool bound = [] {
        setenv("MIBDIRS", VINDRAL_FIXTURES "/snmp", 1);
        setenv("MIBS", "VINDRAL-TEST-MIB", 1);
        setenv("SNMPCONFPATH", "/dev/null", 1);
        setenv("SNMP_PERSISTENT_DIR", "/dev/null", 1); /* nothing can be made in there */
        if (!init_snmp_lib()) {
            return false;
        }
        init_defaults();
        libpo_init_snmp("Vindral_snmp");
        return true;
    }();
    return bound;
}

oid_path path_of(const std::string& dotted) {
    oid_path path;
    std::istringstream in(dotted);
    for (std::string part; std::getline(in, part, '.');) {
        path.push_back(std::stoul(part));
    }
    return path;
}

snmp_agent::snmp_agent(int port) {
    const std::string where = "udp:127.0.0.1:" + std::to_string(port);
    netsnmp_transport* transport = LIBRARY(netsnmp_tdomain_transport)(where.c_str(), 1, "udp");
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(transport->sock, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    netsnmp_session settings;
    libpo_snmp_sess_init(&settings);
    settings.version = SNMP_DEFAULT_VERSION;
    settings.callback = serve;
    settings.callback_magic = this;
    settings.isAuthoritative = SNMP_SESS_UNKNOWNAUTH;
    session_ = LIBRARY(snmp_add)(&settings, transport, nullptr, nullptr);
}

void snmp_agent::serve_on() {
    for (;;) {
        fd_set ready;
        FD_ZERO(&ready);
        int count = 0, block = 1;
        timeval none = {};
        LIBRARY(snmp_select_info)(&count, &ready, &none, &block);
        if (select(count, &ready, nullptr, nullptr, nullptr) > 0) {
            LIBRARY(snmp_read)(&ready);
        }
    }
}

snmp_agent::~snmp_agent() {
    libpo_snmp_close(session_);
}

void snmp_agent::add(netsnmp_pdu* response, const oid_path& path, const agent_value& value) const {
    LIBRARY(snmp_pdu_add_variable)
    (response, path.data(), path.size(), value.type, value.bytes.data(), value.bytes.size());
}

void snmp_agent::clear(netsnmp_pdu* response) const {
    LIBRARY(snmp_free_varbind)(response->variables);
    response->variables = nullptr;
}

oid_path snmp_agent::add_next(netsnmp_pdu* response, const oid_path& path) const {
    auto next = values.upper_bound(path);
    if (next == values.end()) {
        add(response, path, {SNMP_ENDOFMIBVIEW, ""});
        return path;
    }
    add(response, next->first, next->second);
    return next->first;
}

void snmp_agent::fill(const netsnmp_pdu* request, netsnmp_pdu* response) const {
    std::vector<oid_path> paths;
    for (auto* v = request->variables; v != nullptr; v = v->next_variable) {
        paths.emplace_back(v->name, v->name + v->name_length);
    }
    if (request->command == SNMP_MSG_GET) {
        for (const oid_path& path : paths) {
            auto found = values.find(path);
            add(response, path,
                found != values.end() ? found->second : agent_value{SNMP_NOSUCHOBJECT, ""});
        }
        return;
    }
    long rounds = request->command == SNMP_MSG_GETBULK ? request->max_repetitions : 1;
    for (long i = 0; i < rounds; i++) {
        for (oid_path& path : paths) {
            path = add_next(response, path);
        }
    }
}

int snmp_agent::serve(int operation, netsnmp_session* session, int, netsnmp_pdu* request,
                      void* self) {
    auto& agent = *static_cast<snmp_agent*>(self);
    if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
        return 1;
    }
    agent.requests++;
    agent.last_command = request->command;
    agent.last_non_repeaters = request->non_repeaters;
    agent.last_repetitions = request->max_repetitions;
    agent.last_variables = 0;
    for (auto* v = request->variables; v != nullptr; v = v->next_variable) {
        agent.last_variables++;
    }
    if (agent.silent) {
        return 1;
    }
    netsnmp_pdu* response = LIBRARY(snmp_clone_pdu)(request);
    response->command = SNMP_MSG_RESPONSE;
    response->errstat = 0;
    response->errindex = 0;
    agent.clear(response);
    agent.fill(request, response);
    if (agent.twist) {
        agent.twist(request, response);
    }
    if (!LIBRARY(snmp_send)(session, response)) {
        libpo_snmp_free_pdu(response);
    }
    return 1;
}
