/* What an agent of a fleet shows in its handshakes: NAME.pem of a directory that fleet_identities
 * made, key and certificate. Read once, given to each connection. */
#ifndef VINDRAL_SHOWN_H
#define VINDRAL_SHOWN_H

#include <cstdio>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <string>

struct shown {
    X509* certificate = nullptr; /* null: it shows none */
    EVP_PKEY* key = nullptr;
    mutable SSL_SESSION* resumable = nullptr; /* of the last handshake, as an agent keeps it */

    /* They live until the program ends. False with a line on standard error. */
    bool read(const std::string& directory, const std::string& name) {
        const std::string path = directory + "/" + name + ".pem";
        FILE* file = fopen(path.c_str(), "re");
        if (file) {
            key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
            certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
            fclose(file);
        }
        if (!key || !certificate) {
            fprintf(stderr, "%s: no key and certificate\n", path.c_str());
            return false;
        }
        return true;
    }

    void give(SSL* session) const {
        if (certificate) {
            SSL_use_certificate(session, certificate);
            SSL_use_PrivateKey(session, key);
            if (resumable) {
                SSL_set_session(session, resumable);
            }
        }
    }

    /* Behind an answer. */
    void keep(SSL* session) const {
        if (certificate) {
            SSL_SESSION_free(resumable);
            resumable = SSL_get1_session(session);
        }
    }
};

#endif
