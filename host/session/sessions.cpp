#include "host/session/sessions.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/base/files.h"
#include "host/base/private_file.h"
#include "host/session/session_file.h"
#include "host/session/session_token.h"

namespace vexa::daemon {
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
  std::uint64_t order = 0;   // of creation
  bool is_expired = false;   // sticky: once seen as expired, no clock change revives it
  bool is_replaced = false;  // a newer session of the user replaces it as soon as that is in the file
};

// Part of a uniformly distributed hash is uniformly distributed, too. The first byte chooses the shard.
struct HashPart {
  std::size_t operator()(const Hash& hash) const {
    std::size_t part = 0;
    std::memcpy(&part, hash.data() + 8, sizeof(part));
    return part;
  }
};

// Lookups of different sessions seldom meet, and unlike a read lock, a plain mutex does not let them starve a change.
struct alignas(64) Shard {
  std::mutex mutex;
  std::unordered_map<Hash, Session, HashPart> sessions;
};

}  // namespace

// Locks, in this order: write_mutex_, change_mutex_, one shard's. The shape of the maps changes only under
// change_mutex_ and the shard's mutex together.
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
  bool CheckCsrf(std::string_view token, std::string_view csrf_token);
  bool End(std::string_view token);
  std::size_t EndAllOf(const std::string& user);
  Status Sweep();
  std::size_t size() const { return count_; }

 private:
  enum class Liveness { kLive, kExpired };
  using OrderedHashes = std::map<std::uint64_t, Hash>;

  Shard& ShardOf(const Hash& hash) { return shards_[hash[0] % shards_.size()]; }
  // Requires the shard's mutex.
  bool IsLive(Session& session, std::int64_t now) const;

  // These require change_mutex_.
  void Insert(const Hash& hash, Session session);
  std::optional<Liveness> Remove(const Hash& hash);
  std::size_t RemoveExpired(const std::vector<Hash>& candidates);
  std::size_t RemoveAllExpired();
  Status MakeRoom(const std::string& user, std::vector<Hash>& replaced);
  void SetReplaced(const Hash& hash, bool is_replaced);

  std::vector<SessionRecord> Snapshot(std::uint64_t& generation);
  Status WriteUpTo(std::uint64_t generation);
  Status WriteWithWriteMutexHeld();

  const std::string path_;
  SessionOptions options_;

  std::array<Shard, 16> shards_;
  std::atomic<std::size_t> count_{0};
  // A use that the file does not have yet. Set by Find, hence not part of the generation.
  std::atomic<bool> has_new_uses_{false};

  std::mutex change_mutex_;
  std::unordered_map<std::string, OrderedHashes> by_user_;
  std::size_t replaced_ = 0;  // sessions marked is_replaced
  std::uint64_t next_order_ = 0;
  std::uint64_t generation_ = 0;  // counts changes

  std::mutex write_mutex_;
  std::uint64_t written_generation_ = 0;
};

bool SessionTable::Impl::IsLive(Session& session, std::int64_t now) const {
  // Clamped to now, or a session from a clock that was ahead would live longer by that lead.
  session.created = std::min(session.created, now);
  session.is_expired = session.is_expired || now - session.created >= options_.absolute.count() ||
                       now - session.last_used >= options_.idle.count();
  return !session.is_expired;
}

void SessionTable::Impl::Insert(const Hash& hash, Session session) {
  by_user_[session.user].emplace(session.order, hash);
  ++count_;
  Shard& shard = ShardOf(hash);
  const std::lock_guard lock(shard.mutex);
  shard.sessions.emplace(hash, std::move(session));
}

std::optional<SessionTable::Impl::Liveness> SessionTable::Impl::Remove(const Hash& hash) {
  Shard& shard = ShardOf(hash);
  std::unique_lock lock(shard.mutex);
  auto node = shard.sessions.extract(hash);
  lock.unlock();
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
      const std::lock_guard lock(shard.mutex);
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
    const std::lock_guard lock(shard.mutex);
    for (auto& [hash, session] : shard.sessions) {
      if (!IsLive(session, now)) expired.push_back(hash);
    }
  }
  return RemoveExpired(expired);
}

