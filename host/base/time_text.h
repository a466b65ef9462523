// Times as text.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vexa {

// RFC 3339, UTC, whole seconds: "2026-11-21T09:30:00Z".
std::string TimeText(std::chrono::system_clock::time_point time);

std::int64_t SecondsSinceEpoch(std::chrono::system_clock::time_point time);

}  // namespace vexa
