/* The agent's own header: the door to all of its topics. */
#ifndef VINDRAL_H
#define VINDRAL_H

#include "vindral_checkers.h"
#include "vindral_commands.h"
#include "vindral_common.h"
#include "vindral_config.h"
#include "vindral_daemon.h"
#include "vindral_interval.h"
#include "vindral_log.h"
#include "vindral_poll.h"
#include "vindral_signals.h"
#include "vindral_text.h"
#include "vindral_wake.h"

#endif
