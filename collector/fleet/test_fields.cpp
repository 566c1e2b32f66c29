#include "fleet/test_fields.h"

#include "fleet/addresses.h"
#include "fleet/page_address.h"
#include "fleet/text_check.h"
#include "plan/placeholder.h"

#include <cmath>
#include <cstdint>

namespace {

constexpr std::string_view no_limit = "-1"; /* 0 of disks and interfaces */
constexpr size_t longest_process_name = 15, longest_interface_name = 15;

/* A test under way, and the values to make it of. */
struct making {
    fleet_test& test;
    const given_values& all;
    remarks& wrong;

    const given_value* find(std::string_view key) const {
        auto found = all.find(key);
        return found == all.end() ? nullptr : &found->second;
    }
    bool has(std::string_view key) const { return find(key) != nullptr; }

    const given_value& value() const { return all.at(test.kind->word); }

    std::string text(std::string_view key, std::string_view otherwise = "") const {
        const given_value* found = find(key);
        return found != nullptr ? found->text : std::string(otherwise);
    }

    std::string whole(std::string_view key, std::string_view otherwise) const {
        const given_value* found = find(key);
        return found != nullptr ? std::to_string(std::llround(found->number))
                                : std::string(otherwise);
    }

    /* At the key's value; of a key that is not there at the test's name. */
    void refuse(std::string_view key, const std::string& why) const {
        const given_value* found = find(key);
        wrong.add(found != nullptr ? found->at : test.at, in_ticks(key) + ": " + why);
    }

    /* Remarks each of the keys that is there. */
    void refuse_any(std::initializer_list<const char*> keys, const std::string& why) const {
        for (const char* key : keys) {
            if (has(key)) {
                refuse(key, why);
            }
        }
    }