void SessionTable::Impl::SetReplaced(const Hash& hash, bool is_replaced) {
  Shard& shard = ShardOf(hash);
  const std::lock_guard lock(shard.mutex);
  const auto found = shard.sessions.find(hash);
  if (found == shard.sessions.end() || found->second.is_replaced == is_replaced) return;
  found->second.is_replaced = is_replaced;
  replaced_ += is_replaced ? 1 : std::size_t{0} - 1;
}

// Marks the user's oldest sessions that exceed the quota once there is one more, and lists them in `replaced`.
Status SessionTable::Impl::MakeRoom(const std::string& user, std::vector<Hash>& replaced) {
  std::vector<Hash> own;  // the oldest first
  if (const auto found = by_user_.find(user); found != by_user_.end()) {
    for (const auto& [order, hash] : found->second) own.push_back(hash);
  }
  RemoveExpired(own);
  std::vector<Hash> standing;
  for (const Hash& hash : own) {
    Shard& shard = ShardOf(hash);
    const std::lock_guard lock(shard.mutex);
    const auto found = shard.sessions.find(hash);
    if (found != shard.sessions.end() && !found->second.is_replaced) standing.push_back(hash);
  }
  const std::size_t quota = std::max<std::size_t>(1, options_.max_sessions_per_user);
  if (standing.size() >= quota) {
    replaced.assign(standing.begin(), standing.end() - static_cast<std::ptrdiff_t>(quota - 1));
  }
  const auto is_full = [&] { return count_ - replaced_ - replaced.size() >= options_.max_sessions; };
  if (is_full()) RemoveAllExpired();
  if (is_full()) return Error(ErrorCode::kBusy, "Too many users are logged in; try again later");
  for (const Hash& hash : replaced) SetReplaced(hash, true);
  return {};
}

Result<NewSession> SessionTable::Impl::Create(const SessionUser& user) {
  if (!base::IsValidAccountName(user.name))
    return Error(ErrorCode::kInvalid, "A session cannot be of a user of that name");
  auto token = NewToken();
  if (!token.ok()) return token.error();
  auto csrf_token = NewToken();
  if (!csrf_token.ok()) return csrf_token.error();
  const auto hash = HashOf(*token);
  const auto csrf_hash = HashOf(*csrf_token);
  if (!hash || !csrf_hash) return Error(ErrorCode::kInternal, "Cannot hash a token");

  std::vector<Hash> replaced;
  std::unique_lock lock(change_mutex_);
  if (Status status = MakeRoom(user.name, replaced); !status.ok()) return status.error();
  const std::int64_t now = options_.now();
  Insert(*hash, Session{*csrf_hash, user.name, user.uid, now, now, next_order_++, false, false});
  const std::uint64_t generation = ++generation_;
  lock.unlock();

  // No one knows the token yet, and the sessions that it replaces stay valid until it is in the file.
  const Status written = WriteUpTo(generation);

  lock.lock();
  if (!written.ok()) {
    for (const Hash& old : replaced) SetReplaced(old, false);
    Remove(*hash);
    ++generation_;  // another thread's write may have put it into the file
    return written.error();
  }
  for (const Hash& old : replaced) Remove(old);
  return NewSession{*token, *csrf_token};
}

