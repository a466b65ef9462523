// Addresses of guests' network interfaces: who uses one, and new ones that nobody else gets.
//
// A new address is reserved under "/mac/<last octet>/<address>" as {"time": <Unix seconds>}. A reservation counts for a
// day; by then an interface's record uses the address, or the address is free again. Records decide who uses an
// address, reservations only keep two callers from being given the same one.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

inline constexpr std::chrono::hours kMacReservation{24};

// What a new address is made of; tests bring their own.
struct MacSource {
  std::function<std::chrono::system_clock::time_point()> now;
  std::function<Result<std::uint64_t>()> random;  // the lower 40 bits become the address
};

MacSource SystemMacSource();

// The guest of the first interface's record with this address, whatever the letter case; "" when the record names none.
// Not set: no record has it. Looks at every interface's record; docs/services.md tells what that costs.
Result<std::optional<std::string>> GuestOfMacAddress(const store::Store& store, std::string_view mac);

// A new address: locally administered, unicast, "02:xx:xx:xx:xx:xx" in lower case. No record uses it and no other call
// on any host has been given it within a day.
// Errors: what the store says; kBusy when no address could be had in many tries.
Result<std::string> ReserveMacAddress(store::Store& store, const MacSource& source);

}  // namespace vexa::cluster
