/* unpack_body() without holding up the network thread: what may take long is done on a second
 * thread, what may take very long on a third. */
#ifndef VINDRAL_COLLECTOR_UNPACKER_H
#define VINDRAL_COLLECTOR_UNPACKER_H

#include "ingest/request.h"
#include "ingest/server_options.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <string>
#include <string_view>

class unpacker {
public:
    /* Its end waits for what is being unpacked, whose exchange has to be there until then: so
     * `context` must outlive this. */
    unpacker(boost::asio::io_context& context, const server_options& options)
        : context_(context), options_(options) {}

    /* Without memory it throws, and the connection ends. What the arguments refer to must be there
     * until it is done. */
    boost::asio::awaitable<bool> unpack(const request& head, std::string_view wire,
                                        std::string& plain, std::string& error);

private:
    boost::asio::io_context& context_;
    const server_options& options_;
    boost::asio::thread_pool large_{1}, huge_{1};
};

#endif
