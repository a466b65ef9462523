// The data folder for benchmarks of the daemon: guests with records of the size that an import writes, and three users.
#pragma once

#include <string>
#include <vector>

namespace vexa::bench {

inline constexpr int kGuests = 1000;
inline constexpr int kGrantedGuests = 20;
inline constexpr const char* kPassword = "correct horse";
inline constexpr const char* kAdministrator = "admin";
inline constexpr const char* kUserWithSomeGuests = "some";  // granted the first kGrantedGuests guests
inline constexpr const char* kUserWithAllGuests = "all";    // granted every guest

std::vector<std::string> GuestIds();

// Writes accounts, grants and guests with two disks and two network interfaces each.
void Seed(const std::string& folder);

}  // namespace vexa::bench
