#include "host/session/session_index.h"

#include <algorithm>
#include <utility>

namespace vexa::session {

bool SessionIndex::IsLive(Session& session, std::int64_t now) const {
  // Clamped to now, because a session created while the clock was ahead would otherwise live longer.
  session.created = std::min(session.created, now);
  session.is_expired = session.is_expired || now - session.created >= options_.absolute.count() ||
                       now - session.last_used >= options_.idle.count();
  return !session.is_expired;
}

template <class Visit>
void SessionIndex::ForEach(const Visit& visit) {
  for (Shard& shard : shards_) {
    const MutexLock lock(shard.mutex);
    for (auto& [hash, session] : shard.sessions) visit(hash, session);
  }
}

template <class Visit>
void SessionIndex::ForEachOf(const std::optional<std::string>& user, const Visit& visit) {
  if (!user) return ForEach(visit);
  for (const Hash& hash : HashesOf(*user)) {
    Shard& shard = ShardOf(hash);
    const MutexLock lock(shard.mutex);
    const auto found = shard.sessions.find(hash);
    if (found != shard.sessions.end()) visit(hash, found->second);
  }
}

void SessionIndex::Insert(const Hash& hash, Session session) {
  by_user_[session.user.name].emplace(session.order, hash);
  ++count_;
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  shard.sessions.emplace(hash, std::move(session));
}

std::optional<SessionIndex::Liveness> SessionIndex::Take(const Hash& hash) {
  Shard& shard = ShardOf(hash);
  auto node = [&] {
    const MutexLock lock(shard.mutex);
    return shard.sessions.extract(hash);
  }();
  if (node.empty()) return std::nullopt;
  Session& session = node.mapped();
  --count_;
  if (session.is_replaced) --replaced_;
  const auto user = by_user_.find(session.user.name);
  user->second.erase(session.order);
  if (user->second.empty()) by_user_.erase(user);
  return IsLive(session, options_.now()) ? Liveness::kLive : Liveness::kExpired;
}

SessionIndex::Change SessionIndex::TakeAll(const std::vector<Hash>& hashes) {
  Change change;
  bool is_changed = false;
  for (const Hash& hash : hashes) {
    const auto taken = Take(hash);
    is_changed = is_changed || taken.has_value();
    change.live += taken == Liveness::kLive ? 1 : 0;
  }
  if (is_changed) change.generation = ++generation_;
  return change;
}

void SessionIndex::TakeExpired(const std::optional<std::string>& user) {
  const std::int64_t now = options_.now();
  std::vector<Hash> expired;
  ForEachOf(user, [&](const Hash& hash, Session& session) {
    if (!IsLive(session, now)) expired.push_back(hash);
  });
  TakeAll(expired);
}

std::vector<Hash> SessionIndex::HashesOf(const std::string& user) {
  std::vector<Hash> hashes;  // the oldest first
  const auto found = by_user_.find(user);
  if (found == by_user_.end()) return hashes;
  for (const auto& [order, hash] : found->second) hashes.push_back(hash);
  return hashes;
}

void SessionIndex::SetReplaced(const Hash& hash, bool is_replaced) {
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found == shard.sessions.end() || found->second.is_replaced == is_replaced) return;
  found->second.is_replaced = is_replaced;
  replaced_ += is_replaced ? 1 : std::size_t{0} - 1;
}

// Makes room for one more session of the user: marks the oldest ones that then exceed the quota as replaced, and
// returns them in `replaced`. kBusy when the table is full.
Status SessionIndex::MakeRoom(const std::string& user, std::vector<Hash>& replaced) {
  TakeExpired(user);
  std::vector<Hash> active_hashes;
  ForEachOf(user, [&](const Hash& hash, const Session& session) {
    if (!session.is_replaced) active_hashes.push_back(hash);
  });
  const std::size_t quota = std::max<std::size_t>(1, options_.max_sessions_per_user);
  if (active_hashes.size() >= quota) {
    replaced.assign(active_hashes.begin(), active_hashes.end() - static_cast<std::ptrdiff_t>(quota - 1));
  }
  const auto is_full = [&]() VEXA_REQUIRES(change_mutex_) {
    return count_ - replaced_ - replaced.size() >= options_.max_sessions;
  };
  if (is_full()) TakeExpired(std::nullopt);
  if (is_full()) return Error(ErrorCode::kBusy, "Too many users are logged in; try again later");
  for (const Hash& hash : replaced) SetReplaced(hash, true);
  return {};
}

void SessionIndex::Load(const std::vector<SessionRecord>& records) {
  const std::int64_t now = options_.now();
  const MutexLock lock(change_mutex_);
  for (const SessionRecord& record : records) {
    const std::int64_t created = std::min(record.created, now);
    const std::int64_t last_used = std::clamp(record.last_used, created, now);
    Insert(record.hash, Session{record.csrf_hash,
                                {record.user, record.uid, record.stamp},
                                record.from,
                                created,
                                last_used,
                                std::nullopt,
                                next_order_++,
                                false,
                                false});
  }
  TakeExpired(std::nullopt);
}

Result<std::uint64_t> SessionIndex::Add(const Hash& hash, const Hash& csrf_hash, const SessionUser& user,
                                        const std::string& from, std::vector<Hash>& replaced) {
  const MutexLock lock(change_mutex_);
  if (Status status = MakeRoom(user.name, replaced); !status.ok()) return status.error();
  const std::int64_t now = options_.now();
  Insert(hash, Session{csrf_hash, user, from, now, now, std::nullopt, next_order_++, false, false});
  return ++generation_;
}

