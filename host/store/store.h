// The key-value store that holds the cluster's records.
//
// Keys are paths such as "/dash/guest/<id>/object" (host/store/key.h builds them). A value is JSON text and carries the
// revision that wrote it. Revisions count commits of the whole store, from 1; 0 means "absent" or "before everything".
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::store {

using Revision = std::uint64_t;

// A value inside a snapshot. `text` is JSON and is valid until the snapshot is destroyed.
struct ValueView {
  Revision revision = 0;
  std::string_view text;
};

// One consistent state of the whole store. Keep it only briefly: while it exists, the store cannot reuse space, or be
// reopened after a failed write. Release it before a commit, which may have to reopen the store. Threads: one at a
// time.
class Snapshot {
 public:
  virtual ~Snapshot() = default;

  // The revision of the last commit that this snapshot contains.
  virtual Revision revision() const = 0;

  // The value of `key`. Not set when absent, also for a key that can never exist (empty, too long).
  virtual Result<std::optional<ValueView>> Get(std::string_view key) const = 0;

  // The distinct next path segments below `prefix`, decoded, in byte order of their encoded form. `prefix` is a path
  // without a trailing slash. When nothing is below it, the list is empty. Cost grows with the number of children, not
  // with what is below them.
  virtual Result<std::vector<std::string>> Children(std::string_view prefix) const = 0;

  // Calls `visit` with every key at or below `prefix`, in byte order, until it returns false.
  virtual Status Scan(std::string_view prefix,
                      const std::function<bool(std::string_view key, const ValueView& value)>& visit) const = 0;
};

// The commit happens only when `key` still has this revision; 0: only when it is absent.
struct Compare {
  std::string key;
  Revision revision = 0;
};

// How long a value stays in the store.
enum class Lifetime {
  kUntilRemoved,
  // While this host is connected to the cluster: the value disappears some seconds after its store has ended or has
  // lost the connection, also when it is back later. A store for one machine keeps the value until it is removed.
  kWhileConnected,
};

// Puts `text` (JSON; the store does not parse it, and an empty text is a value), or deletes the key when there is no
// `text`. Deleting an absent key is not an error. Of several operations on one key, the last one counts.
struct Operation {
  std::string key;
  std::optional<std::string> text;
  Lifetime lifetime = Lifetime::kUntilRemoved;
};

struct Transaction {
  std::vector<Compare> compares;
  std::vector<Operation> operations;
};

struct Change {
  Revision revision = 0;
  std::string key;
  bool deleted = false;
};

struct ChangeBatch {
  std::vector<Change> changes;  // in commit order; only keys at or below the watched prefix
  Revision revision = 0;        // watch again from this revision
  bool lost = false;            // the change log no longer reaches back: reload everything, then watch from `revision`
};

enum class Health {
  kReady,
  kReadOnly,
  kHeld,  // another process has held the lock for writers for too long; reads work
  kInaccessible,
};

// Threads: any, at the same time. Processes: any number on one machine may open the same embedded store.
class Store {
 public:
  virtual ~Store() = default;

  // Contains every commit that this object has returned, and every commit that made one of its compares fail; other
  // hosts' commits arrive a little later. Errors: kBusy (too many snapshots are open), kUnavailable, kCorrupt,
  // kInternal.
  virtual Result<std::unique_ptr<Snapshot>> Read() const = 0;

  // Contains also every commit that had been made by any host when this was called. Waits some seconds for the cluster
  // if it has to. Errors: those of Read; kUnavailable: the cluster does not answer.
  virtual Result<std::unique_ptr<Snapshot>> ReadLatest() const { return Read(); }

  // Commits all operations or none, durably, and returns the revision that wrote them.
  // Errors: kConflict (a compare failed; nothing changed), kInvalid (a key that is not IsValidKey(), or a text above
  // 256 MiB; a cluster has lower limits), kNoSpace (the disk or the store is full; nothing changed), kDenied,
  // kUnavailable, kCorrupt, kInternal; kUnknown: the connection to the cluster broke, and whether the commit has been
  // made could not be found out within some seconds (it may still happen; ReadLatest shows it once it works). A
  // commit that cannot be started within some seconds, because another process holds the lock for writers, is taken
  // back with kUnavailable; it is not made later. While the lock is still held, other commits fail immediately. A
  // transaction without operations checks its compares and returns the current revision.
  virtual Result<Revision> Commit(const Transaction& transaction) = 0;

  // The changes after `from` at or below `prefix`. Waits up to `timeout` for the first one, then returns an empty
  // batch. Commits of other processes are seen as well, within 100 ms. Many changes come in several batches.
  virtual Result<ChangeBatch> Watch(std::string_view prefix, Revision from, std::chrono::milliseconds timeout) = 0;

  // The result of the last accesses: kReadOnly after a failed commit, kInaccessible after a failed read or while the
  // store's file is missing or replaced; kReady again once a commit works. While it is not kReady, the store itself
  // probes with a small commit once a second. This call does not write.
  virtual Health health() const = 0;

  // Why health() is not kReady: a sentence without a full stop, for administrators. Empty: nothing to add.
  virtual std::string health_reason() const { return {}; }

  // From now on commits wait at most this long for another process's lock: for a daemon that stops. Commits that queue
  // behind those of this process keep their time.
  virtual void LimitLockWaits(std::chrono::milliseconds longest) { static_cast<void>(longest); }
};

}  // namespace vexa::store
