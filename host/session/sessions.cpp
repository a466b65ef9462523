#include "host/session/sessions.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <ctime>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/base/files.h"
#include "host/base/mutex.h"
#include "host/base/private_file.h"
#include "host/session/session_file.h"
#include "host/session/session_token.h"

namespace vexa::session {
namespace {

// A session takes at most 350 bytes in the file.
constexpr std::size_t kMaxFileBytes = std::size_t{256} << 20;
constexpr mode_t kFileMode = 0600;

struct Session {
  Hash csrf_hash;
  std::string user;
  std::uint32_t uid = 0;
  std::int64_t created = 0;
  std::int64_t last_used = 0;
  std::uint64_t order = 0;   // of creation, ascending
  bool is_expired = false;   // never reset, so that a change of the clock cannot revive the session
  bool is_replaced = false;  // ends as soon as the newer session that replaces it is in the file
};

// Hashes by 8 bytes of the SHA-256, which are uniformly distributed. Not by the first byte, which selects the shard.
struct Sha256Hasher {
  std::size_t operator()(const Hash& hash) const {
    std::size_t part = 0;
    std::memcpy(&part, hash.data() + 8, sizeof(part));
    return part;
  }
};

// Sessions are spread over shards, so that lookups of different sessions rarely wait for each other. A plain mutex
// rather than a read-write lock, under which lookups could starve a change.
struct alignas(64) Shard {
  Mutex mutex;
  std::unordered_map<Hash, Session, Sha256Hasher> sessions VEXA_GUARDED_BY(mutex);
};

}  // namespace

// Lock order: write_mutex_, change_mutex_, the mutex of one shard. Sessions are added and removed only under
// change_mutex_ and the mutex of their shard together.
class SessionTable::Impl {
 public:
  Impl(std::string path, SessionOptions options) : path_(std::move(path)), options_(std::move(options)) {
    if (!options_.now) {
      options_.now = [] { return static_cast<std::int64_t>(std::time(nullptr)); };
    }
  }

  Status Load();
  Result<NewSession> Create(const SessionUser& user);
  std::optional<SessionUser> Find(std::string_view token);
  bool IsLiveToken(std::string_view token);
  bool CheckCsrf(std::string_view token, std::string_view csrf_token);
  bool End(std::string_view token);
  std::size_t EndAllOfUser(const std::string& user);
  Status Sweep();
  std::size_t size() const { return count_; }

 private:
  enum class Liveness { kLive, kExpired };
  using OrderedHashes = std::map<std::uint64_t, Hash>;

  Shard& ShardOf(const Hash& hash) { return shards_[hash[0] % shards_.size()]; }
  // Requires the mutex of the session's shard, unless the session is in no shard.
  bool IsLive(Session& session, std::int64_t now) const;

  void Insert(const Hash& hash, Session session) VEXA_REQUIRES(change_mutex_);
  std::optional<Liveness> Remove(const Hash& hash) VEXA_REQUIRES(change_mutex_);
  std::size_t RemoveExpired(const std::vector<Hash>& candidates) VEXA_REQUIRES(change_mutex_);
  std::size_t RemoveAllExpired() VEXA_REQUIRES(change_mutex_);
  Status MakeRoom(const std::string& user, std::vector<Hash>& replaced) VEXA_REQUIRES(change_mutex_);
  void SetReplaced(const Hash& hash, bool is_replaced) VEXA_REQUIRES(change_mutex_);

  std::vector<SessionRecord> Snapshot(std::uint64_t& generation);
  Status WriteUpTo(std::uint64_t generation);
  Status Write() VEXA_REQUIRES(write_mutex_);

  const std::string path_;
  SessionOptions options_;

  std::array<Shard, 16> shards_;
  std::atomic<std::size_t> count_{0};
  // Whether there is a last use that is not in the file yet. Set by Find, which does not take change_mutex_, so it is
  // not counted in generation_.
  std::atomic<bool> has_new_uses_{false};

  Mutex change_mutex_;
  std::unordered_map<std::string, OrderedHashes> by_user_ VEXA_GUARDED_BY(change_mutex_);
  std::size_t replaced_ VEXA_GUARDED_BY(change_mutex_) = 0;  // sessions marked is_replaced
  std::uint64_t next_order_ VEXA_GUARDED_BY(change_mutex_) = 0;
  std::uint64_t generation_ VEXA_GUARDED_BY(change_mutex_) = 0;  // counts changes that the file must have

