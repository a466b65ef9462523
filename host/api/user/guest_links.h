// The links of all guests, found out in the background while anybody lists guests or asks how they are.
//
// Finding them out asks every host, and one that hangs takes seconds to give up. So no list waits for that: it takes
// what was found out last, which is a few seconds old, and waits for a moment only when there is nothing as new as
// that.
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
  // Guests whose host did not answer this time: what is known of them is from before.
  std::map<std::string, Origin> older;

  const Origin& OriginOf(const std::string& guest_id) const;
};

// What the links say about a guest: its bits, or nothing when they are not known, or it has no interfaces. That a guest
// has no link is not known when its state or one of its interfaces has changed since the hosts were asked. `guest` is
// the guest's record. Reads the store as the calling thread's request does.
std::optional<int> KnownLinks(const GuestLinks& links, const std::string& guest_id, const Json::Value& guest);

struct LinkWatcherOptions {
  std::chrono::milliseconds interval{4'000};     // from one question to the next
  std::chrono::milliseconds idle_after{60'000};  // without readers nobody is asked
  std::chrono::milliseconds max_age{10'000};     // older links are waited for
  std::chrono::milliseconds longest_wait{700};   // of a reader, from the begin of the question on
  // Finds the links out; `before` is what was found out last, and may be null. Not set: it failed. Runs on the
  // watcher's thread. By default it asks the hosts.
  std::function<std::optional<GuestLinks>(const GuestLinks* before)> find;
};

// Threads: any, at the same time. Has one of its own from the first Get() on, which uses the installed environment and
// transport: stop it before they are removed.
class LinkWatcher {
 public:
  explicit LinkWatcher(LinkWatcherOptions options = {});
  // As Stop without a deadline.
  ~LinkWatcher();
  LinkWatcher(const LinkWatcher&) = delete;
  LinkWatcher& operator=(const LinkWatcher&) = delete;

  // What is known; never null, and empty when nothing is. Waits for links that are new enough, but for no longer than
  // `longest_wait` since the question under way began.
  std::shared_ptr<const GuestLinks> Get();
  // The same, with another limit: for readers that nobody waits for.
  std::shared_ptr<const GuestLinks> Get(std::chrono::milliseconds longest_wait);

  // No further question begins, and nobody waits any more. Does not wait.
  void BeginStop();
  // The same, and waits for the question under way. False: it still runs after `deadline`.
  bool Stop(std::chrono::milliseconds deadline);
  void Stop();

 private:
  using Clock = GuestLinks::Clock;

  void StartThread();
  void Run();
  bool IsNewEnough(Clock::time_point now) const;

  const LinkWatcherOptions options_;
  std::mutex mutex_;
  std::condition_variable wake_;             // of the thread
  std::condition_variable changed_;          // of readers
  std::shared_ptr<const GuestLinks> known_;  // under mutex_, as all below
  Clock::time_point wanted_until_;
  Clock::time_point next_;   // question
  Clock::time_point begun_;  // the question under way, or the last one
  bool is_asking_ = false;
  bool is_found_ = false;  // `known_` was found out
  bool is_stopped_ = false;
  unsigned questions_ = 0;  // that have ended
  std::thread thread_;
};

}  // namespace vexa::services
