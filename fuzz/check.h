// Shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace vexa::fuzz {

// Ends the program when `holds` is false: the fuzzer then keeps the input, and a corpus run fails.
inline void Check(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "Broken promise: %s\n", promise);
  std::abort();
}

inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The text up to the next `separator`, which is removed as well; the rest when there is none.
inline std::string_view TakeUntil(std::string_view& rest, std::string_view separator) {
  const std::size_t end = rest.find(separator);
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + separator.size());
  return part;
}

}  // namespace vexa::fuzz
