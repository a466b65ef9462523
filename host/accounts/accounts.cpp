#include "host/accounts/accounts.h"

namespace vexa::base {

// Written out instead of isalnum(3): the locale must not decide which names are valid.
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

std::string FoldedName(std::string_view name) {
  std::string folded(name);
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return folded;
}

}  // namespace vexa::base
