/* What a browser gets: one sentence that says what this is, at "/"; elsewhere the same, as not
 * found. */
#ifndef VINDRAL_COLLECTOR_PAGE_H
#define VINDRAL_COLLECTOR_PAGE_H

#include "ingest/exchange.h"

/* The exchange's head has been read. */
boost::asio::awaitable<bool> answer_page(exchange& x);

#endif
