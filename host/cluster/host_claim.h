// Ensures one running daemon per host id.
//
// A daemon claims its host id before it does anything else with the store. The claim has a number, the incarnation,
// which increases with every start and whenever another host takes guests from this one because it is gone. Every
// commit of the daemon about power and states compares the claim. So a daemon that was stopped or cut off while others
// went on cannot change anything afterwards: it first has to check what was taken from it and renew its claim.
//
// A copy of a machine has its host id as well. Two things distinguish it: the place of the data folder (the inode and
// birth time of its file "host-id", which survive a restart but not a copy), and the permanent addresses of the network
// cards. A machine that still has one of the known addresses has only had its other cards changed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/records/host_life.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Identifies the daemon that claims.
struct ClaimIdentity {
  std::string place;                   // of the data folder; see PlaceOf
  std::vector<std::string> addresses;  // permanent addresses of network cards; empty: unknown
  std::string boot;                    // changes whenever the machine starts (proc(5), random/boot_id)
  std::string name;                    // of the machine, for messages
};

// The place of a file: it survives restarts, and differs for a copy. Errors: those of the system.
Result<std::string> PlaceOf(const std::string& path);
// "" when the system does not report it.
std::string BootId();

struct ClaimOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;
  ClaimIdentity identity;
  bool take_over = false;  // an administrator confirms that the machine which had the id is off for good
  std::chrono::milliseconds window = kPresenceWindow;
};

enum class Standing {
  kHeld,
  kFenced,  // guests were taken from this host while it was gone; Renew() is due
  kLost,    // another daemon has the id, or the host was removed from the cluster
};

// Threads: any, at the same time.
class HostClaim {
 public:
  // Waits up to `window` when a sign of life indicates that another daemon may still have the id. A daemon with the
  // same data folder in the same run of the machine cannot exist, and one that was stopped properly has released the
  // id. If the store cannot be written, for instance on a full disk, the claim of the same machine stays as it is, and
  // this daemon continues under its number.
  // Errors: kDenied with a sentence for the administrator (another machine has the id, or the host was removed from the
  // cluster), and nothing has been changed; those of the store.
  static Result<std::shared_ptr<HostClaim>> Take(ClaimOptions options);

  std::uint64_t incarnation() const { return incarnation_; }
  // See BootedIncarnationOf.
  std::uint64_t booted() const { return booted_; }

  // The current state of the claim in the store. Errors: those of the store.
  Result<Standing> Look() const;
  // The compare that makes a commit fail once the claim is no longer held by this daemon.
  store::Compare Guard() const;
  // kDenied unless the claim is held; the errors of the store.
  Status Check() const;

  // Continues after kFenced, under a new number. kDenied: the claim is lost.
  Status Renew();
  // The daemon stops: the next start need not wait. Errors: those of the store.
  Status Release();

 private:
  HostClaim(ClaimOptions options, std::string token) : options_(std::move(options)), token_(std::move(token)) {}

  bool GoOnUnwritten(const Error& error);

  Result<store::Transaction> PlanTake(store::Revision& judged_seen, std::chrono::milliseconds& wait);

  const ClaimOptions options_;
  std::string token_;  // of this daemon
  std::atomic<std::uint64_t> incarnation_{0};
  std::atomic<std::uint64_t> booted_{0};
  std::atomic<store::Revision> revision_{0};
};

}  // namespace vexa::cluster
