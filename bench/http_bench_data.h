// The data folder of the HTTP measurement: guests of the size that an import writes, and three users.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::bench {

inline constexpr int kGuests = 1000;
inline constexpr int kGrantedToSome = 20;
inline constexpr const char* kPassword = "correct horse";
inline constexpr const char* kAdministrator = "admin";
inline constexpr const char* kUserOfSome = "some";  // granted the first kGrantedToSome guests
inline constexpr const char* kUserOfAll = "all";    // granted every guest

[[noreturn]] void Fail(const std::string& message);

template <class T>
T Require(Result<T> result) {
  if (!result) Fail(result.error().ToString());
  return std::move(result).value();
}

std::vector<std::string> GuestIds();

// Writes accounts, grants and guests with two disks and two network interfaces each.
void Seed(const std::string& folder);

}  // namespace vexa::bench
