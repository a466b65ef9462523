#include "host/base/interface_name.h"

#include <net/if.h>

#include <algorithm>

#include "host/base/json_parse.h"

namespace vexa {

bool IsInterfaceName(const std::string& name) {
  if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == ".." || !IsValidUtf8(name)) {
    return false;
  }
  return std::ranges::none_of(name, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return c == '/' || c == ':' || byte <= ' ' || byte == 0x7F;
  });
}

}  // namespace vexa
