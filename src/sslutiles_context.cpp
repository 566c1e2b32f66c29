#include "sslutiles_context.h"

#include "guards.h"
#include "stream.h"
#include "vindral_log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

static const char CAFILE[] = "CAFILE", CERTFILE[] = "CERTFILE", KEYFILE[] = "KEYFILE";

/* --- the files ------------------------------------------------------------------------------- */

namespace {

/* What tells one state of a file from another. */
struct file_state {
    dev_t device = 0;
    ino_t number = 0;
    off_t size = 0;
    time_t written = 0, changed = 0;
    long written_ns = 0, changed_ns = 0;
    bool operator==(const file_state&) const = default;
};

/* Of a file that is not configured it is always the same. */
struct file_states {
    file_state authorities, certificate, key;
    bool operator==(const file_states&) const = default;
};

} // namespace

static int cannot_use(const char* key, const char* file, const char* reason) {
    leveledadd2log(0, "ERROR: make_poll: Cannot use %s \"%s\": %s", key, file, reason);
    return 0;
}

/* With the library's first reason, or `otherwise` when it has none to give. */
static int library_cannot_use(const char* key, const char* file, const char* otherwise) {
    char text[256];
    unsigned long error = lib_ERR_get_error();
    return cannot_use(key, file, error != 0 ? lib_ERR_error_string(error, text) : otherwise);
}

static int library_lacks(const char* key, const char* file, const char* function) {
    leveledadd2log(0, "ERROR: make_poll: Cannot use %s \"%s\": the TLS library has no %s", key,
                   file, function);
    return 0;
}

/* Opens the file, which is the way to learn whether that is allowed. Returns 1, or 0 with errno. */
static int look_at(const char* path, file_state* state) {
    unique_fd file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat found;
    if (!file || fstat(file.get(), &found) != 0) {
        return 0;
    }
    if (!S_ISREG(found.st_mode)) {
        errno = S_ISDIR(found.st_mode) ? EISDIR : EINVAL;
        return 0;
    }
    *state = {found.st_dev,         found.st_ino,         found.st_size,
              found.st_mtim.tv_sec, found.st_ctim.tv_sec, found.st_mtim.tv_nsec,
              found.st_ctim.tv_nsec};
    return 1;
}

static int look_at(const char* key, const char* path, file_state* state) {
    return path == nullptr || look_at(path, state) || cannot_use(key, path, strerror(errno));
}

/* Returns 1 when all that is configured can be opened, and what for is possible. */
static int look_at(const poll_files& files, file_states* states) {
    if (files.authorities != nullptr && ssl_missing_to_verify != nullptr) {
        return library_lacks(CAFILE, files.authorities, ssl_missing_to_verify);
    }
    if (files.certificate != nullptr && files.key == nullptr) {
        return cannot_use(CERTFILE, files.certificate, "there is no KEYFILE with it");
    }
    if (files.key != nullptr && files.certificate == nullptr) {
        return cannot_use(KEYFILE, files.key, "there is no CERTFILE with it");
    }
    if (files.certificate != nullptr && ssl_missing_to_show_certificate != nullptr) {
        return library_lacks(CERTFILE, files.certificate, ssl_missing_to_show_certificate);
    }
    return look_at(CAFILE, files.authorities, &states->authorities) &&
           look_at(CERTFILE, files.certificate, &states->certificate) &&
           look_at(KEYFILE, files.key, &states->key);
}

/* --- what goes into a context ---------------------------------------------------------------- */

static int trust_authorities(SSL_CTX* made, const char* file) {
    if (lib_SSL_CTX_load_verify_locations(made, file, nullptr) != 1) {
        return library_cannot_use(CAFILE, file, "no certificate in it");
    }
    lib_SSL_CTX_set_verify(made, SSL_VERIFY_PEER, nullptr);
    return 1;
}

static bool asked_for_password;

/* In the place of the library's own, which asks on the terminal. */
static int give_no_password(char*, int, int, void*) {
    asked_for_password = true;
    return -1;
}

/* The library's reasons are short of words: so what is missing comes first. */
static int cannot_read(const char* key, const char* file, const char* what) {
    if (asked_for_password) {
        return cannot_use(key, file,
                          "it is encrypted, and there is nobody to ask for the password");
    }
    char text[256];
    leveledadd2log(0, "ERROR: make_poll: Cannot use %s \"%s\": no usable %s in it, PEM: %s", key,
                   file, what, tls_reason(text));
    return 0;
}

/* The server's alert about the certificate that it was shown in the last handshake, or 0. */
static int refusal = 0;

/* Why a server sends that alert, or null when it is not about the certificate. */
static const char* reason_of(int alert) {
    switch (alert) {
    case SSL_AD_BAD_CERTIFICATE:
        return "it is not valid yet, or damaged (alert bad_certificate)";
    case SSL_AD_UNSUPPORTED_CERTIFICATE:
        return "it is not one for clients (alert unsupported_certificate)";
    case SSL_AD_CERTIFICATE_REVOKED:
        return "it has been revoked (alert certificate_revoked)";
    case SSL_AD_CERTIFICATE_EXPIRED:
        return "it has expired (alert certificate_expired)";
    case SSL_AD_CERTIFICATE_UNKNOWN:
        return "for a reason that it does not tell (alert certificate_unknown)";
    case SSL_AD_UNKNOWN_CA:
        return "it does not accept the authority that signed it (alert unknown_ca)";
    case SSL_AD_ACCESS_DENIED:
        return "this agent may not come in (alert access_denied)";
    case SSL_AD_DECRYPT_ERROR:
        return "a signature is wrong: another authority of the same name may have signed it "
               "(alert decrypt_error)";
    case SSL_AD_CERTIFICATE_REQUIRED:
        return "it wants one of another kind (alert certificate_required)";
    default:
        return nullptr;
    }
}

