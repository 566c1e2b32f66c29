#include "base/identity.h"

#include "base/authority_files.h"
#include "base/certificate.h"
#include "base/files.h"

#include <algorithm>
#include <sys/stat.h>

static std::vector<std::string> wanted_names(const std::vector<std::string>& names) {
    std::vector<std::string> wanted = {"localhost", "127.0.0.1", "::1"};
    add_names(wanted, {own_host_name()});
    add_names(wanted, names);
    return wanted;
}

/* Puts a new certificate in the place of the old one; failing that, the old one goes on. */
static void renew(const std::string& directory, const identity_files& files,
                  std::vector<std::string> names, identity_report& report) {
    authority by;
    std::string error;
    key_ptr key;
    x509_ptr fresh;
    if (read_authority(server_authority_place(directory).now, by, error) &&
        (key = read_key(files.key, error))) {
        fresh = make_server_certificate(key.get(), by, names);
        if (write_certificate(files.certificate, fresh.get(), error)) {
            report.names = std::move(names);
            report.notes.push_back("the certificate " + files.certificate + " was renewed");
            return;
        }
    }
    report.notes.push_back("the certificate " + files.certificate + " cannot be renewed: " + error);
}

static void note_missing(const identity_files& files, const std::vector<std::string>& wanted,
                         identity_report& report) {
    for (const std::string& name : wanted) {
        if (std::find(report.names.begin(), report.names.end(), name) == report.names.end()) {
            report.notes.push_back("the certificate " + files.certificate + " does not name " +
                                   name);
        }
    }
}

identity_report report_identity(const identity_files& files) {
    identity_report report;
    x509_ptr certificate = read_certificate(files.certificate);
    if (!certificate) {
        return report; /* make_tls_context says why */
    }
    report.names = names_in(certificate.get());
    if (is_issued_by(certificate.get(), certificate.get())) {
        report.authority = files.certificate;
    }
    if (ends_soon(certificate.get())) {
        report.notes.push_back("the certificate " + files.certificate + " ends on " +
                               end_of(certificate.get()));
    }
    return report;
}

/* A pair that is there. */
static void keep_identity(const std::string& directory, const std::vector<std::string>& wanted,
                          const identity_files& files, identity_report& report) {
    x509_ptr certificate = read_certificate(files.certificate);
    x509_ptr ours = read_certificate(server_authority_place(directory).now.certificate);
    if (!certificate || !ours || !is_issued_by(certificate.get(), ours.get())) {
        report = report_identity(files);
        note_missing(files, wanted, report);
        return;
    }
    report.authority = server_authority_place(directory).now.certificate;
    report.names = names_in(certificate.get());
    if (ends_soon(ours.get())) {
        report.notes.push_back("the authority " + report.authority + " ends on " +
                               end_of(ours.get()));
    }
    bool outlived = ASN1_TIME_compare(X509_get0_notAfter(certificate.get()),
                                      X509_get0_notAfter(ours.get())) < 0;
    std::vector<std::string> names = report.names;
    add_names(names, wanted);
    if (names.size() > report.names.size() || (outlived && ends_soon(certificate.get()))) {
        renew(directory, files, std::move(names), report);
    }
    note_missing(files, wanted, report);
}

static bool make_identity(const std::string& directory, const std::vector<std::string>& names,
                          const identity_files& files, identity_report& report,
                          std::string& error) {
    authority by;
    if (!ensure_authority(server_authority_place(directory).now, by, error)) {
        return false;
    }
    key_ptr key = file_exists(files.key) ? read_key(files.key, error) : make_key(files.key, error);
    if (!key) {
        return false;
    }
    x509_ptr certificate = make_server_certificate(key.get(), by, names);
    if (!write_certificate(files.certificate, certificate.get(), error)) {
        return false;
    }
    report.authority = server_authority_place(directory).now.certificate;
    report.names = names;
    return true;
}

identity_files own_identity(const std::string& directory) {
    return {directory + "/certificate.pem", directory + "/key.pem"};
}

/* An exchange was cut short between the certificate that the next authority signed and the end. */
static bool complete_exchange(const std::string& directory, std::string& error) {
    const authority_place place = server_authority_place(directory);
    x509_ptr next = read_certificate(place.next.certificate);
    x509_ptr certificate = next ? read_certificate(own_identity(directory).certificate) : nullptr;
    bool is_due = certificate && is_issued_by(certificate.get(), next.get());
    return !is_due || take_place(place, error);
}

