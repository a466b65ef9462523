#include "host/api/user/guest_links.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <set>
#include <system_error>
#include <utility>

#include "host/base/background_thread.h"
#include "host/records/live_state.h"
#include "host/records/reading.h"
#include "host/records/revisions.h"
#include "host/store/key.h"
#include "host/transport/unanswered.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

// A host that does not answer says nothing about links: what was known about its guests is kept, and the rest stays
// unknown.
void KeepGuestsOf(const std::set<std::string>& hosts, const GuestLinks* before, GuestLinks& links) {
  for (auto guest = links.connected.begin(); guest != links.connected.end();) {
    std::string host_id;
    if (guest->second != 0 || vgConfHostGet(guest->first, host_id) != 0 || !hosts.contains(host_id)) {
      ++guest;
      continue;
    }
    const auto known = before ? before->connected.find(guest->first) : links.connected.end();
    if (!before || known == before->connected.end()) {
      guest = links.connected.erase(guest);
      continue;
    }
    guest->second = known->second;
    links.older[guest->first] = before->OriginOf(guest->first);
    ++guest;
  }
}

std::optional<GuestLinks> AskHosts(const GuestLinks* before) {
  const cluster::RequestScope scope;
  GuestLinks links;
  links.origin.asked = GuestLinks::Clock::now();
  const Result<store::Revision> revision = cluster::CurrentRevision();
  if (!revision) return std::nullopt;
  links.origin.revision = *revision;
  const transport::UnansweredScope unanswered;
  if (!VexaVirtualization::GetGuestsConnectedMap(links.connected)) return std::nullopt;
  if (!unanswered.hosts().empty()) KeepGuestsOf(unanswered.hosts(), before, links);
  return links;
}

std::optional<GuestLinks> FindSafely(const LinkWatcherOptions& options, const GuestLinks* before) {
  try {
    return options.find ? options.find(before) : AskHosts(before);
  } catch (const std::exception& exception) {
    ::syslog(LOG_ERR, "The links of the guests cannot be found out: %s", exception.what());
    return std::nullopt;
  }
}

// Whether the value under `key` was written after `revision`, or cannot be read.
bool HasChangedSince(const std::string& key, store::Revision revision) {
  const Result<store::Revision> found = cluster::RevisionOf(key);
  return !found || *found > revision;
}

}  // namespace

const GuestLinks::Origin& GuestLinks::OriginOf(const std::string& guest_id) const {
  const auto found = older.find(guest_id);
  return found == older.end() ? origin : found->second;
}

std::optional<int> KnownLinks(const GuestLinks& links, const std::string& guest_id, const Json::Value& guest) {
  const auto found = links.connected.find(guest_id);
  if (found == links.connected.end()) return std::nullopt;
  if (found->second != 0) return found->second;
  // A guest without interfaces has no link to lose.
  if (json::Elements(json::Member(guest, keys::vnics)).empty()) return std::nullopt;
  const store::Revision asked_at = links.OriginOf(guest_id).revision;
  if (HasChangedSince(cluster::LiveStateKey(guest_id), asked_at)) return std::nullopt;
  for (const Json::Value& nic : json::Elements(json::Member(guest, keys::vnics))) {
    const std::string key = store::MakeKey({"dash", DashCate::vNic.name(), json::String(nic), keys::object});
    if (HasChangedSince(key, asked_at)) return std::nullopt;
  }
  return 0;
}

LinkWatcher::LinkWatcher(LinkWatcherOptions options)
    : options_(std::move(options)), known_(std::make_shared<const GuestLinks>()) {}

LinkWatcher::~LinkWatcher() { Stop(); }

std::shared_ptr<const GuestLinks> LinkWatcher::Get() { return Get(options_.longest_wait); }

std::shared_ptr<const GuestLinks> LinkWatcher::Get(std::chrono::milliseconds longest_wait) {
  std::unique_lock lock(mutex_);
  const Clock::time_point now = Clock::now();
  wanted_until_ = now + options_.idle_after;
  if (!thread_.joinable() && !is_stopped_) StartThread();
  wake_.notify_one();
  // Without a query in progress, or one that is due, there is nothing to wait for: the last one has just failed.
  if (IsNewEnough(now) || is_stopped_ || !thread_.joinable() || (!is_asking_ && next_ > now)) return known_;
  const Clock::time_point begun = is_asking_ ? begun_ : now;
  changed_.wait_until(lock, begun + longest_wait,
                      [this, seen = questions_] { return is_stopped_ || questions_ != seen; });
  return known_;
}

bool LinkWatcher::IsNewEnough(Clock::time_point now) const {
  return is_found_ && now - known_->origin.asked <= options_.max_age;
}

void LinkWatcher::BeginStop() {
  const std::lock_guard lock(mutex_);
  is_stopped_ = true;
  wake_.notify_all();
  changed_.notify_all();
}

bool LinkWatcher::Stop(std::chrono::milliseconds deadline) {
  BeginStop();
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, deadline, [this] { return !is_asking_; });
}

void LinkWatcher::Stop() {
  BeginStop();
  std::thread thread;
  {
    const std::lock_guard lock(mutex_);
    thread.swap(thread_);
  }
  if (thread.joinable()) thread.join();
}

void LinkWatcher::StartThread() {
  try {
    thread_ = StartWithoutSignals([this] { Run(); });
    ::pthread_setname_np(thread_.native_handle(), "links");
  } catch (const std::system_error& error) {
    ::syslog(LOG_ERR, "The thread that finds out the links of guests cannot be started: %s", error.what());
  }
}

void LinkWatcher::Run() {
  std::unique_lock lock(mutex_);
  while (!is_stopped_) {
    const Clock::time_point now = Clock::now();
    if (now >= wanted_until_) {
      wake_.wait(lock);
      continue;
    }
    if (now < next_) {
      wake_.wait_until(lock, next_);
      continue;
    }
    is_asking_ = true;
    begun_ = now;
    const std::shared_ptr<const GuestLinks> before = known_;
    lock.unlock();
    std::optional<GuestLinks> found = FindSafely(options_, before.get());
    lock.lock();
    is_asking_ = false;
    ++questions_;
    next_ = begun_ + options_.interval;
    if (found) {
      known_ = std::make_shared<const GuestLinks>(std::move(*found));
      is_found_ = true;
    }
    changed_.notify_all();
  }
}

}  // namespace vexa::services
