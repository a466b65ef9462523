// The link state of all guests' network interfaces, queried in the background while users list guests or ask for their
// status.
//
// A query asks every host, and giving up on one that hangs takes seconds. So lists do not wait for it: they use the
// last result, which is a few seconds old, and wait briefly only when there is no result that is new enough.
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "host/base/mutex.h"
#include "host/records/reader.h"
#include "host/store/store.h"

namespace vexa::api {

struct GuestLinkStates {
  using Clock = std::chrono::steady_clock;

  // When the hosts were asked, and the revision of the store just before.
  struct Origin {
    Clock::time_point asked;
    store::Revision revision = 0;
  };

  // By guest id: a bit for each interface that has a link, 0 when none has one. Guests whose links are unknown are left
  // out.
  std::map<std::string, int> connected;
  Origin origin;
  // For guests whose host did not answer this time: the earlier query that their data is from.
  std::map<std::string, Origin> older_origins;

  const Origin& OriginOf(const std::string& guest_id) const;
};

// The bits of a guest. Not set when they are unknown, or when it has no interfaces. A guest without any link is
// reported as unknown when its state or one of its interfaces has changed since the hosts were asked. `guest` is the
// guest's record.
std::optional<int> KnownLinks(const records::Reader& reader, const GuestLinkStates& links, const std::string& guest_id,
                              const Json::Value& guest);

struct LinkWatcherOptions {
  std::chrono::milliseconds interval{4'000};     // between two queries
  std::chrono::milliseconds idle_after{60'000};  // without readers no queries are made
  std::chrono::milliseconds max_age{10'000};     // readers wait for a new query if the last result is older
  std::chrono::milliseconds max_wait{700};       // for a reader, counted from the start of the query
  // Makes a query. `previous` is the last result, and may be null. Not set: it failed. Runs on the watcher's thread. By
  // default it asks the hosts.
  std::function<std::optional<GuestLinkStates>(const GuestLinkStates* previous)> query;
};

// Threads: any, at the same time. It has a thread of its own from the first Get() on, which uses the installed
// environment and transport: stop it before they are removed.
class LinkWatcher {
 public:
  explicit LinkWatcher(LinkWatcherOptions options = {});
  // Calls Stop() without a deadline.
  ~LinkWatcher();
  LinkWatcher(const LinkWatcher&) = delete;
  LinkWatcher& operator=(const LinkWatcher&) = delete;

  // The latest result; never null, but empty before the first query has finished. Waits for a result that is new
  // enough, but no longer than `max_wait` since the current query began.
  std::shared_ptr<const GuestLinkStates> Get();
  // The same with another limit, for background readers.
  std::shared_ptr<const GuestLinkStates> Get(std::chrono::milliseconds max_wait);

  // Starts no more queries, and lets waiting readers return. Does not wait.
  void BeginStop();
  // The same, and waits for the current query. False: it still runs after `deadline`.
  bool Stop(std::chrono::milliseconds deadline);
  void Stop();

 private:
  using Clock = GuestLinkStates::Clock;

  void StartThread() VEXA_REQUIRES(mutex_);
  void Run();
  bool IsNewEnough(Clock::time_point now) const VEXA_REQUIRES(mutex_);

  const LinkWatcherOptions options_;
  Mutex mutex_;
  ConditionVariable wake_;     // for the thread
  ConditionVariable changed_;  // for readers
  std::shared_ptr<const GuestLinkStates> latest_ VEXA_GUARDED_BY(mutex_);
  Clock::time_point wanted_until_ VEXA_GUARDED_BY(mutex_);
  Clock::time_point next_query_ VEXA_GUARDED_BY(mutex_);
  Clock::time_point query_started_ VEXA_GUARDED_BY(mutex_);  // the current query, or the last one
  bool is_querying_ VEXA_GUARDED_BY(mutex_) = false;
  bool has_result_ VEXA_GUARDED_BY(mutex_) = false;  // `latest_` is the result of a query
  bool is_stopped_ VEXA_GUARDED_BY(mutex_) = false;
  unsigned finished_queries_ VEXA_GUARDED_BY(mutex_) = 0;
  std::thread thread_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa::api
