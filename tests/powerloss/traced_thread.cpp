#include "tests/powerloss/traced_thread.h"

#include <fmt/format.h>
#include <sys/uio.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <fstream>
#include <vector>

#include "tests/support/check.h"

namespace vexa::powerloss {

std::string ReadMemory(pid_t thread, std::uint64_t address, std::size_t bytes) {
  std::string text(bytes, '\0');
  const iovec local{text.data(), bytes};
  const iovec remote{reinterpret_cast<void*>(address), bytes};
  const ssize_t count = ::process_vm_readv(thread, &local, 1, &remote, 1, 0);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

std::string ReadText(pid_t thread, std::uint64_t address) {
  constexpr std::uint64_t kPage = 4096;
  std::string text;
  while (text.size() < PATH_MAX) {
    // Up to the end of the page: the next one may not exist.
    const std::string more = ReadMemory(thread, address + text.size(), kPage - (address + text.size()) % kPage);
    const std::size_t end = more.find('\0');
    text += more.substr(0, end);
    if (end != std::string::npos || more.empty()) break;
  }
  return text;
}

std::string PathOfDescriptor(pid_t thread, std::uint64_t descriptor) {
  return fmt::format("/proc/{}/fd/{}", thread, static_cast<int>(descriptor));
}

std::uint64_t FieldOf(pid_t thread, std::uint64_t descriptor, std::string_view name, int base) {
  std::ifstream file(fmt::format("/proc/{}/fdinfo/{}", thread, static_cast<int>(descriptor)));
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(name)) continue;
    const std::size_t at = line.find_first_not_of(": \t", name.size());
    std::uint64_t value = 0;
    if (at == std::string::npos) break;
    std::from_chars(line.data() + at, line.data() + line.size(), value, base);
    return value;
  }
  test::Fail(fmt::format("The descriptor {} of {} has no '{}'", descriptor, thread, name));
}

std::string ReadBuffers(pid_t thread, std::uint64_t buffers, std::uint64_t count, std::size_t bytes) {
  const std::string text = ReadMemory(thread, buffers, count * sizeof(iovec));
  std::vector<iovec> list(text.size() / sizeof(iovec));
  std::memcpy(list.data(), text.data(), list.size() * sizeof(iovec));
  std::string read;
  for (const iovec& part : list) {
    const std::size_t wanted = std::min(part.iov_len, bytes - read.size());
    read += ReadMemory(thread, reinterpret_cast<std::uint64_t>(part.iov_base), wanted);
  }
  return read;
}

}  // namespace vexa::powerloss
