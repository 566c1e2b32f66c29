/* In place of the log's writer: reads what a message is made of and writes nothing. */
#ifndef VINDRAL_SILENT_LOG_H
#define VINDRAL_SILENT_LOG_H

#include "fuzz.h"
#include "vindral_log.h"

#include <cstdarg>

char* log_file = nullptr;
int log_level = 6;

void leveledadd2log(int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    require(vsnprintf(nullptr, 0, format, arguments) >= 0);
    va_end(arguments);
}

#endif
