// The common form of a system log line: error priority, and the source unit and line in front.
#pragma once

#include <syslog.h>

// VEXA_LOG("guest", "Failed to get info of guest[%s] from dashboard.", id.c_str())
// `unit` is the source unit's name as log watchers know it, which is not always the file's. `unit` and `format` are
// literals, so nothing that a caller can name becomes part of a format.
#define VEXA_LOG(unit, format, ...) VEXA_LOG_AT(LOG_ERR, unit, __LINE__, format __VA_OPT__(, ) __VA_ARGS__)

// The same with another priority or position. A fixed position identifies the line to log watchers; it stays what it
// is when the source moves.
#define VEXA_LOG_AT(priority, unit, position, format, ...) \
  ::syslog(priority, "%s:%d " format, unit, position __VA_OPT__(, ) __VA_ARGS__)
