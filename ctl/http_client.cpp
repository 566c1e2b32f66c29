#include "ctl/http_client.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <array>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <exception>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <optional>
#include <sstream>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::use_awaitable;
using std::chrono::seconds;
using tls_stream = asio::ssl::stream<beast::tcp_stream>;

namespace {

constexpr seconds connect_time{10}, answer_time{30}, silence{45};
constexpr uint64_t most_body = 64u << 20;
constexpr uint32_t most_head = 64u << 10;

beast::tcp_stream& lowest(beast::tcp_stream& stream) {
    return stream;
}
beast::tcp_stream& lowest(tls_stream& stream) {
    return stream.next_layer();
}

/* A server may close without the farewell of TLS: the length of an answer tells whether it is
 * whole. */
bool is_end(const beast::error_code& error) {
    return error == http::error::end_of_stream || error == asio::error::eof ||
           error == asio::ssl::error::stream_truncated;
}

bool is_stream(std::string_view type) {
    return beast::iequals(type.substr(0, type.find_first_of("; ")), "text/event-stream");
}

struct exchange {
    const http_request& what;
    http::request<http::string_body> request;
    http_answer answer;
    /* Of a stream; null: of an answer. */
    const std::function<bool(std::string_view)>* take = nullptr;
    std::string end;
};

template <typename Stream>
asio::awaitable<void> read_answer(Stream& stream, exchange& of, beast::flat_buffer& buffer,
                                  http::response_parser<http::empty_body>& head) {
    http::response_parser<http::string_body> parser(std::move(head));
    parser.body_limit(most_body);
    co_await http::async_read(stream, buffer, parser, use_awaitable);
    of.answer.body = std::move(parser.get().body());
}

template <typename Stream>
asio::awaitable<void> read_stream(Stream& stream, exchange& of, beast::flat_buffer& buffer,
                                  http::response_parser<http::empty_body>& head) {
    http::response_parser<http::buffer_body> parser(std::move(head));
    parser.body_limit(boost::none);
    std::string bytes(16u << 10, 0);
    while (!parser.is_done()) {
        lowest(stream).expires_after(silence);
        parser.get().body().data = bytes.data();
        parser.get().body().size = bytes.size();
        beast::error_code error;
        co_await http::async_read_some(stream, buffer, parser,
                                       asio::redirect_error(use_awaitable, error));
        const size_t count = bytes.size() - parser.get().body().size;
        if (count > 0 && !(*of.take)(std::string_view(bytes).substr(0, count))) {
            co_return;
        }
        if (error && error != http::error::need_buffer) {
            of.end = is_end(error)                    ? "the collector has ended it"
                     : error == beast::error::timeout ? "nothing came for 45 seconds"
                                                      : error.message();
            co_return;
        }
    }
    of.end = "the collector has ended it";
}

template <typename Stream>
asio::awaitable<void> talk(Stream& stream, exchange& of) {
    lowest(stream).expires_after(answer_time);
    std::ostringstream request; /* small, and so in one piece */
    request << of.request;
    const std::string bytes = std::move(request).str();
    co_await asio::async_write(stream, asio::buffer(bytes), use_awaitable);
    beast::flat_buffer buffer;
    http::response_parser<http::empty_body> head;
    head.header_limit(most_head);
    head.body_limit(most_body); /* that it announces */
    co_await http::async_read_header(stream, buffer, head, use_awaitable);
    of.answer.status = static_cast<int>(head.get().result_int());
    of.answer.type = std::string(head.get()[http::field::content_type]);
    if (of.take != nullptr && of.answer.status == 200 && is_stream(of.answer.type)) {
        co_await read_stream(stream, of, buffer, head);
    } else {
        co_await read_answer(stream, of, buffer, head);
    }
}

/* What TLS has against the server, in words. */
std::string why_not_trusted(tls_stream& stream, const http_access& access) {
    long found = SSL_get_verify_result(stream.native_handle());
    if (found == X509_V_OK) {
        return "";
    }
    std::string text =
        std::string("its certificate is not trusted: ") + X509_verify_cert_error_string(found);
    if (found == X509_V_ERR_HOSTNAME_MISMATCH || found == X509_V_ERR_IP_ADDRESS_MISMATCH) {
        text += " (" + access.where.host + " is not in it)";
    } else if (access.ca_file.empty()) {
        text += "; --ca names the file of the authority that signed it";
    }
    return text;
}

} // namespace

struct http_client::state {
    explicit state(http_access a) : access(std::move(a)) {}

    http_access access;
    asio::io_context io{1};
    asio::ssl::context tls{asio::ssl::context::tls_client};

    [[noreturn]] void fail(const std::string& why) const {
        throw failure{status_unreached,
                      access.where.text() + " cannot be asked: " + printable(why)};
    }

