#include "life/announce.h"

#include "base/certificate.h"

#include <algorithm>
#include <filesystem>

/* The address to listen on, when it is one that a certificate can name. */
static std::vector<std::string> listening_name(const options& o) {
    bool any = o.listen == "0.0.0.0" || o.listen == "::" || !is_server_name(o.listen);
    return any ? std::vector<std::string>() : std::vector<std::string>{o.listen};
}

bool prepare_identity(const options& o, identity_files& files, identity_report& report,
                      std::string& error) {
    files = {o.cert, o.key};
    std::vector<std::string> names = o.names;
    for (const std::string& name : listening_name(o)) {
        names.push_back(name);
    }
    if (!o.cert.empty()) {
        report = report_identity(files);
        return true;
    }
    return ensure_identity(o.state_dir, names, files, report, error);
}

std::string name_for_agents(const options& o, const identity_report& report) {
    std::vector<std::string> candidates = o.names;
    if (!o.cert.empty()) {
        candidates = report.names;
    } else if (o.listen == "::1") {
        candidates.push_back("127.0.0.1");
    } else {
        for (const std::string& name : listening_name(o)) {
            candidates.push_back(name);
        }
    }
    auto usable = [](const std::string& name) { return name.find_first_of(":*") == name.npos; };
    auto found = std::find_if(candidates.begin(), candidates.end(), usable);
    return found != candidates.end() ? *found : own_host_name();
}

/* What makes a host report here: two lines, and a copy of a file. It is named by its whole path,
 * which holds wherever it is read. */
static std::string lines_for_hosts(const options& o, const identity_report& report, uint16_t port) {
    auto whole_path = [](const std::string& path) {
        std::error_code failed;
        std::string whole = std::filesystem::absolute(path, failed).string();
        return failed ? path : whole;
    };
    std::string certificate = o.cert.empty() ? o.state_dir + "/certificate.pem" : o.cert;
    std::string authority =
        report.authority.empty()
            ? "the certificate of the authority that signed " + whole_path(certificate)
            : whole_path(report.authority);
    return "A host needs two lines in its vindral.conf:\n  USEHOST  https://" +
           name_for_agents(o, report) + ":" + std::to_string(port) +
           "/fcgi-bin/agentgateway\n  CAFILE   /etc/vindral-ca.pem\n"
           "and, as that file, a copy of\n  " +
           authority + "\n";
}

std::string announcement(const options& o, const identity_report& report, const std::string& where,
                         uint16_t port) {
    std::string text;
    for (const std::string& note : report.notes) {
        text += "vindral-collector: " + note + "\n";
    }
    text += "Listening on " + where + "\n";
    switch (o.agents) {
    case agents_mode::any:
        return text + lines_for_hosts(o, report, port);
    case agents_mode::known:
        return text + lines_for_hosts(o, report, port) +
               "Then it waits until it is admitted, with\n  vindralctl agents admit NAME\n";
    case agents_mode::proven:
        break;
    }
    return text + "Agents prove who they are. What makes a host report here, one command, is "
                  "printed by\n  vindralctl enrol NAME\n";
}
