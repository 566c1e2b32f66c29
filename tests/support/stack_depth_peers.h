/* Whom the threads of stack_depth_test talk to: they make the libraries go the long ways. Each
 * serves until its end of scope; all are on the loopback interface. */
#ifndef VINDRAL_STACK_DEPTH_PEERS_H
#define VINDRAL_STACK_DEPTH_PEERS_H

#include <openssl/types.h>
#include <string>
#include <sys/types.h>
#include <thread>

/* Gives the process a network of its own, with 127.0.0.1 and the interface "depth0", whose names
 * come from the hosts file and from the name server below. False without the right to; before any
 * thread is started. */
bool leave_for_own_network();

/* A TLS server's context with a chain of three certificates for "localhost": root, authority,
 * server. The keys are of one kind, "EC" (P-256) or "RSA" (4096 bits). `ca_file`, when there is
 * one, gets the root. Freed with SSL_CTX_free. */
SSL_CTX* chain_context(const char* kind, const std::string& ca_file);

/* One thread that answers on a descriptor until a byte comes through the pipe. */
class served {
public:
    ~served();
    served(const served&) = delete;
    served& operator=(const served&) = delete;

protected:
    served() = default;
    void start(void (*answer)(int fd), int first, int second = -1);

private:
    int stop_pipe_[2] = {-1, -1};
    int fds_[2] = {-1, -1};
    std::thread thread_;
};

/* A name server on 127.0.0.1:53, which every host name leads through an alias to 60 addresses, all
 * 127.0.0.1. Its answers over UDP are cut short, so it is asked again over TCP. */
class name_server : public served {
public:
    name_server();
};

/* A MySQL server on 127.0.0.1 that lets everyone in, by the full exchange of the plugin
 * caching_sha2_password with an RSA key, and answers each SHOW with some rows. */
class mysql_server : public served {
public:
    mysql_server();
    int port() const { return port_; }

private:
    int port_ = 0;
};

/* A process with an SNMP agent on 127.0.0.1:161. Before the test has threads; the library
 * has to be there (use_real_library). */
class snmp_server {
public:
    snmp_server();
    ~snmp_server();
    snmp_server(const snmp_server&) = delete;
    snmp_server& operator=(const snmp_server&) = delete;

private:
    pid_t pid_;
};

#endif
