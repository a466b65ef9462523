#include "host/base/account_name.h"

#include <fmt/format.h>
#include <pwd.h>

#include <array>

namespace vexa {

std::string NameOfAccount(uid_t user) {
  std::array<char, 16384> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  const bool is_known = ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
  return is_known ? entry.pw_name : fmt::format("#{}", user);
}

}  // namespace vexa
