#include "base/identity.h"

#include "base/certificate.h"

#include <algorithm>
#include <openssl/err.h>
#include <unistd.h>

static bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

static std::vector<std::string> wanted_names(const std::vector<std::string>& names) {
    std::vector<std::string> wanted = {"localhost", "127.0.0.1", "::1"};
    add_names(wanted, {own_host_name()});
    add_names(wanted, names);
    return wanted;
}

static std::string authority_file(const std::string& directory) {
    return directory + "/ca.pem";
}

static std::string authority_key_file(const std::string& directory) {
    return directory + "/ca-key.pem";
}

static bool read_authority(const std::string& directory, authority& out, std::string& error) {
    std::string file = authority_file(directory), key_file = authority_key_file(directory);
    out.key = read_key(key_file, error);
    if (!out.key) {
        return false;
    }
    out.certificate = read_certificate(file);
    if (!out.certificate || X509_check_private_key(out.certificate.get(), out.key.get()) != 1) {
        ERR_clear_error();
        error = file + " is no certificate of the key " + key_file;
        return false;
    }
    return true;
}

static bool make_authority(const std::string& directory, authority& out, std::string& error) {
    std::string key_file = authority_key_file(directory);
    out.key = exists(key_file) ? read_key(key_file, error) : make_key(key_file, error);
    if (!out.key) {
        return false;
    }
    out.certificate = make_authority_certificate(out.key.get());
    return write_certificate(authority_file(directory), out.certificate.get(), error);
}

static bool ensure_authority(const std::string& directory, authority& out, std::string& error) {
    std::string file = authority_file(directory), key_file = authority_key_file(directory);
    if (!exists(file)) {
        return make_authority(directory, out, error);
    }
    if (!exists(key_file)) {
        error = file + " is there but " + key_file +
                " is not: put the key back, or remove the certificate to get a new pair, whose "
                "certificate all hosts then need";
        return false;
    }
    return read_authority(directory, out, error);
}

/* Puts a new certificate in the place of the old one; failing that, the old one goes on. */
static void renew(const std::string& directory, const identity_files& files,
                  std::vector<std::string> names, identity_report& report) {
    authority by;
    std::string error;
    key_ptr key;
    x509_ptr fresh;
    if (read_authority(directory, by, error) && (key = read_key(files.key, error))) {
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
    x509_ptr ours = read_certificate(authority_file(directory));
    if (!certificate || !ours || !is_issued_by(certificate.get(), ours.get())) {
        report = report_identity(files);
        note_missing(files, wanted, report);
        return;
    }
    report.authority = authority_file(directory);
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
    if (!ensure_authority(directory, by, error)) {
        return false;
    }
    key_ptr key = exists(files.key) ? read_key(files.key, error) : make_key(files.key, error);
    if (!key) {
        return false;
    }
    x509_ptr certificate = make_server_certificate(key.get(), by, names);
    if (!write_certificate(files.certificate, certificate.get(), error)) {
        return false;
    }
    report.authority = authority_file(directory);
    report.names = names;
    return true;
}

bool ensure_identity(const std::string& directory, const std::vector<std::string>& names,
                     identity_files& out, identity_report& report, std::string& error) {
    out = {directory + "/certificate.pem", directory + "/key.pem"};
    report = {};
    std::vector<std::string> wanted = wanted_names(names);
    if (!exists(out.certificate)) {
        return make_identity(directory, wanted, out, report, error);
    }
    if (!exists(out.key)) {
        error = out.certificate + " is there but " + out.key +
                " is not: put the key back, or remove the certificate to get a new pair";
        return false;
    }
    keep_identity(directory, wanted, out, report);
    return true;
}
