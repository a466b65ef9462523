// Formats of times.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vexa {

// RFC 3339, UTC, whole seconds: "2026-11-21T09:30:00Z".
std::string FormatUtcTime(std::chrono::system_clock::time_point time);

// Seconds since 1970, the format of times in records.
std::int64_t ToUnixSeconds(std::chrono::system_clock::time_point time);

}  // namespace vexa
