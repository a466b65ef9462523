// Shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace vexa::fuzz {

// Ends the program unless `condition` is true: the fuzzer then keeps the input, and a corpus run fails. `promise` is a
// sentence that states what must be true.
inline void Check(bool condition, const char* promise) {
  if (condition) return;
  std::fprintf(stderr, "Broken promise: %s\n", promise);
  std::abort();
}

// The input as text.
inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Removes and returns the text up to the next `separator`, which is removed as well; all of `rest` without a separator.
inline std::string_view TakeUntil(std::string_view& rest, std::string_view separator) {
  const std::size_t end = rest.find(separator);
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + separator.size());
  return part;
}

// Whether `text` is one line without control characters.
inline bool IsOneLine(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
  }
  return true;
}

}  // namespace vexa::fuzz
