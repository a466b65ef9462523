#include "host/base/uuid.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace vexa {

Result<std::string> RandomUuid() {
  std::array<unsigned char, 16> b{};
  if (::getrandom(b.data(), b.size(), 0) != static_cast<ssize_t>(b.size())) {
    return SystemError(ErrorCode::kInternal, "No random numbers for an id", errno);
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // the variant of RFC 4122
  char text[37];
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return std::string(text);
}

}  // namespace vexa
