#include "host/accounts/accounts.h"

namespace vexa::accounts {

// Does not use isalnum(3), because the locale must not decide which names are valid.
bool IsValidAccountName(std::string_view name) {
  constexpr std::size_t kMaxBytes = 64;
  const auto is_first = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  };
  if (name.empty() || name.size() > kMaxBytes || !is_first(name.front())) return false;
  for (const char c : name) {
    if (!is_first(c) && c != '.' && c != '-' && c != '@' && c != '\\') return false;
  }
  return true;
}

std::string LowerCaseName(std::string_view name) {
  std::string lower(name);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

}  // namespace vexa::accounts
