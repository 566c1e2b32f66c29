#include "base/authority_files.h"

#include "base/files.h"

#include <cstdio>
#include <openssl/err.h>
#include <unistd.h>

static const char anew[] = "put the key back, or remove the certificate to begin anew";

authority_place server_authority_place(const std::string& directory) {
    static const char name[] = "vindral-collector CA";
    return {{directory + "/ca.pem", directory + "/ca-key.pem", name,
             "put the key back, or remove the certificate to get a new pair, whose certificate all "
             "hosts then need"},
            {directory + "/ca-next.pem", directory + "/ca-next-key.pem", name, anew}};
}

authority_place agent_authority_place(const std::string& directory) {
    static const char name[] = "vindral-collector agents CA";
    return {
        {directory + "/agents-ca.pem", directory + "/agents-ca-key.pem", name,
         "put the key back, or get a new pair with \"vindral-collector authority renew agents\""},
        {directory + "/agents-ca-next.pem", directory + "/agents-ca-next-key.pem", name, anew}};
}

std::string old_agent_authority(const std::string& directory) {
    return directory + "/agents-ca-old.pem";
}

bool file_exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool read_authority(const authority_files& files, authority& out, std::string& error) {
    out.key = read_key(files.key, error);
    if (!out.key) {
        return false;
    }
    out.certificate = read_certificate(files.certificate);
    if (!out.certificate || X509_check_private_key(out.certificate.get(), out.key.get()) != 1) {
        ERR_clear_error();
        error = files.certificate + " is no certificate of the key " + files.key;
        return false;
    }
    return true;
}

static bool make_authority(const authority_files& files, authority& out, std::string& error) {
    out.key = file_exists(files.key) ? read_key(files.key, error) : make_key(files.key, error);
    if (!out.key) {
        return false;
    }
    out.certificate = make_authority_certificate(out.key.get(), files.name);
    return write_certificate(files.certificate, out.certificate.get(), error);
}

bool ensure_authority(const authority_files& files, authority& out, std::string& error) {
    if (!file_exists(files.certificate)) {
        return make_authority(files, out, error);
    }
    if (!file_exists(files.key)) {
        error = files.certificate + " is there but " + files.key + " is not: " + files.when_lost;
        return false;
    }
    return read_authority(files, out, error);
}

/* On disk when it returns, so that no later step is there without it. */
static bool move_file(const std::string& from, const std::string& to, std::string& error) {
    if (rename(from.c_str(), to.c_str()) != 0 || !sync_directory(to.substr(0, to.rfind('/')))) {
        error = system_error("cannot put " + from + " in the place of " + to);
        return false;
    }
    return true;
}

bool take_place(const authority_place& of, std::string& error) {
    return (!file_exists(of.next.key) || move_file(of.next.key, of.now.key, error)) &&
           move_file(of.next.certificate, of.now.certificate, error);
}
