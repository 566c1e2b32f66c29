#include "ingest/unpacker.h"

#include "ingest/short_of_memory.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <memory>

namespace asio = boost::asio;

asio::awaitable<bool> unpacker::unpack(const request& head, std::string_view wire,
                                       std::string& plain, std::string& error) {
    auto work = [&, wire] {
        return unpack_body(wire, head.compression, head.checksum, options_.body, plain, error);
    };
    if (std::max<size_t>(wire.size(), head.compression) <= options_.unpack_here) {
        co_return work();
    }
    auto& thread = head.compression > options_.huge ? huge_ : large_;
    auto elsewhere = [this, work, &thread](auto handler) {
        auto held = std::make_shared<decltype(handler)>(std::move(handler));
        asio::post(thread, [this, work, held, guard = asio::make_work_guard(context_)] {
            bool good = false;
            std::exception_ptr thrown;
            try {
                good = work();
            } catch (const std::exception&) {
                thrown = std::current_exception();
            }
            post_surely(context_, [thrown, good, held] { std::move (*held)(thrown, good); });
        });
    };
    co_return co_await asio::async_initiate<const asio::use_awaitable_t<>,
                                            void(std::exception_ptr, bool)>(elsewhere,
                                                                            asio::use_awaitable);
}
