#include "host/cluster/log_edit.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/uuid.h"
#include "host/cluster/log_entry.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::cluster {
namespace {

// A commit must not grow with the backlog, so each entry removes at most this many others.
constexpr std::size_t kMaxRemovedPerEntry = 4;
constexpr std::size_t kMaxRefusals = 16;

constexpr char kCount[] = "count";
constexpr char kSinceRecount[] = "since_recount";
constexpr char kRefusals[] = "refusals";
constexpr char kFingerprint[] = "fingerprint";
constexpr char kPosition[] = "position";
constexpr char kFirstTime[] = "first_time_us";

std::string UuidOf(std::string_view text) {
  constexpr char kNilNamespace[16] = {};
  return NameBasedUuid({kNilNamespace, sizeof kNilNamespace}, text);
}

// Names may be longer than keys.
std::string ShareKey(const std::string& user) { return store::MakeKey({"log_user", UuidOf(user)}); }

std::string ShareEntryKey(const std::string& user, std::int64_t position) {
  return store::MakeKey({"log_user", UuidOf(user), LogPositionText(position)});
}

std::string FingerprintOf(const LogEntry& entry) { return UuidOf(entry.host_id + '\n' + entry.text); }

std::int64_t Microseconds(std::chrono::seconds time) { return std::chrono::microseconds(time).count(); }

// What is damaged is null. It is derived again from the entries.
Json::Value ParseObject(const std::optional<store::ValueView>& stored) {
  if (!stored) return {};
  Result<Json::Value> value = ParseJson(stored->text);
  return value && value->isObject() ? std::move(*value) : Json::Value();
}

// Never negative, so that differences of times do not overflow.
std::int64_t ReadTime(const Json::Value& value) { return std::max<std::int64_t>(json::Int64(value), 0); }

template <class Refusals>
void KeepNewest(Refusals& refusals) {
  if (refusals.size() > kMaxRefusals) refusals.erase(refusals.begin(), refusals.end() - kMaxRefusals);
}

}  // namespace

Result<LogEdit> LogEdit::Begin(const records::Reader& reader) {
  Result<LogState> state = LoadLogState(reader);
  if (!state) return state.error();
  return LogEdit(reader, std::move(*state));
}

Result<LogEdit::Share> LogEdit::LoadShare(const std::string& user) const {
  const auto stored = reader_.Get(ShareKey(user));
  if (!stored) return stored.error();
  Share share;
  const Json::Value record = ParseObject(*stored);
  for (const Json::Value& refusal : json::Elements(json::Member(record, kRefusals))) {
    share.refusals.push_back({json::String(json::Member(refusal, kFingerprint)),
                              json::Int64(json::Member(refusal, kPosition)),
                              ReadTime(json::Member(refusal, kFirstTime))});
  }
  KeepNewest(share.refusals);
  share.since_recount = json::UInt64(json::Member(record, kSinceRecount));
  share.count = json::UInt64(json::Member(record, kCount));
  const bool is_plausible = json::Member(record, kCount).isUInt64() && share.count <= kMaxPlausibleLogCount;
  if (is_plausible && share.since_recount < kRecountAfter) return share;
  const Result<std::size_t> count = CountPositions(reader_, ShareKey(user));
  if (!count) return count.error();
  share.count = *count;
  share.since_recount = 0;
  return share;
}

Result<LogEdit::Share*> LogEdit::ShareOf(const std::string& user) {
  if (const auto known = shares_.find(user); known != shares_.end()) return &known->second;
  Result<Share> share = LoadShare(user);
  if (!share) return share.error();
  return &shares_.emplace(user, std::move(*share)).first->second;
}