std::optional<SessionUser> SessionTable::Impl::Find(std::string_view token) {
  if (!IsTokenShaped(token)) return std::nullopt;
  const auto hash = HashOf(token);
  if (!hash) return std::nullopt;
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(*hash);
  const std::lock_guard lock(shard.mutex);
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
  if (!IsTokenShaped(token) || !IsTokenShaped(csrf_token)) return false;
  const auto hash = HashOf(token);
  const auto csrf_hash = HashOf(csrf_token);
  if (!hash || !csrf_hash) return false;
  const std::int64_t now = options_.now();
  Shard& shard = ShardOf(*hash);
  const std::lock_guard lock(shard.mutex);
  const auto found = shard.sessions.find(*hash);
  return found != shard.sessions.end() && IsLive(found->second, now) &&
         EqualInConstantTime(found->second.csrf_hash, *csrf_hash);
}

bool SessionTable::Impl::End(std::string_view token) {
  if (!IsTokenShaped(token)) return false;
  const auto hash = HashOf(token);
  if (!hash) return false;
  std::unique_lock lock(change_mutex_);
  const auto removed = Remove(*hash);
  if (!removed) return false;
  const std::uint64_t generation = ++generation_;
  lock.unlock();
  // A failure leaves the generation unwritten, and the next writer makes up for it.
  static_cast<void>(WriteUpTo(generation));
  return *removed == Liveness::kLive;
}

std::size_t SessionTable::Impl::EndAllOf(const std::string& user) {
  std::unique_lock lock(change_mutex_);
  const auto found = by_user_.find(user);
  if (found == by_user_.end()) return 0;
  const OrderedHashes own = found->second;  // a copy: removing the last one removes the entry
  std::size_t ended = 0;
  for (const auto& [order, hash] : own) {
    if (Remove(hash) == Liveness::kLive) ++ended;
  }
  const std::uint64_t generation = ++generation_;
  lock.unlock();
  static_cast<void>(WriteUpTo(generation));  // as in End
  return ended;
}

Status SessionTable::Impl::Sweep() {
  {
    const std::lock_guard lock(change_mutex_);
    RemoveAllExpired();
  }
  const std::lock_guard write_lock(write_mutex_);
  {
    const std::lock_guard lock(change_mutex_);
    if (generation_ == written_generation_ && !has_new_uses_) return {};
  }
  return WriteWithWriteMutexHeld();
}

// The sessions in the table now, the oldest first, and which generation that is.
std::vector<SessionRecord> SessionTable::Impl::Snapshot(std::uint64_t& generation) {
  std::vector<std::pair<std::uint64_t, SessionRecord>> ordered;
  {
    const std::lock_guard lock(change_mutex_);
    generation = generation_;
    has_new_uses_ = false;  // before reading them: a use that comes meanwhile sets it again
    ordered.reserve(count_);
    for (Shard& shard : shards_) {
      const std::lock_guard shard_lock(shard.mutex);
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

// Returns when the file has all changes up to `generation`. Callers that had to wait find their changes written by the
// first of them, so many concurrent logins share one write.
Status SessionTable::Impl::WriteUpTo(std::uint64_t generation) {
  const std::lock_guard lock(write_mutex_);
  if (written_generation_ >= generation) return {};
  return WriteWithWriteMutexHeld();
}

// The snapshot is taken under the same lock as the write, so an older one never follows a newer one.
Status SessionTable::Impl::WriteWithWriteMutexHeld() {
  std::uint64_t generation = 0;
  const std::string text = RenderSessions(Snapshot(generation));
  // A file that cannot be read back would keep the daemon from starting.
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
  if (!records.ok()) return Error(records.error().code(), "'" + path_ + "': " + records.error().ToString());
  const std::int64_t now = options_.now();
  const std::lock_guard lock(change_mutex_);
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
bool SessionTable::CheckCsrf(std::string_view token, std::string_view csrf_token) const {
  return impl_->CheckCsrf(token, csrf_token);
}
bool SessionTable::End(std::string_view token) { return impl_->End(token); }
std::size_t SessionTable::EndAllOf(const std::string& user) { return impl_->EndAllOf(user); }
Status SessionTable::Sweep() { return impl_->Sweep(); }
std::size_t SessionTable::size() const { return impl_->size(); }

}  // namespace vexa::daemon
