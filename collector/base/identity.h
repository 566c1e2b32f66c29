/* Who the collector is: the key pair and the certificates in its state directory. */
#ifndef VINDRAL_COLLECTOR_IDENTITY_H
#define VINDRAL_COLLECTOR_IDENTITY_H

#include "protocol/enrolment.h"

#include <string>
#include <vector>

struct identity_files {
    std::string certificate; /* PEM, own certificate first, then the chain */
    std::string key;         /* PEM, not encrypted */
};

/* Where a state directory has its own. */
identity_files own_identity(const std::string& directory);

/* What operators are told about an identity. */
struct identity_report {
    std::string authority;          /* file that hosts verify it with; empty: not known here */
    std::vector<std::string> names; /* names and addresses in the certificate */
    std::vector<std::string> notes; /* one line each: what was made, what is not as wished */
};

/* The pair certificate.pem and key.pem in `directory`, made when both are missing, for localhost,
 * 127.0.0.1, ::1, this host's name and `names` (host names and addresses). All keys are ECDSA
 * P-256.
 *
 * Made is first an authority of its own, ca-key.pem and ca.pem (20 years, for signing server
 * certificates only), unless both are there; it signs the certificate (10 years). Keys are readable
 * by their owner only. A file is written under another name and then renamed, each key ahead of its
 * certificate: a start cut short leaves nothing half-written, and the next goes on from there.
 *
 * A pair that is there stays, whoever made it, but for one case: a certificate of this directory's
 * authority that lacks a name or ends within two years is replaced by a new one for the same key,
 * with the names of the old one and those it lacks.
 *
 * False with one line in `error` when a file cannot be read or written, or when the key of a pair
 * is missing. Any process at any time, also while the collector runs. */
bool ensure_identity(const std::string& directory, const std::vector<std::string>& names,
                     identity_files& out, identity_report& report, std::string& error);

/* The report on a pair of the operator's own. */
identity_report report_identity(const identity_files& files);

/* What hosts verify a server of this identity with. */
struct published_authorities {
    std::string pem;          /* all, the one that signed the present certificate first */
    protocol::sha256 first{}; /* SHA-256 of that one (DER): what a token of enrolment pins */
    protocol::sha256 hash{};  /* of the text, for settings: whoever was given it knows them all */
};

/* Of the pair of `directory`: the authority there and, during an exchange, the next one behind it.
 * Of any other pair, the last certificate of its chain: the operator exchanges that. False with one
 * line in `error`. */
bool publish_authorities(const std::string& directory, const identity_files& files,
                         published_authorities& out, std::string& error);

/* The exchange of the directory's authority, which takes as long as hosts need to fetch the next
 * one. renew_ makes that, ca-next.pem and ca-next-key.pem; finish_ signs the certificate anew with
 * it, for the same key and names, and puts it in the place of ca.pem and ca-key.pem. False with one
 * line in `error`; what was cut short is gone on with by the next call, or the next start. */
bool renew_server_authority(const std::string& directory, std::string& error);
bool finish_server_authority(const std::string& directory, std::string& error);

/* Another text when one of the files of the pair or of either authority was written, exchanged or
 * removed. Cheap: for a running collector that looks now and then. */
std::string identity_stamp(const std::string& directory, const identity_files& files);

#endif