    http::request<http::string_body> request_of(const http_request& what) const {
        http::request<http::string_body> request;
        request.version(11);
        request.method_string(what.method);
        request.target(access.where.prefix + what.target);
        request.set(http::field::host, access.where.authority());
        request.set(http::field::user_agent, "vindralctl/" VINDRAL_VERSION);
        request.set(http::field::connection, "close");
        if (!access.token.empty()) {
            request.set(http::field::authorization, "Bearer " + access.token);
        }
        if (!what.last_event_id.empty()) {
            request.set("Last-Event-ID", what.last_event_id);
        }
        if (!what.accept.empty()) {
            request.set(http::field::accept, what.accept);
        }
        if (!what.body.empty()) {
            request.set(http::field::content_type, what.type);
            request.body() = what.body;
        }
        if (!what.body.empty() || what.method == "POST") {
            request.content_length(what.body.size());
        }
        return request;
    }

    asio::awaitable<void> connect(beast::tcp_stream& stream) {
        asio::ip::tcp::resolver resolver(io);
        auto found =
            co_await resolver.async_resolve(access.where.host, access.where.port, use_awaitable);
        stream.expires_after(connect_time);
        co_await stream.async_connect(found, use_awaitable);
    }

    asio::awaitable<void> go_plain(exchange& of) {
        beast::tcp_stream stream(io);
        co_await connect(stream);
        co_await talk(stream, of);
    }

    /* `untrusted` says why when the handshake fails for that. */
    asio::awaitable<void> go_encrypted(exchange& of, std::string& untrusted) {
        tls_stream stream(io, tls);
        const std::string& host = access.where.host;
        X509_VERIFY_PARAM* check = SSL_get0_param(stream.native_handle());
        X509_VERIFY_PARAM_set_hostflags(check, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        bool set;
        if (access.where.is_address()) {
            set = X509_VERIFY_PARAM_set1_ip_asc(check, host.c_str()) == 1;
        } else {
            set = X509_VERIFY_PARAM_set1_host(check, host.c_str(), 0) == 1 &&
                  SSL_set_tlsext_host_name(stream.native_handle(), host.c_str()) == 1;
        }
        if (!set) {
            throw failure{status_unreached, "out of memory"};
        }
        co_await connect(stream.next_layer());
        beast::error_code error;
        co_await stream.async_handshake(asio::ssl::stream_base::client,
                                        asio::redirect_error(use_awaitable, error));
        if (error) {
            untrusted = why_not_trusted(stream, access);
            throw beast::system_error(error);
        }
        co_await talk(stream, of);
    }

    void go(exchange& of) {
        std::string untrusted;
        std::exception_ptr failed;
        io.restart();
        asio::co_spawn(io, access.where.tls ? go_encrypted(of, untrusted) : go_plain(of),
                       [&](std::exception_ptr e) { failed = std::move(e); });
        io.run();
        if (!failed) {
            return;
        }
        try {
            std::rethrow_exception(failed);
        } catch (const beast::system_error& e) {
            fail(!untrusted.empty()                  ? untrusted
                 : e.code() == beast::error::timeout ? "no answer in time"
                 : e.code() == http::error::bad_version || e.code() == http::error::bad_line_ending
                     ? "what answers does not speak HTTP"
                 : is_end(e.code()) || e.code() == http::error::partial_message
                     ? "the connection was closed before the answer was whole"
                 : e.code() == asio::error::connection_refused
                     ? "connection refused; is the collector running there? --url or VINDRAL_URL "
                       "says where"
                     : e.code().message());
        }
    }
};

http_client::http_client(http_access access) : state_(std::make_unique<state>(std::move(access))) {
    if (!state_->access.where.tls) {
        return;
    }
    beast::error_code error;
    SSL_CTX_set_min_proto_version(state_->tls.native_handle(), TLS1_2_VERSION);
    state_->tls.set_verify_mode(asio::ssl::verify_peer, error);
    const std::string& file = state_->access.ca_file;
    if (file.empty()) {
        state_->tls.set_default_verify_paths(error);
    } else if (state_->tls.load_verify_file(file, error); error) {
        throw failure{status_usage, printable(file) + " holds no certificates that can be read: " +
                                        printable(error.message())};
    }
}

http_client::~http_client() = default;

http_answer http_client::ask(const http_request& what) {
    exchange of{what, state_->request_of(what), {}, nullptr, ""};
    state_->go(of);
    return std::move(of.answer);
}

http_answer http_client::follow(const http_request& what,
                                const std::function<bool(std::string_view)>& take,
                                std::string& end) {
    exchange of{what, state_->request_of(what), {}, &take, ""};
    of.request.set(http::field::accept, "text/event-stream");
    state_->go(of);
    end = std::move(of.end);
    return std::move(of.answer);
}
