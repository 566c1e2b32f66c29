#include "base/identity.h"

#include "base/authority_files.h"
#include "base/certificate.h"
#include "base/files.h"

#include <algorithm>
#include <openssl/err.h>
#include <unistd.h>

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

bool ensure_identity(const std::string& directory, const std::vector<std::string>& names,
                     identity_files& out, identity_report& report, std::string& error) {
    out = {directory + "/certificate.pem", directory + "/key.pem"};
    report = {};
    std::vector<std::string> wanted = wanted_names(names);
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