  Mutex write_mutex_;
  std::uint64_t written_generation_ VEXA_GUARDED_BY(write_mutex_) = 0;
};

bool SessionTable::Impl::IsLive(Session& session, std::int64_t now) const {
  // Clamped to now, because a session created while the clock was ahead would otherwise live longer.
  session.created = std::min(session.created, now);
  session.is_expired = session.is_expired || now - session.created >= options_.absolute.count() ||
                       now - session.last_used >= options_.idle.count();
  return !session.is_expired;
}

void SessionTable::Impl::Insert(const Hash& hash, Session session) {
  by_user_[session.user].emplace(session.order, hash);
  ++count_;
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  shard.sessions.emplace(hash, std::move(session));
}

std::optional<SessionTable::Impl::Liveness> SessionTable::Impl::Remove(const Hash& hash) {
  Shard& shard = ShardOf(hash);
  auto node = [&] {
    const MutexLock lock(shard.mutex);
    return shard.sessions.extract(hash);
  }();
  if (node.empty()) return std::nullopt;
  Session& session = node.mapped();
  --count_;
  if (session.is_replaced) --replaced_;
  const auto user = by_user_.find(session.user);
  user->second.erase(session.order);
  if (user->second.empty()) by_user_.erase(user);
  return IsLive(session, options_.now()) ? Liveness::kLive : Liveness::kExpired;
}

std::size_t SessionTable::Impl::RemoveExpired(const std::vector<Hash>& candidates) {
  const std::int64_t now = options_.now();
  std::size_t removed = 0;
  for (const Hash& hash : candidates) {
    {
      Shard& shard = ShardOf(hash);
      const MutexLock lock(shard.mutex);
      const auto found = shard.sessions.find(hash);
      if (found == shard.sessions.end() || IsLive(found->second, now)) continue;
    }
    if (Remove(hash)) ++removed;
  }
  if (removed > 0) ++generation_;
  return removed;
}

std::size_t SessionTable::Impl::RemoveAllExpired() {
  const std::int64_t now = options_.now();
  std::vector<Hash> expired;
  for (Shard& shard : shards_) {
    const MutexLock lock(shard.mutex);
    for (auto& [hash, session] : shard.sessions) {
      if (!IsLive(session, now)) expired.push_back(hash);
    }
  }
  return RemoveExpired(expired);
}

void SessionTable::Impl::SetReplaced(const Hash& hash, bool is_replaced) {
  Shard& shard = ShardOf(hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found == shard.sessions.end() || found->second.is_replaced == is_replaced) return;
  found->second.is_replaced = is_replaced;
  replaced_ += is_replaced ? 1 : std::size_t{0} - 1;
}

// Makes room for one more session of the user: marks the oldest ones that then exceed the quota as replaced, and
// returns them in `replaced`. kBusy when the table is full.
Status SessionTable::Impl::MakeRoom(const std::string& user, std::vector<Hash>& replaced) {
  std::vector<Hash> own;  // the oldest first
  if (const auto found = by_user_.find(user); found != by_user_.end()) {
    for (const auto& [order, hash] : found->second) own.push_back(hash);
  }
  RemoveExpired(own);
  std::vector<Hash> active_hashes;
  for (const Hash& hash : own) {
    Shard& shard = ShardOf(hash);
    const MutexLock lock(shard.mutex);
    const auto found = shard.sessions.find(hash);
    if (found != shard.sessions.end() && !found->second.is_replaced) active_hashes.push_back(hash);
  }
  const std::size_t quota = std::max<std::size_t>(1, options_.max_sessions_per_user);
  if (active_hashes.size() >= quota) {
    replaced.assign(active_hashes.begin(), active_hashes.end() - static_cast<std::ptrdiff_t>(quota - 1));
  }
  const auto is_full = [&]() VEXA_REQUIRES(change_mutex_) {
    return count_ - replaced_ - replaced.size() >= options_.max_sessions;
  };
  if (is_full()) RemoveAllExpired();
  if (is_full()) return Error(ErrorCode::kBusy, "Too many users are logged in; try again later");
  for (const Hash& hash : replaced) SetReplaced(hash, true);
  return {};
}

Result<NewSession> SessionTable::Impl::Create(const SessionUser& user) {
  if (!accounts::IsValidAccountName(user.name))
    return Error(ErrorCode::kInvalid, "The user name of the session is invalid");
  auto token = NewToken();
  if (!token.ok()) return token.error();
  auto csrf_token = NewToken();
  if (!csrf_token.ok()) return csrf_token.error();
  const auto hash = HashToken(*token);
  const auto csrf_hash = HashToken(*csrf_token);
  if (!hash || !csrf_hash) return Error(ErrorCode::kInternal, "Cannot hash a token");

  std::vector<Hash> replaced;
  ReleasableMutexLock lock(change_mutex_);
  if (Status status = MakeRoom(user.name, replaced); !status.ok()) return status.error();
  const std::int64_t now = options_.now();
  Insert(*hash, Session{*csrf_hash, user.name, user.uid, now, now, next_order_++, false, false});
  const std::uint64_t generation = ++generation_;
  lock.Unlock();

  // The token has not been returned to the caller yet, and the replaced sessions stay valid until it is in the file.
  const Status written = WriteUpTo(generation);

  lock.Lock();
  if (!written.ok()) {
    for (const Hash& old : replaced) SetReplaced(old, false);
    Remove(*hash);
    ++generation_;  // the write of another thread may have included the session
    return written.error();
  }
  for (const Hash& old : replaced) Remove(old);
  return NewSession{*token, *csrf_token};
}

std::optional<SessionUser> SessionTable::Impl::Find(std::string_view token) {
  if (!HasTokenForm(token)) return std::nullopt;
  const auto hash = HashToken(token);
  if (!hash) return std::nullopt;
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(*hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(*hash);
  if (found == shard.sessions.end() || !IsLive(found->second, now)) return std::nullopt;
  Session& session = found->second;
  if (now > session.last_used) {
    session.last_used = now;
    if (!has_new_uses_.load(std::memory_order_relaxed)) has_new_uses_ = true;
  }
  return SessionUser{session.user, session.uid};
}

bool SessionTable::Impl::CheckCsrf(std::string_view token, std::string_view csrf_token) {
  if (!HasTokenForm(token) || !HasTokenForm(csrf_token)) return false;
  const auto hash = HashToken(token);
  const auto csrf_hash = HashToken(csrf_token);
  if (!hash || !csrf_hash) return false;
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(*hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(*hash);
  return found != shard.sessions.end() && IsLive(found->second, now) &&
         EqualInConstantTime(found->second.csrf_hash, *csrf_hash);
}

bool SessionTable::Impl::IsLiveToken(std::string_view token) {
  const auto hash = HasTokenForm(token) ? HashToken(token) : std::nullopt;
  if (!hash) return false;
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(*hash);
  const MutexLock lock(shard.mutex);
  const auto found = shard.sessions.find(*hash);
  return found != shard.sessions.end() && IsLive(found->second, now);
}

bool SessionTable::Impl::End(std::string_view token) {
  if (!HasTokenForm(token)) return false;
  const auto hash = HashToken(token);
  if (!hash) return false;
  ReleasableMutexLock lock(change_mutex_);
  const auto removed = Remove(*hash);
  if (!removed) return false;
  const std::uint64_t generation = ++generation_;
  lock.Unlock();
  // After a failure the generation stays unwritten, and the next writer writes it.
  static_cast<void>(WriteUpTo(generation));
  return *removed == Liveness::kLive;
}

std::size_t SessionTable::Impl::EndAllOfUser(const std::string& user) {
  ReleasableMutexLock lock(change_mutex_);
  const auto found = by_user_.find(user);
  if (found == by_user_.end()) return 0;
  const OrderedHashes own = found->second;  // a copy: removing the last one removes the entry
  std::size_t ended = 0;
  for (const auto& [order, hash] : own) {
    if (Remove(hash) == Liveness::kLive) ++ended;
  }
  const std::uint64_t generation = ++generation_;
  lock.Unlock();
  static_cast<void>(WriteUpTo(generation));  // as in End
  return ended;
}

Status SessionTable::Impl::Sweep() {
  {
    const MutexLock lock(change_mutex_);
    RemoveAllExpired();
  }
  const MutexLock write_lock(write_mutex_);
  {
    const MutexLock lock(change_mutex_);
    if (generation_ == written_generation_ && !has_new_uses_) return {};
  }
  return Write();
}

// Returns the current sessions, the oldest first, and their generation.
std::vector<SessionRecord> SessionTable::Impl::Snapshot(std::uint64_t& generation) {
  std::vector<std::pair<std::uint64_t, SessionRecord>> ordered;
  {
    const MutexLock lock(change_mutex_);
    generation = generation_;
    has_new_uses_ = false;  // reset before the uses are read, because a concurrent use sets it again
    ordered.reserve(count_);
    for (Shard& shard : shards_) {
      const MutexLock shard_lock(shard.mutex);
      for (const auto& [hash, session] : shard.sessions) {
        if (session.is_replaced || session.is_expired) continue;
        ordered.emplace_back(session.order, SessionRecord{hash, session.csrf_hash, session.user, session.uid,
                                                          session.created, session.last_used});
      }
    }
  }
  std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<SessionRecord> records;
  records.reserve(ordered.size());
  for (auto& [order, record] : ordered) records.push_back(std::move(record));
  return records;
}

// Returns when the file has all changes up to `generation`. While one thread writes, others wait, and the next write
// includes the changes of all of them, so many concurrent logins share one write.
Status SessionTable::Impl::WriteUpTo(std::uint64_t generation) {
  const MutexLock lock(write_mutex_);
  if (written_generation_ >= generation) return {};
  return Write();
}

// The snapshot and the write are under the same lock, so an older snapshot never overwrites a newer one.
Status SessionTable::Impl::Write() {
  std::uint64_t generation = 0;
  const std::string text = SerializeSessions(Snapshot(generation));
  // A larger file could not be loaded, and the daemon would not start.
  Status status = text.size() > kMaxFileBytes ? Error(ErrorCode::kNoSpace, "The session file would become too large")
                                              : WriteFileAtomically(path_, text, kFileMode);
  if (status.ok()) {
    written_generation_ = generation;
  } else {
    has_new_uses_ = true;
  }
  return status;
}

Status SessionTable::Impl::Load() {
  auto file = ReadPrivateFile(path_, kMaxFileBytes);
  if (!file.ok()) {
    const Error& error = file.error();
    if (error.code() == ErrorCode::kNotFound) return {};
    return error.code() == ErrorCode::kInvalid ? Error(ErrorCode::kCorrupt, error.message(), error.cause()) : error;
  }
  auto records = ParseSessions(file->content);
  if (!records.ok()) return Error(records.error().code(), fmt::format("'{}': {}", path_, records.error().ToString()));
  const std::int64_t now = options_.now();
  const MutexLock lock(change_mutex_);
  for (const SessionRecord& record : *records) {
    const std::int64_t created = std::min(record.created, now);
    const std::int64_t last_used = std::clamp(record.last_used, created, now);
    Insert(record.hash,
           Session{record.csrf_hash, record.user, record.uid, created, last_used, next_order_++, false, false});
  }
  RemoveAllExpired();
  return {};
}

SessionTable::SessionTable(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
SessionTable::~SessionTable() = default;

Result<std::unique_ptr<SessionTable>> SessionTable::Open(const std::string& path, const SessionOptions& options) {
  auto impl = std::make_unique<Impl>(path, options);
  if (Status status = impl->Load(); !status.ok()) return status.error();
  return std::unique_ptr<SessionTable>(new SessionTable(std::move(impl)));
}

Result<NewSession> SessionTable::Create(const SessionUser& user) { return impl_->Create(user); }
std::optional<SessionUser> SessionTable::Find(std::string_view token) { return impl_->Find(token); }
bool SessionTable::IsLive(std::string_view token) const { return impl_->IsLiveToken(token); }

bool SessionTable::CheckCsrf(std::string_view token, std::string_view csrf_token) const {
  return impl_->CheckCsrf(token, csrf_token);
}
bool SessionTable::End(std::string_view token) { return impl_->End(token); }
std::size_t SessionTable::EndAllOfUser(const std::string& user) { return impl_->EndAllOfUser(user); }
Status SessionTable::Sweep() { return impl_->Sweep(); }
std::size_t SessionTable::size() const { return impl_->size(); }

}  // namespace vexa::session
