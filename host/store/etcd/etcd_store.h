// The store of a cluster: etcd, with a mirror of all keys on this host.
//
// One watch feeds the mirror, a keyspace in LMDB, revision by revision; reads come from it. A commit is one transaction
// of etcd, whose compares the cluster checks, and returns when the mirror has reached its revision; so does a commit
// whose compares fail. Reads continue while the cluster does not answer; health() is then kInaccessible, and commits
// are refused.
//
// The mirror is not synced with the disk: etcd's members do that. After a crash of the machine it is filled again from
// the cluster, and until then there is nothing to read (MirroredStore keeps a copy for that time).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/store/etcd/etcd_client.h"
#include "host/store/store.h"

namespace vexa::store::etcd {

// What a member accepts in one transaction; members are started with these limits (--max-txn-ops,
// --max-request-bytes; etcd's defaults are 128 and 1.5 MiB).
inline constexpr std::size_t kMaxTransactionOperations = 1024;
inline constexpr std::size_t kMaxRequestBytes = std::size_t{8} << 20;

struct EtcdStoreOptions {
  ClientOptions client;
  std::string mirror_directory;  // created when missing; used by one process
  std::string writer;  // names this process's commits in the cluster: the host id. No two stores that are open
                       // at the same time share it
  std::uint64_t cluster_id = 0;  // the cluster that this host belongs to; 0: whichever answers (the first start)
  std::chrono::milliseconds probe_interval{1000};  // of the cluster's health; a loss is noticed within 3 s
  std::chrono::seconds lease_ttl{10};              // of values that live while this host is connected
  std::chrono::milliseconds commit_timeout{10'000};
  std::chrono::seconds check_interval{60};  // how often the mirror is compared with the cluster
  // Called once, on a thread of the store, when the cluster was replaced by another or an older state of itself, for
  // which a new object has to be made. health() is kInaccessible from then on.
  std::function<void(const std::string& reason)> on_replaced{};
  // Called when health() changes, on a thread of the store.
  std::function<void()> on_health{};
};

// Figures for the metrics and for administrators.
struct EtcdStoreStats {
  Revision mirrored_revision = 0;
  std::uint64_t cluster_id = 0;
  std::uint64_t listings = 0;     // how often everything was listed again
  std::uint64_t differences = 0;  // keys that a comparison had to mend
  std::uint64_t unknown_outcomes = 0;
  bool has_lease = false;
};

// Threads: any, at the same time.
class EtcdStore : public Store {
 public:
  // Returns once the mirror is open, whether the cluster answers or not; reads fail with kUnavailable until the mirror
  // has been filled once. Errors: those of EtcdClient::Make and of opening the mirror.
  static Result<std::shared_ptr<EtcdStore>> Open(EtcdStoreOptions options);

  // From now on uses these members and certificates.
  virtual Status ReplaceClient(ClientOptions options) = 0;
  virtual EtcdStoreStats stats() const = 0;
  // Ends the lease, so that values which live while this host is connected disappear now. For a daemon that stops.
  virtual void Disconnect() = 0;
};

}  // namespace vexa::store::etcd
