// MAC addresses of guests' network interfaces: finds the guest that uses an address, and assigns new unique ones.
//
// A new address is reserved under "/mac/<last octet>/<address>" as {"time": <Unix seconds>}. A reservation lasts a day;
// by then an interface's record uses the address, or the address is free again. An address is in use when an
// interface's record has it; reservations only keep two callers from getting the same one.
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

inline constexpr std::chrono::hours kMacReservationLifetime{24};

// The clock and the random numbers for new addresses; tests use their own.
struct MacSource {
  std::function<std::chrono::system_clock::time_point()> now;
  std::function<Result<std::uint64_t>()> random;  // the lower 40 bits become the address
};

MacSource SystemMacSource();

// The guest of the first interface record with this address, ignoring case; "" when the record names no guest. Not set:
// no record has it. Scans every interface record; docs/services.md describes the cost.
Result<std::optional<std::string>> GuestOfMacAddress(const store::Store& store, std::string_view mac);

// Reserves a new address: locally administered, unicast, "02:xx:xx:xx:xx:xx" in lower case. No record uses it, and no
// other call on any host has received it within a day. Errors: those of the store; kBusy when many attempts found no
// free address.
Result<std::string> ReserveMacAddress(store::Store& store, const MacSource& source);

}  // namespace vexa::cluster
