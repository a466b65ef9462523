#include "host/session/sessions.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "host/accounts/accounts.h"
#include "host/base/files.h"
#include "host/base/mutex.h"
#include "host/base/private_file.h"
#include "host/session/known_addresses.h"
#include "host/session/session_file.h"
#include "host/session/session_index.h"
#include "host/session/session_token.h"

namespace vexa::session {
namespace {

// A session takes at most 500 bytes in the file.
constexpr std::size_t kMaxFileBytes = std::size_t{256} << 20;
constexpr mode_t kFileMode = 0600;

SessionOptions WithClock(SessionOptions options) {
  if (!options.now) {
    options.now = [] { return static_cast<std::int64_t>(std::time(nullptr)); };
  }
  return options;
}

// Not set for what cannot be a token.
std::optional<Hash> HashOf(std::string_view token) { return HasTokenForm(token) ? HashToken(token) : std::nullopt; }

}  // namespace

// The file is written without a lock that any request needs: write_mutex_ only orders the writes.
class SessionTable::Impl {
 public:
  Impl(std::string path, const SessionOptions& options) : path_(std::move(path)), index_(WithClock(options)) {}

  Status Load();
  Result<NewSession> Create(const SessionUser& user, const std::string& from);
  EndResult Finish(const SessionIndex::Change& change);
  Status Sweep();

  SessionIndex& index() { return index_; }
  KnownAddresses& addresses() { return addresses_; }

 private:
  Status WriteUpTo(std::uint64_t generation);
  Status Write() VEXA_REQUIRES(write_mutex_);

  const std::string path_;
  SessionIndex index_;
  KnownAddresses addresses_;

