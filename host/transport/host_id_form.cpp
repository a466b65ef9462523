#include "host/transport/host_id_form.h"

#include <algorithm>

namespace vexa::transport {

bool IsHostId(std::string_view id) {
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
  };
  return !id.empty() && id.size() <= kMaxHostIdBytes && id.front() != '-' && id.back() != '-' &&
         std::ranges::all_of(id, fits);
}

}  // namespace vexa::transport