Status LogEdit::Add(LogEntry entry) {
  const Result<Share*> share = ShareOf(entry.user);
  if (!share) return share.error();
  const bool is_refusal = entry.priority == VexaCCC::CLOG_PRIORITY_FAILURE;
  entry.first_time_us = entry.time_us;
  if (is_refusal) {
    if (Status merged = MergeWithEqual(entry, **share); !merged) return merged;
  }
  if (Status made = MakeRoom(entry.user, **share); !made) return made;
  const Result<std::int64_t> position = NextPosition(entry.time_us);
  if (!position) return position.error();
  if (is_refusal) {
    (*share)->refusals.push_back({FingerprintOf(entry), *position, entry.first_time_us});
    KeepNewest((*share)->refusals);
  }
  state_.times.Add(entry.host_id, entry.time_us);
  ++state_.count;
  ++state_.since_recount;
  ++(*share)->count;
  ++(*share)->since_recount;
  if ((*share)->count > kLogShare) {
    const Result<Share*> largest = ShareOf(state_.largest);
    if (!largest) return largest.error();
    if (state_.largest.empty() || (*share)->count > (*largest)->count) state_.largest = entry.user;
  }
  state_.last = *position;
  added_.emplace(*position, std::move(entry));
  return {};
}

// Removes the entry that equals `entry` and is recent, and counts it in `entry`, which takes its place at the end.
Status LogEdit::MergeWithEqual(LogEntry& entry, Share& share) {
  std::erase_if(share.refusals, [&](const Refusal& refusal) {
    return std::abs(entry.time_us - refusal.first_time_us) > Microseconds(kMergeWindow);
  });
  const auto equal = std::ranges::find(share.refusals, FingerprintOf(entry), &Refusal::fingerprint);
  if (equal == share.refusals.end()) return {};
  const std::int64_t position = equal->position;
  share.refusals.erase(equal);
  const Result<std::optional<LogEntry>> found = Find(position);
  if (!found) return found.error();
  const bool is_equal = *found && (*found)->user == entry.user && (*found)->text == entry.text &&
                        (*found)->host_id == entry.host_id && (*found)->priority == entry.priority;
  if (!is_equal) return {};
  entry.count = (*found)->count == INT32_MAX ? INT32_MAX : (*found)->count + 1;
  entry.first_time_us = (*found)->first_time_us;
  return Remove(position, entry.user);
}

// The entry at `position` as it will be after this edit.
Result<std::optional<LogEntry>> LogEdit::Find(std::int64_t position) const {
  if (const auto added = added_.find(position); added != added_.end()) return std::optional(added->second);
  if (removed_.contains(position)) return std::optional<LogEntry>();
  const auto stored = reader_.Get(LogEntryKey(position));
  if (!stored) return stored.error();
  return stored->has_value() ? ParseLogEntry(position, (*stored)->text) : std::nullopt;
}

// In a full log, a user who has a whole share gives up their own oldest entry for a new one. For the others, the
// largest user gives up one, who has filled room that nobody else needed. Empty: no user has more than a share, so the
// oldest entry of all goes.
Result<std::string> LogEdit::UserWhoGivesWay(const std::string& user, const Share& share) {
  if (share.count >= kLogShare) return user;
  if (state_.largest.empty()) return std::string();
  const Result<Share*> largest = ShareOf(state_.largest);
  if (!largest) return largest.error();
  if ((*largest)->count <= kLogShare) state_.largest.clear();
  return state_.largest;
}

Status LogEdit::MakeRoom(const std::string& user, const Share& share) {
  for (std::size_t i = 0; i < kMaxRemovedPerEntry && state_.count >= kMaxLogEntries; ++i) {
    const Result<std::string> owner = UserWhoGivesWay(user, share);
    if (!owner) return owner.error();
    const bool is_known = !owner->empty();
    const auto oldest = OldestBelow(is_known ? ShareKey(*owner) : std::string(kLogPrefix), 1);
    if (!oldest) return oldest.error();
    if (oldest->empty() && !is_known) return {};
    if (oldest->empty()) {
      // The count was wrong.
      shares_.at(*owner).count = static_cast<std::size_t>(
          std::ranges::count_if(added_, [&](const auto& added) { return added.second.user == *owner; }));
      continue;
    }
    if (Status removed = Remove(oldest->front(), is_known ? std::optional(*owner) : std::nullopt); !removed) {
      return removed;
    }
  }
  return {};
}