  Mutex write_mutex_;
  std::uint64_t written_generation_ VEXA_GUARDED_BY(write_mutex_) = 0;
};

Result<NewSession> SessionTable::Impl::Create(const SessionUser& user, const std::string& from) {
  if (!accounts::IsValidAccountName(user.name) || !IsPlainText(user.stamp)) {
    return Error(ErrorCode::kInvalid, "The user name or the stamp of the session is invalid");
  }
  auto token = NewToken();
  if (!token.ok()) return token.error();
  auto csrf_token = NewToken();
  if (!csrf_token.ok()) return csrf_token.error();
  const auto hash = HashToken(*token);
  const auto csrf_hash = HashToken(*csrf_token);
  if (!hash || !csrf_hash) return Error(ErrorCode::kInternal, "Cannot hash a token");

  const std::string address = IsPlainText(from) ? from : std::string();
  if (!address.empty()) addresses_.Remember(user.name, address);
  std::vector<Hash> replaced;
  const auto generation = index_.Add(*hash, *csrf_hash, user, address, replaced);
  if (!generation) return generation.error();
  // The token has not been returned to the caller yet, and the replaced sessions stay valid until it is in the file.
  const Status written = WriteUpTo(*generation);
  index_.Settle(*hash, replaced, written ? SessionIndex::Outcome::kStored : SessionIndex::Outcome::kNotStored);
  if (!written) return written.error();
  return NewSession{*token, *csrf_token};
}

// Writes a change to the file. After a failure the generation stays unwritten, and the next writer writes it.
EndResult SessionTable::Impl::Finish(const SessionIndex::Change& change) {
  return {change.live, change.generation == 0 ? Status() : WriteUpTo(change.generation)};
}

Status SessionTable::Impl::Sweep() {
  index_.RemoveAllExpired();
  const MutexLock lock(write_mutex_);
  if (index_.generation() == written_generation_ && !index_.HasNewUses()) return {};
  return Write();
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
  std::vector<SessionRecord> sessions = index_.Snapshot(generation);
  const std::string text = SerializeSessions({std::move(sessions), addresses_.Snapshot()});
  // A larger file could not be loaded, and the daemon would not start.
  Status status = text.size() > kMaxFileBytes ? Error(ErrorCode::kNoSpace, "The session file would become too large")
                                              : WriteFileAtomically(path_, text, kFileMode);
  if (status.ok()) {
    written_generation_ = generation;
  } else {
    index_.KeepNewUses();
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
  const auto parsed = ParseSessions(file->content);
  if (!parsed.ok()) return Error(parsed.error().code(), fmt::format("'{}': {}", path_, parsed.error().ToString()));
  index_.Load(parsed->sessions);
  for (const KnownAddress& address : parsed->addresses) addresses_.Remember(address.user, address.network);
  return {};
}

SessionTable::SessionTable(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
SessionTable::~SessionTable() = default;

Result<std::unique_ptr<SessionTable>> SessionTable::Open(const std::string& path, const SessionOptions& options) {
  auto impl = std::make_unique<Impl>(path, options);
  if (Status status = impl->Load(); !status.ok()) return status.error();
  return std::unique_ptr<SessionTable>(new SessionTable(std::move(impl)));
}

Result<NewSession> SessionTable::Create(const SessionUser& user, const std::string& from) {
  return impl_->Create(user, from);
}

bool SessionTable::IsKnownAddress(const std::string& user, const std::string& address) const {
  return impl_->addresses().IsKnown(user, address);
}

std::optional<SessionUser> SessionTable::Find(std::string_view token) {
  const auto hash = HashOf(token);
  return hash ? impl_->index().Use(*hash) : std::nullopt;
}

bool SessionTable::IsLive(std::string_view token) const {
  const auto hash = HashOf(token);
  return hash && impl_->index().IsLive(*hash);
}

Status SessionTable::AcceptStamp(std::string_view token, const std::string& new_stamp) {
  const auto hash = HashOf(token);
  return hash ? impl_->index().AcceptStamp(*hash, new_stamp) : Status();
}

void SessionTable::RefuseStamp(std::string_view token, const std::string& new_stamp) {
  if (const auto hash = HashOf(token)) impl_->index().RefuseStamp(*hash, new_stamp);
}

bool SessionTable::HasStamp(std::string_view token, const std::string& stamp) const {
  const auto hash = HashOf(token);
  return hash && impl_->index().HasStamp(*hash, stamp);
}

bool SessionTable::CheckCsrf(std::string_view token, std::string_view csrf_token) const {
  const auto hash = HashOf(token);
  const auto csrf_hash = HashOf(csrf_token);
  return hash && csrf_hash && impl_->index().CheckCsrf(*hash, *csrf_hash);
}

std::vector<SessionInfo> SessionTable::List(const std::optional<std::string>& user) const {
  return impl_->index().List(user);
}

EndResult SessionTable::End(std::string_view token) {
  const auto hash = HashOf(token);
  return hash ? impl_->Finish(impl_->index().Remove(*hash)) : EndResult{};
}

EndResult SessionTable::EndById(std::string_view id, const std::optional<SessionUser>& owner) {
  return impl_->Finish(impl_->index().RemoveById(id, owner));
}

EndResult SessionTable::EndAllOfUser(const std::string& user, std::string_view except, const std::string& new_stamp) {
  const auto kept = HashOf(except);
  SessionIndex::Change change = impl_->index().RemoveAllOf(user, kept);
  if (kept) change.generation = std::max(change.generation, impl_->index().SetStamp(*kept, new_stamp).generation);
  return impl_->Finish(change);
}

EndResult SessionTable::ForgetUser(const std::string& user) {
  const bool had_addresses = impl_->addresses().Forget(user);
  SessionIndex::Change change = impl_->index().RemoveAllOf(user, std::nullopt);
  if (had_addresses) change.generation = impl_->index().AddGeneration();
  return impl_->Finish(change);
}

Status SessionTable::Sweep() { return impl_->Sweep(); }
std::size_t SessionTable::size() const { return impl_->index().size(); }

}  // namespace vexa::session
