// Renders a response as bytes.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "host/http/http_server.h"

namespace vexa::http {

enum class ConnectionAfterResponse { kKeepAlive, kKeepAliveForHttp10, kClose };

// Appends the status line and the fields of `response` to `out`. Fields with characters that could end a line, and
// fields that the server sets itself (framing, date, id), are left out. `response.status` is 200 to 599.
void AppendResponseHeader(std::string& out, const HttpResponse& response, std::string_view request_id,
                          std::string_view date, ConnectionAfterResponse after);

// Whether a response with this status may have a body at all.
bool StatusHasBody(int status);

// "Sun, 06 Nov 1994 08:49:37 GMT"
std::string HttpDate(std::time_t time);

// 16 hex digits, unique within a process and most likely across processes. Threads: any.
std::string NewRequestId();

}  // namespace vexa::http
