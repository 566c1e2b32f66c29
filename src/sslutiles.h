/* The connection layer: one TCP connection, one request, one response, all charged against a time
 * budget in microseconds that the caller owns. */
#ifndef VINDRAL_SSLUTILES_H
#define VINDRAL_SSLUTILES_H

#include <cstddef>
#include <openssl/types.h>

struct url_t {
    char* protocol;
    char* username;
    char* password;
    char* host;
    char* port;
    char* path;
};

int make_connection(const char* _host, const char* _port, long* t_out);
int send_request(int sk, const char* sd, size_t sd_len, long* tout, SSL* pSSL);
int receive_response(int sk, long* tout, char** out_buf, int* size_h, int* icnt_len, SSL* pSSL);
int urlparse(char* url, url_t* tokens);
char* get_header_value(char* sResp, int iHSize, const char* strName);

#endif
