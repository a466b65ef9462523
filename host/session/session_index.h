// The sessions in memory. sessions.h has what they are.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/session/session_file.h"
#include "host/session/sessions.h"

namespace vexa::session {

// Every change has a generation, a number that grows; the file is up to date when it has been written with the newest.
//
// Threads: any, at the same time. Use and CheckCsrf, which every request needs, take only the mutex of one shard, for a
// moment.
class SessionIndex {
 public:
  // `options.now` must be set.
  explicit SessionIndex(const SessionOptions& options) : options_(options) {}

  // Call it once, before anything else.
  void Load(const std::vector<SessionRecord>& records);

  // Adds a session that begins now, and marks the user's oldest ones that then exceed the quota as replaced: they stay
  // valid until Settle. Returns the generation. kBusy when there are max_sessions already.
  Result<std::uint64_t> Add(const Hash& hash, const Hash& csrf_hash, const SessionUser& user, const std::string& from,
                            std::vector<Hash>& replaced);
  // Ends the replaced sessions. If the new session could not be stored, they live on instead, and the new one ends.
  enum class Outcome { kStored, kNotStored };
  void Settle(const Hash& hash, const std::vector<Hash>& replaced, Outcome outcome);

  std::optional<SessionUser> Use(const Hash& hash);
  bool IsLive(const Hash& hash);  // without a use
  bool CheckCsrf(const Hash& hash, const Hash& csrf_hash);

  // Not written to the file: a host that ends meanwhile has the session with its former stamp.
  Status AcceptStamp(const Hash& hash, const std::string& stamp);
  void RefuseStamp(const Hash& hash, const std::string& stamp);
  bool HasStamp(const Hash& hash, const std::string& stamp);

  struct Change {
    std::size_t live = 0;          // how many live sessions have changed
    std::uint64_t generation = 0;  // 0: nothing has changed
  };
  Change SetStamp(const Hash& hash, const std::string& stamp);
  Change Remove(const Hash& hash);
  // The session with this id, if `owner` is its user or is not set.
  Change RemoveById(std::string_view id, const std::optional<SessionUser>& owner);
  Change RemoveAllOf(const std::string& user, const std::optional<Hash>& except);
  void RemoveAllExpired();

  // The live sessions of one user name or of all users, the oldest first.
  std::vector<SessionInfo> List(const std::optional<std::string>& user);
  // The sessions that belong into the file, the oldest first, and their generation.
  std::vector<SessionRecord> Snapshot(std::uint64_t& generation);
  std::uint64_t generation();
  // For a change of something else in the same file.
  std::uint64_t AddGeneration();
  // Whether there is a last use that Snapshot has not returned yet.
  bool HasNewUses() const { return has_new_uses_; }
  void KeepNewUses() { has_new_uses_ = true; }  // what Snapshot returned could not be written

  std::size_t size() const { return count_; }

 private:
  struct Session {
    Hash csrf_hash;
    SessionUser user;
    std::string from;
    std::int64_t created = 0;
    std::int64_t last_used = 0;
    std::optional<std::string> accepted_stamp = std::nullopt;  // set while the session changes its user's password
    std::uint64_t order = 0;                                   // of creation, ascending
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

  enum class Liveness { kLive, kExpired };
  using OrderedHashes = std::map<std::uint64_t, Hash>;

  Shard& ShardOf(const Hash& hash) { return shards_[hash[0] % shards_.size()]; }
  // Requires the mutex of the session's shard, unless the session is in no shard.
  bool IsLive(Session& session, std::int64_t now) const;
  // Calls `visit` with the hash of every session and the session, while the mutex of its shard is held.
  template <class Visit>
  void ForEach(const Visit& visit);
  // The same for the sessions of one user name, the oldest first, or of all users.
  template <class Visit>
  void ForEachOf(const std::optional<std::string>& user, const Visit& visit) VEXA_REQUIRES(change_mutex_);

  void Insert(const Hash& hash, Session session) VEXA_REQUIRES(change_mutex_);
  std::optional<Liveness> Take(const Hash& hash) VEXA_REQUIRES(change_mutex_);
  Change TakeAll(const std::vector<Hash>& hashes) VEXA_REQUIRES(change_mutex_);
  void TakeExpired(const std::optional<std::string>& user) VEXA_REQUIRES(change_mutex_);
  std::vector<Hash> HashesOf(const std::string& user) VEXA_REQUIRES(change_mutex_);
  Status MakeRoom(const std::string& user, std::vector<Hash>& replaced) VEXA_REQUIRES(change_mutex_);
  void SetReplaced(const Hash& hash, bool is_replaced) VEXA_REQUIRES(change_mutex_);

  const SessionOptions options_;

  // Lock order: change_mutex_, the mutex of one shard. Sessions are added and removed only under both.
  std::array<Shard, 16> shards_;
  std::atomic<std::size_t> count_{0};
  // Set by Use, which does not take change_mutex_, so it is not counted in generation_.
  std::atomic<bool> has_new_uses_{false};

  Mutex change_mutex_;
  std::unordered_map<std::string, OrderedHashes> by_user_ VEXA_GUARDED_BY(change_mutex_);
  std::size_t replaced_ VEXA_GUARDED_BY(change_mutex_) = 0;  // sessions marked is_replaced
  std::uint64_t next_order_ VEXA_GUARDED_BY(change_mutex_) = 0;
  std::uint64_t generation_ VEXA_GUARDED_BY(change_mutex_) = 0;
};

}  // namespace vexa::session
