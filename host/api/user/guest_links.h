// The links of all guests, queried in the background while someone lists guests or asks for their status.
//
// A query asks every host, and giving up on one that hangs takes seconds. So lists do not wait for it: they use the
// last result, which is a few seconds old, and wait briefly only when there is no result that is new enough.
#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "host/store/store.h"

namespace vexa::services {

struct GuestLinks {
  using Clock = std::chrono::steady_clock;

  // When the hosts were asked, and the state of the store just before.
  struct Origin {
    Clock::time_point asked;
    store::Revision revision = 0;
  };

  // Bits of linked interfaces by guest id. Guests about which nothing is known are left out.
  std::map<std::string, int> connected;
  Origin origin;
  // Guests whose host did not answer this time: their data is older.
  std::map<std::string, Origin> older;

  const Origin& OriginOf(const std::string& guest_id) const;
};

// What the links say about a guest: its bits, or nothing when they are unknown, or it has no interfaces. That a guest
// has no link counts as unknown when its state or one of its interfaces has changed since the hosts were asked. `guest`
// is the guest's record. Reads the store as the calling thread's request does.
std::optional<int> KnownLinks(const GuestLinks& links, const std::string& guest_id, const Json::Value& guest);

struct LinkWatcherOptions {
  std::chrono::milliseconds interval{4'000};     // between two queries
  std::chrono::milliseconds idle_after{60'000};  // without readers no queries are made
  std::chrono::milliseconds max_age{10'000};     // readers wait for a new query if the links are older
  std::chrono::milliseconds longest_wait{700};   // for a reader, counted from the start of the query
  // Makes a query; `before` is the last result, and may be null. Not set: it failed. Runs on the watcher's thread. By
  // default it asks the hosts.
  std::function<std::optional<GuestLinks>(const GuestLinks* before)> find;
};

// Threads: any, at the same time. It has a thread of its own from the first Get() on, which uses the installed
// environment and transport: stop it before they are removed.
class LinkWatcher {
 public:
  explicit LinkWatcher(LinkWatcherOptions options = {});
  // Same as Stop without a deadline.
  ~LinkWatcher();
  LinkWatcher(const LinkWatcher&) = delete;
  LinkWatcher& operator=(const LinkWatcher&) = delete;

  // What is known; never null, but empty when nothing is known. Waits for links that are new enough, but no longer than
  // `longest_wait` since the current query began.
  std::shared_ptr<const GuestLinks> Get();
  // The same with another limit, for background readers.
  std::shared_ptr<const GuestLinks> Get(std::chrono::milliseconds longest_wait);

  // No other query begins, and waiting readers return. Does not wait.
  void BeginStop();
  // The same, and waits for the current query. False: it still runs after `deadline`.
  bool Stop(std::chrono::milliseconds deadline);
  void Stop();

 private:
  using Clock = GuestLinks::Clock;

  void StartThread();
  void Run();
  bool IsNewEnough(Clock::time_point now) const;

  const LinkWatcherOptions options_;
  std::mutex mutex_;
  std::condition_variable wake_;             // for the thread
  std::condition_variable changed_;          // for readers
  std::shared_ptr<const GuestLinks> known_;  // under mutex_, like everything below
  Clock::time_point wanted_until_;
  Clock::time_point next_;   // query
  Clock::time_point begun_;  // the current query, or the last one
  bool is_asking_ = false;
  bool is_found_ = false;  // `known_` has a result
  bool is_stopped_ = false;
  unsigned questions_ = 0;  // that have ended
  std::thread thread_;
};

}  // namespace vexa::services
