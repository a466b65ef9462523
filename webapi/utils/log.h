// The common form of a system log line: error priority, and the source unit and line in front.
#pragma once

#include <syslog.h>

// VEXA_LOG("guest", "Failed to get info of guest[%s] from dashboard.", id.c_str())
// `unit` is the source unit's name as log watchers know it, which is not always the file's. `unit` and `format` are
// literals, so nothing that a caller can name becomes part of a format.
#define VEXA_LOG(unit, format, ...) ::syslog(LOG_ERR, "%s:%d " format, unit, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
