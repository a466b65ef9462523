// The library's system log lines: error priority, with the source unit and line in front.
#pragma once

#include <syslog.h>

// VEXA_LOG("guest", "Failed to get info of guest[%s] from dashboard.", id.c_str())
// `unit` is the source unit's name as log monitors expect it, which is not always the file's name. `unit` and `format`
// must be literals, so user input never becomes part of a format string.
#define VEXA_LOG(unit, format, ...) VEXA_LOG_AT(LOG_ERR, unit, __LINE__, format __VA_OPT__(, ) __VA_ARGS__)

// As VEXA_LOG, with another priority or position. Some positions are fixed because log monitors match them; these do
// not change when the source lines move.
#define VEXA_LOG_AT(priority, unit, position, format, ...) \
  ::syslog(priority, "%s:%d " format, unit, position __VA_OPT__(, ) __VA_ARGS__)
