#include "host/api/user/guest_links.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <set>
#include <system_error>
#include <utility>

#include "host/base/background_thread.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/request_scope.h"
#include "host/transport/unanswered.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::DashCate;

// For the guests of hosts that did not answer: keeps their last known link states; others stay unknown.
void KeepLinksOfGuestsOn(const std::set<std::string>& hosts, const GuestLinkStates* previous, GuestLinkStates& links) {
  for (auto guest = links.connected.begin(); guest != links.connected.end();) {
    std::string host_id;
    if (guest->second != 0 || vgConfHostGet(guest->first, host_id) != 0 || !hosts.contains(host_id)) {
      ++guest;
      continue;
    }
    const auto known = previous ? previous->connected.find(guest->first) : links.connected.end();
    if (!previous || known == previous->connected.end()) {
      guest = links.connected.erase(guest);
      continue;
    }
    guest->second = known->second;
    links.older_origins[guest->first] = previous->OriginOf(guest->first);
    ++guest;
  }
}

std::optional<store::Revision> CurrentRevision() {
  const Result<records::Reader> reader = records::Reader::OpenCurrent();
  return reader ? std::optional(reader->revision()) : std::nullopt;
}

std::optional<GuestLinkStates> AskHosts(const GuestLinkStates* previous) {
  GuestLinkStates links;
  links.origin.asked = GuestLinkStates::Clock::now();
  const std::optional<store::Revision> revision = CurrentRevision();
  if (!revision) return std::nullopt;
  links.origin.revision = *revision;
  const records::RequestScope scope;
  const transport::FailedHostsScope unanswered;
  if (!VexaVirtualization::GetGuestsConnectedMap(links.connected)) return std::nullopt;
  if (!unanswered.hosts().empty()) KeepLinksOfGuestsOn(unanswered.hosts(), previous, links);
  return links;
}

std::optional<GuestLinkStates> QuerySafely(const LinkWatcherOptions& options, const GuestLinkStates* previous) {
  try {
    return options.query ? options.query(previous) : AskHosts(previous);
  } catch (const std::exception& exception) {
    ::syslog(LOG_ERR, "The links of the guests cannot be read: %s", exception.what());
    return std::nullopt;
  }
}

// Whether the value under `key` was written after `revision`, or cannot be read.
bool HasChangedSince(const records::Reader& reader, const std::string& key, store::Revision revision) {
  const Result<store::Revision> found = reader.RevisionOf(key);
  return !found || *found > revision;
}

}  // namespace

const GuestLinkStates::Origin& GuestLinkStates::OriginOf(const std::string& guest_id) const {
  const auto found = older_origins.find(guest_id);
  return found == older_origins.end() ? origin : found->second;
}

std::optional<int> KnownLinks(const records::Reader& reader, const GuestLinkStates& links, const std::string& guest_id,
                              const Json::Value& guest) {
  const auto found = links.connected.find(guest_id);
  if (found == links.connected.end()) return std::nullopt;
  if (found->second != 0) return found->second;
  // A guest without interfaces cannot be disconnected.
  if (json::Elements(json::Member(guest, keys::vnics)).empty()) return std::nullopt;
  const store::Revision asked_at = links.OriginOf(guest_id).revision;
  if (HasChangedSince(reader, records::LiveStateKey(guest_id), asked_at)) return std::nullopt;
  for (const Json::Value& nic : json::Elements(json::Member(guest, keys::vnics))) {
    const std::string key = records::ObjectKey(DashCate::vNic.name(), json::String(nic));
    if (HasChangedSince(reader, key, asked_at)) return std::nullopt;
  }
  return 0;
}

LinkWatcher::LinkWatcher(LinkWatcherOptions options)
    : options_(std::move(options)), latest_(std::make_shared<const GuestLinkStates>()) {}

LinkWatcher::~LinkWatcher() { Stop(); }

std::shared_ptr<const GuestLinkStates> LinkWatcher::Get() { return Get(options_.max_wait); }

std::shared_ptr<const GuestLinkStates> LinkWatcher::Get(std::chrono::milliseconds max_wait) {
  const MutexLock lock(mutex_);
  const Clock::time_point now = Clock::now();
  const bool was_unwanted = now >= wanted_until_;
  wanted_until_ = now + options_.idle_after;
  if (!thread_.joinable() && !is_stopped_) StartThread();
  if (was_unwanted) wake_.NotifyOne();  // otherwise the thread wakes for the next query by itself
  // Do not wait when no query is in progress or due: the last one has just failed.
  if (IsNewEnough(now) || is_stopped_ || !thread_.joinable() || (!is_querying_ && next_query_ > now)) return latest_;
  const Clock::time_point started = is_querying_ ? query_started_ : now;
  const unsigned seen = finished_queries_;
  while (!is_stopped_ && finished_queries_ == seen && changed_.WaitUntil(mutex_, started + max_wait)) {
  }
  return latest_;
}

bool LinkWatcher::IsNewEnough(Clock::time_point now) const {
  return has_result_ && now - latest_->origin.asked <= options_.max_age;
}

void LinkWatcher::BeginStop() {
  const MutexLock lock(mutex_);
  is_stopped_ = true;
  wake_.NotifyAll();
  changed_.NotifyAll();
}

bool LinkWatcher::Stop(std::chrono::milliseconds deadline) {
  const Clock::time_point end = Clock::now() + deadline;
  BeginStop();
  const MutexLock lock(mutex_);
  while (is_querying_ && changed_.WaitUntil(mutex_, end)) {
  }
  return !is_querying_;
}

void LinkWatcher::Stop() {
  BeginStop();
  std::thread thread;
  {
    const MutexLock lock(mutex_);
    thread.swap(thread_);
  }
  if (thread.joinable()) thread.join();
}

void LinkWatcher::StartThread() {
  try {
    thread_ = StartThreadBlockingSignals([this] { Run(); });
    ::pthread_setname_np(thread_.native_handle(), "links");
  } catch (const std::system_error& error) {
    ::syslog(LOG_ERR, "The thread that reads the links of guests cannot be started: %s", error.what());
  }
}

void LinkWatcher::Run() {
  ReleasableMutexLock lock(mutex_);
  while (!is_stopped_) {
    const Clock::time_point now = Clock::now();
    if (now >= wanted_until_) {
      wake_.Wait(mutex_);
      continue;
    }
    if (now < next_query_) {
      wake_.WaitUntil(mutex_, next_query_);
      continue;
    }
    is_querying_ = true;
    query_started_ = now;
    const std::shared_ptr<const GuestLinkStates> previous = latest_;
    lock.Unlock();
    std::optional<GuestLinkStates> found = QuerySafely(options_, previous.get());
    lock.Lock();
    is_querying_ = false;
    ++finished_queries_;
    next_query_ = query_started_ + options_.interval;
    if (found) {
      latest_ = std::make_shared<const GuestLinkStates>(std::move(*found));
      has_result_ = true;
    }
    changed_.NotifyAll();
  }
}

}  // namespace vexa::api