void SessionIndex::Settle(const Hash& hash, const std::vector<Hash>& replaced, Outcome outcome) {
  const MutexLock lock(change_mutex_);
  if (outcome == Outcome::kStored) {
    for (const Hash& old : replaced) Take(old);  // they are not in the file any more
    return;
  }
  for (const Hash& old : replaced) SetReplaced(old, false);
  Take(hash);
  ++generation_;  // the write of another thread may have included the session
}

std::optional<SessionUser> SessionIndex::Use(const Hash& hash) {
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found == shard.sessions.end() || !IsLive(found->second, now)) return std::nullopt;
  Session& session = found->second;
  if (now > session.last_used) {
    session.last_used = now;
    if (!has_new_uses_.load(std::memory_order_relaxed)) has_new_uses_ = true;
  }
  return session.user;
}

bool SessionIndex::IsLive(const Hash& hash) {
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  return found != shard.sessions.end() && IsLive(found->second, now);
}

bool SessionIndex::CheckCsrf(const Hash& hash, const Hash& csrf_hash) {
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  return found != shard.sessions.end() && IsLive(found->second, now) &&
         EqualInConstantTime(found->second.csrf_hash, csrf_hash);
}

Status SessionIndex::AcceptStamp(const Hash& hash, const std::string& stamp) {
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found == shard.sessions.end()) return {};
  std::optional<std::string>& accepted = found->second.accepted_stamp;
  if (accepted) return Error(ErrorCode::kBusy, "This login is changing the password already");
  accepted = stamp;
  return {};
}

void SessionIndex::RefuseStamp(const Hash& hash, const std::string& stamp) {
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found != shard.sessions.end() && found->second.accepted_stamp == stamp) found->second.accepted_stamp.reset();
}

bool SessionIndex::HasStamp(const Hash& hash, const std::string& stamp) {
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found == shard.sessions.end() || !IsLive(found->second, now)) return false;
  return found->second.user.stamp == stamp || found->second.accepted_stamp == stamp;
}

SessionIndex::Change SessionIndex::SetStamp(const Hash& hash, const std::string& stamp) {
  const MutexLock lock(change_mutex_);
  Shard& shard = ShardOf(hash);
  const MutexLock shard_lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found == shard.sessions.end()) return {};
  found->second.user.stamp = stamp;
  found->second.accepted_stamp.reset();
  return {1, ++generation_};
}

SessionIndex::Change SessionIndex::Remove(const Hash& hash) {
  const MutexLock lock(change_mutex_);
  return TakeAll({hash});
}

SessionIndex::Change SessionIndex::RemoveById(std::string_view id, const std::optional<SessionUser>& owner) {
  const MutexLock lock(change_mutex_);
  std::vector<Hash> hashes;
  ForEachOf(owner ? std::optional(owner->name) : std::nullopt, [&](const Hash& hash, const Session& session) {
    if (!owner || session.user.uid == owner->uid) hashes.push_back(hash);
  });
  // Not while a shard's mutex is held, which every request needs.
  std::erase_if(hashes, [&](const Hash& hash) { return SessionId(hash) != id; });
  return TakeAll(hashes);
}

SessionIndex::Change SessionIndex::RemoveAllOf(const std::string& user, const std::optional<Hash>& except) {
  const MutexLock lock(change_mutex_);
  std::vector<Hash> hashes = HashesOf(user);
  std::erase_if(hashes, [&](const Hash& hash) { return hash == except; });
  return TakeAll(hashes);
}

void SessionIndex::RemoveAllExpired() {
  const MutexLock lock(change_mutex_);
  TakeExpired(std::nullopt);
}

std::vector<SessionInfo> SessionIndex::List(const std::optional<std::string>& user) {
  const std::int64_t now = options_.now();
  std::vector<std::pair<std::uint64_t, SessionInfo>> ordered;
  {
    const MutexLock lock(change_mutex_);
    ForEachOf(user, [&](const Hash& hash, Session& session) {
      if (!IsLive(session, now)) return;
      ordered.emplace_back(
          session.order, SessionInfo{SessionId(hash), session.user, session.from, session.created, session.last_used});
    });
  }
  std::ranges::sort(ordered, {}, [](const auto& entry) { return entry.first; });
  std::vector<SessionInfo> list;
  list.reserve(ordered.size());
  for (auto& entry : ordered) list.push_back(std::move(entry.second));
  return list;
}

std::vector<SessionRecord> SessionIndex::Snapshot(std::uint64_t& generation) {
  std::vector<std::pair<std::uint64_t, SessionRecord>> ordered;
  {
    const MutexLock lock(change_mutex_);
    generation = generation_;
    has_new_uses_ = false;  // reset before the uses are read, because a concurrent use sets it again
    ordered.reserve(count_);
    ForEach([&](const Hash& hash, const Session& session) {
      if (session.is_replaced || session.is_expired) return;
      ordered.emplace_back(
          session.order, SessionRecord{hash, session.csrf_hash, session.user.name, session.user.uid, session.user.stamp,
                                       session.from, session.created, session.last_used});
    });
  }
  std::ranges::sort(ordered, {}, [](const auto& entry) { return entry.first; });
  std::vector<SessionRecord> records;
  records.reserve(ordered.size());
  for (auto& entry : ordered) records.push_back(std::move(entry.second));
  return records;
}

std::uint64_t SessionIndex::AddGeneration() {
  const MutexLock lock(change_mutex_);
  return ++generation_;
}

std::uint64_t SessionIndex::generation() {
  const MutexLock lock(change_mutex_);
  return generation_;
}

}  // namespace vexa::session
