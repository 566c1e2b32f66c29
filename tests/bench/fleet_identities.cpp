/* A fleet that may prove itself to a collector that has not been started yet.
 *
 *   fleet_identities STATE_DIR DIRECTORY ACCOUNT NAME COUNT
 *
 * Makes the authority for agents in STATE_DIR, where there is none, admits NAME0000 and so on of
 * ACCOUNT in its settings, and writes NAME0000.pem and so on to DIRECTORY: a key of each agent's
 * own, and the certificate for it. Tells how many a second it makes. */
#include "base/agent_authority.h"
#include "store/settings.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <openssl/pem.h>
#include <string>
#include <sys/stat.h>

namespace {

double now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

std::string text_of(BIO* memory) {
    char* text = nullptr;
    const auto size = BIO_get_mem_data(memory, &text);
    return {text, static_cast<size_t>(size)};
}

std::string request_for(EVP_PKEY* key) {
    X509_REQ* request = X509_REQ_new();
    BIO* memory = BIO_new(BIO_s_mem());
    X509_REQ_set_pubkey(request, key);
    X509_REQ_sign(request, key, EVP_sha256());
    PEM_write_bio_X509_REQ(memory, request);
    std::string text = text_of(memory);
    BIO_free(memory);
    X509_REQ_free(request);
    return text;
}

std::string as_pem(EVP_PKEY* key) {
    BIO* memory = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(memory, key, nullptr, nullptr, 0, nullptr, nullptr);
    std::string text = text_of(memory);
    BIO_free(memory);
    return text;
}

bool write_file(const std::string& path, const std::string& text) {
    FILE* file = fopen(path.c_str(), "we");
    const bool written = file && fwrite(text.data(), 1, text.size(), file) == text.size();
    return file && fclose(file) == 0 && written;
}

/* False with one line in `error`. */
bool enrol(const agent_authority& authority, settings& kept, const std::string& directory,
           const protocol::agent_identity& who, std::string& error) {
    key_ptr key(EVP_EC_gen("P-256"));
    agent_proof says;
    const std::string certificate =
        authority.sign(request_for(key.get()), who, 1, agent_certificate_days, says, error);
    if (certificate.empty()) {
        return false;
    }
    const std::string path = directory + "/" + who.agent + ".pem";
    if (!write_file(path, as_pem(key.get()) + certificate)) {
        error = path + " cannot be written";
        return false;
    }
    stored_identity identity{.account = who.account, .agent = who.agent};
    identity.admitted = identity.issued = time(nullptr);
    identity.highest = identity.good_from = says.generation;
    identity.key = says.key;
    identity.authority = says.authority;
    identity.ends = says.ends;
    return kept.put_identity(identity, error);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        fprintf(stderr, "usage: fleet_identities STATE_DIR DIRECTORY ACCOUNT NAME COUNT\n");
        return 2;
    }
    const std::string state = argv[1], directory = argv[2];
    const int count = atoi(argv[5]);
    mkdir(state.c_str(), 0700);
    mkdir(directory.c_str(), 0700);
    agent_authority authority;
    std::string note, error;
    auto kept = settings::open(state, note, error);
    bool good = kept && authority.open(state, error);
    const double began = now();
    for (int i = 0; good && i < count; i++) {
        char name[64];
        snprintf(name, sizeof name, "%.32s%04d", argv[4], i);
        good = enrol(authority, *kept, directory, {.account = argv[3], .agent = name}, error);
    }
    if (!good) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    printf("%d identities in %.1f s\n", count, now() - began);
    return 0;
}
