#include "ingest/page.h"

boost::asio::awaitable<bool> answer_page(exchange& x) {
    bool found = x.head.what == request::kind::page;
    return x.answer(found ? "200 OK" : "404 Not Found", "",
                    "This is a vindral collection server.\n");
}