    void put(std::string field) const { test.fields.push_back(std::move(field)); }
};

bool is_ipv6(std::string_view host) {
    return host.find(':') != host.npos;
}

/* As the SNMP library has it: without a word before it, an IPv6 address is no host. */
std::string snmp_host(const std::string& host) {
    return is_ipv6(host) ? "udp6:[" + host + "]" : host;
}

/* ---- this machine, or another one by SNMP ---- */

void make_load(const making& m) {
    for (const char* key : {"1m", "5m", "15m"}) {
        m.put(m.whole(key, no_limit));
    }
    m.test.target = m.text("host");
    if (m.has("host")) {
        m.put(snmp_host(m.test.target));
    }
}

void make_cpu(const making& m) {
    const bool is_local = !m.has("host"), is_linux = m.text("os") == "linux";
    if (is_local && m.has("os")) {
        m.refuse("os", "this is of another host: name it with `host`");
    }
    if (!is_local && !is_linux) {
        m.refuse_any({"system", "nice", "iowait"},
                     "only of a host with `os: linux` more than user and idle time is known");
    }
    /* A local test compares the system maximum with the nice time, and the other way round. */
    m.put(m.whole("user", no_limit));
    m.put(m.whole(is_local ? "nice" : "system", no_limit));
    m.put(m.whole(is_local ? "system" : "nice", no_limit));
    m.put(m.whole("idle", no_limit));
    m.put(m.whole("iowait", no_limit));
    m.test.target = m.text("host");
    if (!is_local) {
        m.put(snmp_host(m.test.target));
        if (is_linux) {
            m.put("linux");
        }
    }
}

void make_memory(const making& m) {
    if (!m.has("host")) {
        m.refuse_any({"virtual"}, "virtual memory is known of another host only: use `swap`, or "
                                  "name a `host`");
    }
    for (const char* key : {"free", "swap", "virtual", "buffers", "cached"}) {
        m.put(m.whole(key, no_limit));
    }
    m.test.target = m.text("host");
    if (m.has("host")) {
        m.put(snmp_host(m.test.target));
    }
}

void make_disk(const making& m) {
    std::string directory = m.value().text;
    while (directory.size() > 1 && directory.ends_with('/')) {
        directory.pop_back();
    }
    if (!directory.starts_with('/')) {
        m.refuse("disk", in_ticks(directory) +
                             " is no directory: one such as /home is meant, where "
                             "the disk is mounted");
    } else if (directory.find('(') != directory.npos) {
        m.refuse("disk", "agents cannot watch a directory with an opening parenthesis in its name");
    }
    m.test.target = m.test.looks_for = directory;
    m.put(directory);
    const given_value* free = m.find("free");
    if (free != nullptr && free->is_share) {
        m.test.free_share = free->number;
    }
    m.put(free == nullptr || free->is_share ? "0" : number_text(free->number));
}

void make_process(const making& m) {
    const std::string& name = m.value().text;
    const size_t parenthesis = name.find(')');
    if (parenthesis != name.npos) {
        m.refuse("process", "agents know this one by what stands before the parenthesis: " +
                                in_ticks(name.substr(0, parenthesis)));
    } else if (name.size() > longest_process_name) {
        m.refuse("process",
                 "the kernel knows processes by the first 15 characters of their names: " +
                     in_ticks(name.substr(0, longest_process_name)));
    }
    m.test.target = name;
    m.put(m.whole("cpu", no_limit));
    m.put(m.whole("resident", no_limit));
    m.put(m.whole("virtual", no_limit));
    m.put(name);
}

void make_network(const making& m) {
    const std::string& name = m.value().text;
    if (name.size() > longest_interface_name || name.find_first_of(" /") != name.npos) {
        m.refuse("network", in_ticks(name) + " is no name of an interface, such as eth0");
    }
    m.test.target = m.test.looks_for = name;
    m.put(name);
    for (const char* both : {"packets", "errors"}) {
        for (const char* way : {" sent", " received"}) {
            if (m.has(both) && m.has(std::string(both) + way)) {
                m.refuse(std::string(both) + way, in_ticks(both) + " is for both ways already");
            }
        }
    }
    for (const char* key : {"packets", "", "errors"}) {
        for (const char* way : {"sent", "received"}) {
            const std::string whole = *key != '\0' ? std::string(key) + " " + way : way;
            m.put(m.whole(whole, m.whole(key, "0")));
        }
    }
}

/* ---- what is reached over the network ---- */

void make_ping(const making& m) {
    m.test.target = m.value().text;
    if (is_ipv6(m.test.target)) {
        m.refuse("ping", "agents send pings to IPv4 addresses only");
    }
    const given_value* packets = m.find("packets");
    const int64_t count = packets != nullptr ? std::llround(packets->number) : 3;
    const given_value* lost = m.find("lost");
    if (lost != nullptr && lost->number >= static_cast<double>(count)) {
        m.refuse("lost", "of " + std::to_string(count) + " packets no more than " +
                             std::to_string(count) + " can be lost, so this is no limit: " +
                             std::to_string(count - 1) + " at the most");
    }
    m.put(m.test.target);
    m.put(m.whole("size", "56"));
    m.put(std::to_string(count));
    m.put(m.whole("within", "1000"));
    m.put(m.whole("lost", std::to_string(count - 1)));
}

void check_page_keys(const making& m, const std::string& method) {
    if (m.has("contains") && m.has("without")) {
        m.refuse("without", "agents look for one text in a page: make two tests of it");
    }
    if (method == "head") {
        m.refuse_any({"contains", "without"}, "a page asked for by `method: head` has no text");
    }
    if (m.has("post") && method != "post") {
        m.refuse("method", "form data is sent by `post`");
    }
    if (m.has("user") != m.has("password")) {
        m.refuse(m.has("user") ? "user" : "password",
                 m.has("user") ? "`password` is missing" : "`user` is missing");
    }
    if (m.text("user").find(':') != std::string::npos) {
        m.refuse("user", "the name cannot have a colon: a password would begin there");
    }
}

void make_http(const making& m) {
    page_address page;
    if (std::string why = read_page_address(m.value().text, page); !why.empty()) {
        m.refuse("http", why);
    }
    const std::string method = m.text("method", m.has("post") ? "post" : "get");
    check_page_keys(m, method);
    m.test.target = shown_page(m.value().text);
    const bool has_text = m.has("contains") || m.has("without");
    const given_value* redirects = m.find("redirects");
    m.put(page.host);
    m.put(page.path);
    m.put(std::to_string(page.port));
    m.put(m.text("contains", m.text("without")));
    m.put(m.text("post"));
    m.put(m.text("user"));
    m.put(m.text("password"));
    m.put(m.whole("within", "10"));
    m.put(page.is_tls ? "1" : "0");
    m.put(redirects == nullptr || redirects->number != 0 ? "1" : "0");
    m.put(has_text ? "1" : "0"); /* the whole page: else the text is not looked for */
    m.put(m.has("without") ? "0" : "1");
    m.put(method == "post" ? "1" : method == "head" ? "2" : "0");
}

/* ---- SNMP ---- */

/* Community, or authentication, user and pass phrase: each kind has them in this order. */
struct snmp_credentials {
    std::string version, community = {}, authentication = {}, user = {}, password = {};
};

snmp_credentials read_credentials(const making& m) {
    snmp_credentials c = {.version = m.text("version", "2")};
    if (c.version != "3") {
        m.refuse_any({"user", "password", "authentication"},
                     "this is of SNMP version 3: add `version: 3`");
        c.community = m.text("community", "public");
        return c;
    }
    m.refuse_any({"community"}, "SNMP version 3 has a user and a password instead");
    for (const char* key : {"user", "password"}) {
        if (!m.has(key)) {
            m.refuse(key, "it is missing: SNMP version 3 needs it");
        }
    }
    c.authentication = m.text("authentication", "sha");
    c.user = m.text("user");
    c.password = m.text("password");
    if (m.has("password") && c.password.size() < 8) {
        m.refuse("password", "SNMP version 3 wants 8 characters or more");
    }
    return c;
}

std::string bound_text(const std::optional<double>& bound, int64_t otherwise) {
    return std::to_string(bound ? std::llround(*bound) : otherwise);
}

void make_snmp(const making& m) {
    const snmp_credentials c = read_credentials(m);
    std::string objects, limits;
    for (const named_limits& each : m.all.at("objects").names) {
        const char* between = objects.empty() ? "" : ";";
        objects.append(between).append(each.name);
        limits.append(between);
        if (each.least || each.most) {
            limits.append(bound_text(each.least, INT64_MIN)).append(",");
            limits.append(bound_text(each.most, INT64_MAX));
        } else {
            limits.append("-");
        }
    }
    m.test.target = m.value().text;
    for (std::string field :
         {snmp_host(m.test.target), m.whole("port", "161"), c.version, objects, c.community,
          c.authentication, c.user, c.password, std::string(), std::string(),
          m.whole("within", "2"), m.whole("retries", "1"), limits}) {
        m.put(std::move(field));
    }
}

void make_snmp_table(const making& m) {
    const snmp_credentials c = read_credentials(m);
    const bool knows_bulk = c.version != "1";
    const given_value* repetitions = m.find("repetitions");
    if (!knows_bulk && repetitions != nullptr && repetitions->number != 0) {
        m.refuse("repetitions", "SNMP version 1 can only ask for one row after the other: 0");
    }
    m.test.target = m.value().text;
    for (std::string field :
         {snmp_host(m.test.target), m.whole("port", "161"),
          m.whole("repetitions", knows_bulk ? "20" : "0"), c.version, m.text("table"), c.community,
          c.authentication, c.user, c.password, std::string(), std::string(),
          m.whole("within", "2"), m.whole("retries", "1")}) {
        m.put(std::move(field));
    }
}

/* ---- databases ---- */

/* "Uptime||60": no limit may begin with anything but a digit. */
std::string mysql_values(const given_value* values) {
    if (values == nullptr) {
        return "Uptime";
    }
    std::string text;
    for (const named_limits& each : values->names) {
        text.append(text.empty() ? "" : ";").append(each.name);
        if (each.least || each.most) {
            text.append("|").append(each.most ? number_text(*each.most) : "");
        }
        if (each.least) {
            text.append("|").append(number_text(*each.least));
        }
    }
    return text;
}

void make_mysql(const making& m) {
    const std::string& place = m.value().text;
    const bool is_socket = place.starts_with('/');
    if (is_socket || place == "localhost") {
        m.refuse_any({"port"}, "localhost and a path mean a socket, which has no port: write "
                               "127.0.0.1");
    } else if (std::string why = why_no_host(place); !why.empty()) {
        m.refuse("mysql", why);
    }
    m.test.target = place;
    for (std::string field : {is_socket ? std::string("localhost") : place, m.whole("port", "3306"),
                              is_socket ? place : std::string(), m.text("user"), m.text("password"),
                              mysql_values(m.find("values")), m.whole("within", "10")}) {
        m.put(std::move(field));
    }
}

/* ---- networks ---- */

void make_discovery(const making& m) {
    address_range range;
    if (std::string why = read_addresses(m.value().text, range); !why.empty()) {
        m.refuse("discovery", why);
        return;
    }
    m.test.target = address_text(range.first) + " - " + address_text(range.last);
    m.put(address_text(range.first));
    m.put(address_text(address_behind(range.last)));
    if (const given_value* objects = m.find("objects")) {
        std::string all;
        for (const named_limits& each : objects->names) {
            all.append(all.empty() ? "" : ";").append(each.name);
        }
        m.put(all);
    }
}

constexpr struct {
    std::string_view word;
    void (*make)(const making&);
} makers[] = {
    {"load", make_load},       {"cpu", make_cpu},
    {"memory", make_memory},   {"disk", make_disk},
    {"process", make_process}, {"network", make_network},
    {"ping", make_ping},       {"http", make_http},
    {"snmp", make_snmp},       {"snmp table", make_snmp_table},
    {"mysql", make_mysql},     {"discovery", make_discovery},
};

} // namespace

void make_fields(fleet_test& test, const given_values& all, remarks& wrong) {
    for (const auto& each : makers) {
        if (each.word == test.kind->word) {
            each.make({test, all, wrong});
        }
    }
}

std::string shown_text(const key_def& key, const std::string& written) {
    if (key.form == value_form::secret_text) {
        return is_only_placeholders(written) ? written : "***";
    }
    return key.form == value_form::url ? shown_page(written, "?***") : written;
}