bool ensure_identity(const std::string& directory, const std::vector<std::string>& names,
                     identity_files& out, identity_report& report, std::string& error) {
    out = own_identity(directory);
    report = {};
    std::vector<std::string> wanted = wanted_names(names);
    directory_lock lock(directory);
    if (!complete_exchange(directory, error)) {
        return false;
    }
    if (!file_exists(out.certificate)) {
        return make_identity(directory, wanted, out, report, error);
    }
    if (!file_exists(out.key)) {
        error = out.certificate + " is there but " + out.key +
                " is not: put the key back, or remove the certificate to get a new pair";
        return false;
    }
    keep_identity(directory, wanted, out, report);
    return true;
}

/* --- the exchange of the authority ----------------------------------------------------------- */

bool publish_authorities(const std::string& directory, const identity_files& files,
                         published_authorities& out, std::string& error) {
    const authority_place place = server_authority_place(directory);
    directory_lock lock(directory);
    if (!complete_exchange(directory, error)) {
        return false;
    }
    std::vector<x509_ptr> chain = read_certificates(files.certificate);
    if (chain.empty()) {
        error = "there is no certificate in " + files.certificate;
        return false;
    }
    x509_ptr ours = read_certificate(place.now.certificate);
    const bool is_ours = ours && files.certificate == own_identity(directory).certificate &&
                         is_issued_by(chain[0].get(), ours.get());
    X509* first = is_ours ? ours.get() : chain.back().get();
    x509_ptr next = is_ours ? read_certificate(place.next.certificate) : nullptr;
    out.pem = pem_of(first) + pem_of(next.get());
    out.first = hash_of_certificate(first);
    EVP_Digest(out.pem.data(), out.pem.size(), out.hash.data(), nullptr, EVP_sha256(), nullptr);
    return true;
}

/* The certificate that the authority of the directory signed; null with one line in `error`. */
static x509_ptr read_own(const std::string& directory, std::string& error) {
    const std::string file = own_identity(directory).certificate;
    const std::string by = server_authority_place(directory).now.certificate;
    x509_ptr certificate = read_certificate(file), ours = read_certificate(by);
    if (!certificate || !ours || !is_issued_by(certificate.get(), ours.get())) {
        error = "there is no authority of the server's own here to exchange: " + file +
                (file_exists(file) ? " is not signed by " + by : " is not there");
        return nullptr;
    }
    return certificate;
}

bool renew_server_authority(const std::string& directory, std::string& error) {
    const authority_place place = server_authority_place(directory);
    directory_lock lock(directory);
    authority next;
    if (!complete_exchange(directory, error) || !read_own(directory, error)) {
        return false;
    }
    const bool is_under_way = file_exists(place.next.certificate);
    if (!ensure_authority(place.next, next, error)) {
        return false;
    }
    if (is_under_way) {
        error = "an exchange is under way: " + place.next.certificate +
                " is published. \"vindral-collector authority finish server\" puts it in its place";
    }
    return !is_under_way;
}

bool finish_server_authority(const std::string& directory, std::string& error) {
    const authority_place place = server_authority_place(directory);
    const identity_files files = own_identity(directory);
    directory_lock lock(directory);
    const bool is_under_way = file_exists(place.next.certificate);
    if (!complete_exchange(directory, error)) {
        return false;
    }
    if (!file_exists(place.next.certificate)) {
        error = is_under_way ? "" : "no exchange of the server's authority is under way";
        return is_under_way; /* it was at its end already */
    }
    authority next;
    x509_ptr before = read_own(directory, error);
    key_ptr key = before ? read_key(files.key, error) : nullptr;
    if (!key || !ensure_authority(place.next, next, error)) {
        return false;
    }
    x509_ptr fresh = make_server_certificate(key.get(), next, names_in(before.get()));
    return write_certificate(files.certificate, fresh.get(), error) && take_place(place, error);
}

std::string identity_stamp(const std::string& directory, const identity_files& files) {
    const authority_place server = server_authority_place(directory);
    const authority_place agents = agent_authority_place(directory);
    std::string stamp;
    for (const std::string& path :
         {files.certificate, files.key, server.now.certificate, server.now.key,
          server.next.certificate, agents.now.certificate, agents.now.key, agents.next.certificate,
          old_agent_authority(directory)}) {
        struct stat status {};
        if (stat(path.c_str(), &status) == 0) {
            stamp += std::to_string(status.st_ino) + " " + std::to_string(status.st_size) + " " +
                     std::to_string(status.st_mtim.tv_sec) + "." +
                     std::to_string(status.st_mtim.tv_nsec);
        }
        stamp += "\n";
    }
    return stamp;
}
