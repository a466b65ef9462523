// Calls to the members of an etcd cluster.
//
// The wire interface is etcd's API v3 (package etcdserverpb, https://etcd.io/docs/v3.4/dev-guide/api_reference_v3/)
// over gRPC; etcd.proto has the messages that are used. Revisions are etcd's: they count the commits of the cluster.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::store::etcd {

using LeaseId = std::int64_t;
using MemberId = std::uint64_t;

struct ClientOptions {
  std::vector<std::string> endpoints;  // "address:port" of members' listeners for clients, the preferred one first
  // Files in PEM: the authority that signs the members' certificates, and this client's own. All empty: without TLS,
  // for tests.
  std::string authority;
  std::string certificate;
  std::string key;
  std::chrono::milliseconds timeout{2000};  // of each call, unless it has its own
};

struct KeyValue {
  std::string key;
  std::string value;          // empty when only keys were asked for
  std::int64_t revision = 0;  // the last change of this key ("mod_revision")
  LeaseId lease = 0;          // 0: none
};

struct RangeOptions {
  std::string key;
  std::string end;            // exclusive; empty: only `key`; "\0" with key "\0": everything
  std::int64_t limit = 0;     // 0: none
  std::int64_t revision = 0;  // 0: the latest
  bool serializable = false;  // from the member that is asked, without the others: may be old
  bool keys_only = false;
};

struct RangeReply {
  std::uint64_t cluster_id = 0;
  std::int64_t revision = 0;     // of the whole store, when it was read
  std::vector<KeyValue> values;  // in byte order of the keys
  bool more = false;             // the limit has cut the list
};

// The key has this revision; 0: it is absent.
struct RevisionCompare {
  std::string key;
  std::int64_t revision = 0;
};

struct Put {
  std::string key;
  std::optional<std::string> value;  // not set: the key is deleted
  LeaseId lease = 0;
};

struct TransactionReply {
  bool succeeded = false;  // false: a compare failed, and nothing was written
  std::uint64_t cluster_id = 0;
  std::int64_t revision = 0;  // of the commit, or of the store when a compare failed or nothing was written
};

struct Event {
  std::string key;
  std::optional<std::string> value;  // not set: deleted
  std::int64_t revision = 0;
};

// What a watch has received: whole revisions, in order.
struct WatchBatch {
  std::int64_t revision = 0;  // of the last event
  std::vector<Event> events;
};

enum class WatchEnd {
  kStopped,    // by Stop or by the caller
  kCompacted,  // the changes since the start are no longer known
  kBroken,     // the connection broke, or the member has no leader
};

struct Member {
  MemberId id = 0;
  std::string name;  // empty: it has never started
  std::vector<std::string> peer_urls;
  std::vector<std::string> client_urls;
  bool is_learner = false;
};

struct MemberStatus {
  MemberId id = 0;
  std::uint64_t cluster_id = 0;
  std::string version;
  MemberId leader = 0;  // 0: none
  std::int64_t revision = 0;
  std::uint64_t raft_index = 0;
  std::uint64_t applied_index = 0;
  std::uint64_t database_bytes = 0;
  std::uint64_t used_bytes = 0;
  bool is_learner = false;
  std::vector<std::string> errors;
};

enum class AlarmKind { kNone, kNoSpace, kCorrupt };
struct Alarm {
  MemberId member = 0;
  AlarmKind kind = AlarmKind::kNone;
};

// Every call has a deadline and uses one member; a failing one is avoided by the next calls, while others answer.
// Errors of all calls: kUnavailable (no member has answered, or it has no leader; nothing was changed), kUnknown (a
// change was sent, and the answer is lost), kNoSpace (etcd's quota), kInvalid (etcd refuses the request: too large, or
// too many operations), kDenied (certificates), kInternal.
// Threads: any, at the same time.
class EtcdClient {
 public:
  // Errors: kInvalid (no endpoints), kDenied or kInternal (a file cannot be read).
  static Result<std::unique_ptr<EtcdClient>> Make(ClientOptions options);
  virtual ~EtcdClient() = default;

  // From now on uses these members and files; calls in progress end as they are.
  virtual Status Replace(ClientOptions options) = 0;

  virtual Result<RangeReply> Range(const RangeOptions& options) = 0;
  // Also reads a value that all members agree on. kInvalid: more than one put of a key.
  virtual Result<TransactionReply> Commit(const std::vector<RevisionCompare>& compares,
                                          const std::vector<Put>& puts) = 0;
  virtual Status Compact(std::int64_t revision) = 0;

  // Calls `on_batch` with the changes of all keys from revision `start` on (inclusive), on the caller's thread, until
  // the watch ends, `on_batch` returns false, or StopWatches is called. `on_created` is called once the member has
  // confirmed the watch. Without any message for `idle_limit`, the connection counts as broken.
  virtual WatchEnd Watch(std::int64_t start, const std::function<void()>& on_created,
                         const std::function<bool(WatchBatch&&)>& on_batch) = 0;
  // Ends all watches, also future ones.
  virtual void StopWatches() = 0;

  virtual Result<LeaseId> GrantLease(std::chrono::seconds ttl) = 0;
  // The remaining time; 0: the lease is gone.
  virtual Result<std::chrono::seconds> KeepLease(LeaseId lease) = 0;
  virtual Status RevokeLease(LeaseId lease) = 0;

  virtual Result<std::vector<Member>> Members() = 0;
  virtual Result<Member> AddLearner(const std::vector<std::string>& peer_urls) = 0;
  // kUnavailable: the learner has not caught up yet.
  virtual Status Promote(MemberId member) = 0;
  virtual Status Remove(MemberId member) = 0;

  // Of one member, named by its endpoint, for which these options' certificates are used.
  virtual Result<MemberStatus> StatusOf(const std::string& endpoint) = 0;
  virtual Status Defragment(const std::string& endpoint) = 0;
  virtual Result<std::vector<Alarm>> Alarms() = 0;
  virtual Status ClearAlarm(const Alarm& alarm) = 0;
  // Calls `write` with the pieces of a snapshot of the database, which etcdctl(1) can restore.
  virtual Status Snapshot(const std::function<Status(const std::string& piece)>& write) = 0;
};

}  // namespace vexa::store::etcd
