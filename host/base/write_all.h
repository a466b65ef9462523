// Writes to a descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace vexa {

// Writes the whole content, with as many calls of write(2) as it takes. On failure returns false with the reason in
// errno; part of the content may have been written.
inline bool WriteAll(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(fd, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      if (written == 0) errno = EIO;
      return false;
    }
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace vexa
