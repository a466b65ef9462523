// The form of host ids.
#pragma once

#include <cstddef>
#include <string_view>

namespace vexa::transport {

inline constexpr std::size_t kMaxHostIdBytes = 63;

// Whether `id` can be the id of a host: one label of a DNS name, because certificates contain it as one. Letters,
// digits and inner hyphens, at most kMaxHostIdBytes; UUIDs qualify.
bool IsHostId(std::string_view id);

}  // namespace vexa::transport
