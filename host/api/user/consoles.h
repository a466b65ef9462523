// The consoles of guests that are open through this host: who has them, how many there may be, and when they end.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "host/api/console.h"
#include "host/api/metrics.h"
#include "host/base/mutex.h"
#include "host/base/refusal.h"
#include "host/guests/guest_control.h"
#include "host/http/http_tunnel.h"
#include "host/store/store.h"

namespace vexa::api {

// Opens the console of a guest on another host.
using RemoteConsole = std::function<Result<std::unique_ptr<http::TunnelEnd>, Refusal>(const std::string& host_id,
                                                                                      const ConsoleTarget& target)>;

// The user's error code for the host's code of a failed call about a console; an unknown one becomes kActionFailed.
int ConsoleCodeForUser(int host_code);

struct ConsoleOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;
  const Identity* identity = nullptr;
  guests::GuestControl* guests = nullptr;  // null: this host runs no guests
  RemoteConsole open_remote;
  std::size_t max_consoles = 256;  // of all users, and of all other hosts, each
  std::size_t max_consoles_per_user = 16;
  std::chrono::milliseconds idle = std::chrono::minutes(30);
};

// Threads: any, at the same time.
class Consoles {
 public:
  explicit Consoles(ConsoleOptions options) : options_(std::move(options)) {}

  // For users: checks the right, finds the guest's host, opens the console there, and writes to the cluster log who did
  // it, whether it succeeded or not. For other hosts, which have done that: opens the console of a guest of this host.
  // Waits for the hypervisor or the other host.
  std::variant<std::shared_ptr<http::Tunnel>, ConsoleRefusal> Open(const ConsolePlan& plan);

  // Ends the consoles whose users, rights, guests or hosts are gone. Those of sessions that have ended end without it.
  // What cannot be read now counts as unchanged. Call it every few seconds.
  void Check();

  std::size_t size() const;
  // One entry for each type.
  std::vector<ConsoleStats> stats() const;

 private:
  struct Entry {
    ConsolePlan plan;
    std::atomic<bool> may_continue = true;
  };

  // Null: there are too many. The entry stays until the last copy is destroyed.
  std::shared_ptr<Entry> Enter(const ConsolePlan& plan);
  bool IsStillAllowed(const ConsolePlan& plan) const;
  std::variant<std::shared_ptr<http::Tunnel>, ConsoleRefusal> OpenForUser(const ConsolePlan& plan);
  Result<std::unique_ptr<http::TunnelEnd>, Refusal> OpenHere(const ConsoleTarget& target) const;
  std::shared_ptr<http::Tunnel> MakeTunnel(std::unique_ptr<http::TunnelEnd> end, std::shared_ptr<Entry> entry) const;

  struct Counters {
    std::atomic<std::uint64_t> opened{0};
    std::atomic<std::uint64_t> bytes_to_guest{0};
    std::atomic<std::uint64_t> bytes_from_guest{0};
  };
  class CountedEnd;
  struct Table {
    Counters& Of(const ConsoleTarget& target) { return target.type == kScreenType ? screens : serial_lines; }

    Counters screens;
    Counters serial_lines;
    mutable Mutex mutex;
    std::map<const Entry*, std::weak_ptr<Entry>> entries VEXA_GUARDED_BY(mutex);
  };

  const ConsoleOptions options_;
  const std::shared_ptr<Table> table_ = std::make_shared<Table>();
};

}  // namespace vexa::api
