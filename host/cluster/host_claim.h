// One running daemon per host id.
//
// A daemon claims its host id before it does anything else with the store. The claim has a number, the incarnation,
// which rises with every start and whenever somebody takes guests from the host because it is gone. Whatever the daemon
// commits about power and states compares the claim, so a daemon that was stopped, or cut off, while others went on
// changes nothing afterwards: it has to look at what was taken from it and to renew its claim first.
//
// A copy of a machine has its host id as well. It is distinguished by the place of the data folder (the inode and the
// time of birth of its file "host-id", which a restart keeps and a copy does not) and by the addresses that the network
// cards were made with; a machine of which one of them is known and the same has only changed its other cards.
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

// Who claims.
struct ClaimIdentity {
  std::string place;                   // of the data folder; see PlaceOf
  std::vector<std::string> addresses;  // permanent ones of network cards; empty: not known
  std::string boot;                    // changes whenever the machine starts (proc(5), random/boot_id)
  std::string name;                    // of the machine, for messages
};

// The place of a file: it stays through restarts, and is another one for a copy. Errors: what the system says.
Result<std::string> PlaceOf(const std::string& path);
// "" when the system does not say.
std::string BootId();

struct ClaimOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;
  ClaimIdentity identity;
  bool take_over = false;  // an administrator says that the machine which had the id is off for good
  std::chrono::milliseconds window = kPresenceWindow;
};

enum class Standing {
  kHeld,
  kFenced,  // somebody took guests from this host while it was gone; Renew() is due
  kLost,    // the id is another daemon's, or the host was removed from the cluster
};

// Threads: any, at the same time.
class HostClaim {
 public:
  // Waits up to `window` where a sign of life says that another daemon may still have the id; a daemon of the same data
  // folder and the same run of the machine cannot, and one that was stopped properly has given it up.
  // A store that cannot be written, such as one on a full disk, leaves the claim of the same machine as it is, and this
  // daemon goes on under its number.
  // Errors: kDenied with a sentence for the administrator (another machine has the id, or the host was removed from the
  // cluster): nothing has been changed then; what the store says.
  static Result<std::shared_ptr<HostClaim>> Take(ClaimOptions options);

  std::uint64_t incarnation() const { return incarnation_; }
  // See BootedIncarnationOf.
  std::uint64_t booted() const { return booted_; }

  // What the store says now. Errors: what the store says.
  Result<Standing> Look() const;
  // The compare that makes a commit fail once the claim is no longer this daemon's.
  store::Compare Guard() const;
  // kDenied unless it is held; what the store says.
  Status Check() const;

  // Goes on after kFenced, under a new number. kDenied: it is lost.
  Status Renew();
  // The daemon stops: another start need not wait. Errors: what the store says.
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