static void note_alert(const SSL*, int where, int value) {
    if (where == SSL_CB_HANDSHAKE_START) {
        refusal = 0;
    } else if (where == SSL_CB_READ_ALERT && reason_of(value & 0xff) != nullptr) {
        refusal = value & 0xff;
    }
}

/* The key goes first: a certificate that it does not belong to then takes the key's place, and the
 * last call says so of any kind of key. */
static int show_certificate(SSL_CTX* made, const char* certificate, const char* key) {
    asked_for_password = false;
    lib_SSL_CTX_set_default_passwd_cb(made, give_no_password);
    if (lib_SSL_CTX_use_PrivateKey_file(made, key, SSL_FILETYPE_PEM) != 1) {
        return cannot_read(KEYFILE, key, "key");
    }
    if (lib_SSL_CTX_use_certificate_chain_file(made, certificate) != 1) {
        return cannot_read(CERTFILE, certificate, "certificate");
    }
    if (lib_SSL_CTX_check_private_key(made) != 1) {
        leveledadd2log(0,
                       "ERROR: make_poll: Cannot use KEYFILE \"%s\": it is not the key of the "
                       "certificate in CERTFILE \"%s\"",
                       key, certificate);
        return 0;
    }
    lib_SSL_CTX_set_info_callback(made, note_alert);
    return 1;
}

/* Null when one of them will not do; it is the caller's. */
static SSL_CTX* make_context(const poll_files& files) {
    forget_tls_errors(); /* the first one is the reason that is logged */
    SSL_CTX* made = lib_SSL_CTX_new_private(lib_SSLv23_client_method());
    bool named = files.authorities != nullptr;
    if (made == nullptr) {
        library_cannot_use(named ? CAFILE : CERTFILE, named ? files.authorities : files.certificate,
                           "no memory");
        return nullptr;
    }
    if ((files.authorities != nullptr && !trust_authorities(made, files.authorities)) ||
        (files.certificate != nullptr && !show_certificate(made, files.certificate, files.key))) {
        lib_SSL_CTX_free(made);
        return nullptr;
    }
    return made;
}

/* --- the context of polls -------------------------------------------------------------------- */

static SSL_CTX* context = nullptr; /* made from the files in these states */
static file_states loaded;
static bool warned; /* of its certificate's dates */

static SSL_SESSION* resumable = nullptr; /* of a handshake with that context */
static bool resumes, resuming;           /* with that context; in this poll */

static void free_resumable() {
    if (resumable != nullptr) {
        lib_SSL_SESSION_free(std::exchange(resumable, nullptr));
    }
}

void resume_session(SSL* session) {
    resuming = resumable != nullptr;
    if (resuming) {
        lib_SSL_set_session(session, resumable);
    }
}

void keep_session(SSL* session) {
    free_resumable();
    resumable = resumes ? lib_SSL_get1_session(session) : nullptr;
    resuming = false;
}

void drop_session(bool handshake_failed) {
    free_resumable();
    resumes = resumes && !(resuming && handshake_failed);
    resuming = false;
}

static void forget() {
    free_resumable();
    if (context != nullptr) {
        lib_SSL_CTX_free(context);
        context = nullptr;
    }
}

/* The server decides, by its own clock: the poll is tried. A certificate may end long after it was
 * read. */
static void warn_of_dates(const char* file) {
    const X509* own = warned ? nullptr : lib_SSL_CTX_get0_certificate(context);
    if (own == nullptr) {
        return;
    }
    bool ended = lib_X509_cmp_current_time(lib_X509_get0_notAfter(own)) < 0;
    if (ended || lib_X509_cmp_current_time(lib_X509_get0_notBefore(own)) > 0) {
        warned = true;
        leveledadd2log(0,
                       "WARNING: make_poll: The certificate in CERTFILE \"%s\" %s by this host's "
                       "clock: the server may refuse it.",
                       file, ended ? "has expired" : "is not valid yet");
    }
}

SSL_CTX* poll_context(const poll_files& files) {
    file_states now;
    if (!look_at(files, &now)) {
        forget();
        return nullptr;
    }
    if (context == nullptr || now != loaded) {
        forget();
        context = make_context(files);
        if (context == nullptr) {
            return nullptr;
        }
        loaded = now; /* older than what was read, at worst: then the next poll reads again */
        warned = false;
        resumes = true;
        if (files.authorities != nullptr) {
            leveledadd2log(0, "INFO: make_poll: CAFILE \"%s\" was read: the server is verified.",
                           files.authorities);
        }
        if (files.certificate != nullptr) {
            leveledadd2log(0,
                           "INFO: make_poll: CERTFILE \"%s\" was read: a server that asks is shown "
                           "this certificate.",
                           files.certificate);
        }
    }
    if (files.certificate != nullptr) {
        warn_of_dates(files.certificate);
    }
    return context;
}

void check_certificate(const char* certificate, const char* key) {
    if (certificate == nullptr && key == nullptr) {
        return;
    }
    const poll_files files = {nullptr, certificate, key};
    file_states states;
    SSL_CTX* tried = look_at(files, &states) ? make_context(files) : nullptr;
    if (tried != nullptr) {
        lib_SSL_CTX_free(tried);
    }
}

void read_refusal(SSL* session) {
    char unwanted;
    lib_SSL_read(session, &unwanted, sizeof unwanted);
}

void log_refusal(const char* certificate) {
    if (refusal != 0) {
        leveledadd2log(
            0, "ERROR: make_poll: The server refused the certificate in CERTFILE \"%s\": %s.",
            certificate, reason_of(std::exchange(refusal, 0)));
    }
}