Result<std::int64_t> LogEdit::NextPosition(std::int64_t time_us) const {
  std::int64_t position = state_.last + 1;
  if (time_us <= kMaxBelievedLogTime) position = std::max(position, time_us);
  // Only an older version on the same store, or damage, can have taken it.
  for (; position <= kMaxLogPosition; ++position) {
    const auto taken = reader_.Get(LogEntryKey(position));
    if (!taken) return taken.error();
    if (!taken->has_value()) return position;
  }
  return Error(ErrorCode::kNoSpace, "The cluster log has no positions left");
}

Result<std::vector<std::int64_t>> LogEdit::OldestBelow(const std::string& prefix, std::size_t limit) const {
  std::vector<std::int64_t> oldest;
  const Status scanned = reader_.Scan(prefix, [&](std::string_view key, const store::ValueView&) {
    const auto position = LogPositionOf(key, prefix);
    if (position && !removed_.contains(*position)) oldest.push_back(*position);
    return oldest.size() < limit;
  });
  if (!scanned) return scanned.error();
  return oldest;
}

// `user`: whose entry it is. Not set: as the entry says.
Status LogEdit::Remove(std::int64_t position, const std::optional<std::string>& user) {
  const Result<std::optional<LogEntry>> found = Find(position);
  if (!found) return found.error();
  state_.count -= std::min<std::size_t>(state_.count, 1);
  const bool is_stored = added_.erase(position) == 0;
  if (is_stored) {
    removed_.insert(position);
    transaction_.operations.push_back({LogEntryKey(position), std::nullopt});
  }
  if (!user && !*found) return {};  // damaged: its user is unknown
  const std::string owner = user ? *user : (*found)->user;
  if (is_stored) {
    const std::string key = ShareEntryKey(owner, position);
    const auto listed = reader_.Get(key);
    if (!listed) return listed.error();
    if (!listed->has_value()) return {};  // an older version wrote the entry
    transaction_.operations.push_back({key, std::nullopt});
  }
  const Result<Share*> share = ShareOf(owner);
  if (!share) return share.error();
  (*share)->count -= std::min<std::size_t>((*share)->count, 1);
  if (state_.largest.empty() && (*share)->count > kLogShare) state_.largest = owner;
  return {};
}

Status LogEdit::RemoveExpired() {
  const std::optional<std::int64_t> now = state_.times.Earliest();
  if (!now) return {};
  const std::int64_t oldest_time = *now - Microseconds(kMaxLogAge);
  const auto oldest = OldestBelow(std::string(kLogPrefix), kMaxRemovedPerEntry);
  if (!oldest) return oldest.error();
  for (const std::int64_t position : *oldest) {
    const auto entry = Find(position);
    if (!entry) return entry.error();
    if (!*entry || (*entry)->time_us >= oldest_time) continue;
    if (Status removed = Remove(position, (*entry)->user); !removed) return removed;
  }
  return {};
}

Result<store::Transaction> LogEdit::Finish() && {
  if (Status removed = RemoveExpired(); !removed) return removed.error();
  transaction_.compares.push_back({LogStateKey(), state_.revision});
  transaction_.operations.push_back({LogStateKey(), SerializeLogState(state_)});
  for (const auto& [position, entry] : added_) {
    transaction_.operations.push_back({LogEntryKey(position), SerializeLogEntry(entry)});
    transaction_.operations.push_back({ShareEntryKey(entry.user, position), ""});
  }
  for (const auto& [user, share] : shares_) {
    Json::Value record(Json::objectValue);
    record[kCount] = static_cast<Json::UInt64>(share.count);
    record[kSinceRecount] = static_cast<Json::UInt64>(share.since_recount);
    record[kRefusals] = Json::Value(Json::arrayValue);
    for (const Refusal& refusal : share.refusals) {
      Json::Value& value = record[kRefusals].append(Json::Value(Json::objectValue));
      value[kFingerprint] = refusal.fingerprint;
      value[kPosition] = Json::Int64{refusal.position};
      value[kFirstTime] = Json::Int64{refusal.first_time_us};
    }
    const bool is_empty = share.count == 0;
    transaction_.operations.push_back({ShareKey(user), is_empty ? std::nullopt : std::optional(json::ToText(record))});
  }
  return std::move(transaction_);
}

}  // namespace vexa::cluster
