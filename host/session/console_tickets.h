// One-time tickets for the consoles of guests, for viewers that cannot present a session.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/session/session_token.h"
#include "host/session/sessions.h"

namespace vexa::session {

// What a ticket is for.
struct ConsoleTicket {
  SessionUser user;           // who asked for it
  std::string session_token;  // with which session; empty on a Unix socket
  std::string guest_id;
  std::string type;
};

// In memory only: a ticket is good at the host that made it, and until that stops. Only hashes are kept.
// Threads: any, at the same time.
class ConsoleTickets {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kLifetime{30};
  static constexpr std::size_t kMaxTickets = 4096;
  static constexpr std::size_t kMaxTicketsPerUser = 64;

  explicit ConsoleTickets(std::function<Clock::time_point()> now = Clock::now) : now_(std::move(now)) {}

  // A new ticket, 43 characters. Errors: kBusy (the user, or all users together, have too many that were not used);
  // those of NewToken.
  Result<std::string> Issue(ConsoleTicket ticket);

  // What a ticket is for. It is used up with that, whatever the caller does with it. Not set: it is unknown, was used,
  // or is older than kLifetime.
  std::optional<ConsoleTicket> Redeem(std::string_view ticket);

 private:
  struct Entry {
    ConsoleTicket ticket;
    Clock::time_point expires;
  };

  void RemoveExpired() VEXA_REQUIRES(mutex_);

  const std::function<Clock::time_point()> now_;
  Mutex mutex_;
  std::unordered_map<std::string, Entry> entries_ VEXA_GUARDED_BY(mutex_);  // by the hash's text
};

}  // namespace vexa::session
