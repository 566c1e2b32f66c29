/* What signals do to the collector. */
#ifndef VINDRAL_COLLECTOR_SIGNALS_H
#define VINDRAL_COLLECTOR_SIGNALS_H

#include <boost/asio/signal_set.hpp>
#include <functional>

/* A peer that is gone is no reason to end: writing to it fails instead. */
void ignore_broken_pipes();

/* Until the end: SIGHUP calls `read_again`, the first SIGINT or SIGTERM `end`. They are called on
 * the thread of the set's context and must be there as long as that is. */
void heed_signals(boost::asio::signal_set& set, const std::function<void()>& end,
                  const std::function<void()>& read_again);

#endif
