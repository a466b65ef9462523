// Ensures one running daemon per host id.
//
// A daemon claims its host id before it does anything else with the store. The claim has a number, the incarnation,
// which increases with every start, and whenever another host takes guests from this one because it is gone. Every
// commit of the daemon about power and states compares the claim. So a daemon that was stopped or cut off meanwhile
// cannot change anything afterwards: it must first stop the guests that were taken from it, and renew its claim.
//
// A copy of a physical machine has the same host id. Two things distinguish it: the identity of the data folder (the
// inode and birth time of its file "host-id", which survive a restart but not a copy), and the permanent addresses of
// the network cards. A machine that still has one of the known addresses counts as the same one with other cards
// changed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/records/host_liveness.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Identifies the data folder, the physical machine and its boot, for which a daemon claims its host id.
struct ClaimIdentity {
  std::string data_folder_id;          // FileInstanceId of the file "host-id" in the data folder
  std::vector<std::string> addresses;  // permanent addresses of network cards; empty: unknown
  std::string boot;                    // changes at every boot of the machine; see BootId
  std::string name;                    // of the machine, for messages
};

// Identifies a file by its inode and birth time: survives restarts, and differs for a copy. Errors: kInternal.
Result<std::string> FileInstanceId(const std::string& path);
// The kernel's id of the current boot (proc(5), random/boot_id); "" when it cannot be read.
std::string BootId();

struct ClaimOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;
  ClaimIdentity identity;
  bool take_over = false;  // an administrator confirms that the machine which had the id is off for good
  std::chrono::milliseconds window = records::kHeartbeatTimeout;  // how long Take waits for another daemon's heartbeat
};

enum class ClaimState {
  kHeld,
  kFenced,  // guests were taken from this host while it was gone; Renew() is due
  kLost,    // another daemon has the id, or the host was removed from the cluster
};

// Threads: any, at the same time.
class HostClaim {
 public:
  // Claims the host id. Waits up to `window` when a recent heartbeat indicates that another daemon may still have the
  // id; not within the same boot of the machine, because only one daemon can have the data folder open, and not after a
  // proper stop, which released the id. If the store cannot be written, for instance on a full disk, and the stored
  // claim is that of this machine, it stays as it is, and this daemon continues under its incarnation.
  // Errors: kDenied with a sentence for the administrator (another machine or a live daemon has the id, or the host was
  // removed from the cluster); those of the store. Nothing has been changed then.
  static Result<std::shared_ptr<HostClaim>> Take(ClaimOptions options);

  std::uint64_t incarnation() const { return incarnation_; }
  // See FirstIncarnationSinceBoot.
  std::uint64_t booted() const { return booted_; }

  // The state of the claim in a snapshot, or the current one in the store. Errors: those of the store.
  Result<ClaimState> ReadClaimState(const store::Snapshot& snapshot) const;
  Result<ClaimState> ReadClaimState() const;
  // The compare that makes a commit fail once the claim is no longer held by this daemon.
  store::Compare Guard() const;
  // kDenied unless the claim is held; the errors of the store.
  Status Check(const store::Snapshot& snapshot) const;
  Status Check() const;

  // Continues after kFenced, under a new incarnation. Errors: kDenied when the claim is lost; kBusy when fence records
  // of guests are left; those of the store.
  Status Renew();
  // Call it when the daemon stops: the next start then does not wait. Errors: those of the store.
  Status Release();

 private:
  HostClaim(ClaimOptions options, std::string token) : options_(std::move(options)), token_(std::move(token)) {}

  bool AdoptStoredClaim(const Error& error);

  Result<store::Transaction> PlanClaim(store::Revision& heartbeat_revision_before, std::chrono::milliseconds& wait);

  const ClaimOptions options_;
  std::string token_;  // random; identifies this daemon in the claim
  std::atomic<std::uint64_t> incarnation_{0};
  std::atomic<std::uint64_t> booted_{0};
  std::atomic<store::Revision> revision_{0};  // of the claim as this daemon last wrote it
};

}  // namespace vexa::cluster
