// What hosts know about the guests that they run, and how it becomes the stored state of a guest.
//
//   /dash/guest/<guest id>/state   the state, a text of VexaCCC::State::Guest
//   /live/<guest id>               {"host_id", "time" (Unix seconds), "sequences": {"<host id>": {"epoch",
//   "counter"}}, "shutdown": see shutdown_reason.h}:
//                                  who told it last, how far each host that ever ran the guest has counted, and why
//                                  the guest is off
//   /live_epoch/<host id>          {"epoch"}
//
// The state is a key of its own beside the guest's record and goes before the record's member of that name, for every
// reader of the dashboard; so a guest can start and stop without its record changing. Both keys are always written
// together.
#pragma once

#include <atomic>
#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/records/shutdown_reason.h"
#include "host/store/store.h"

namespace vexa::cluster {

// The order of what one host observes: by epoch, then by counter. A host begins a new epoch when it starts.
struct Sequence {
  std::uint64_t epoch = 0;
  std::uint64_t counter = 0;
  auto operator<=>(const Sequence&) const = default;
};

struct Observation {
  std::string state;
  Sequence sequence;
  std::string host_id;
  std::chrono::system_clock::time_point time;
  // Why the guest is off. Without one the reason that is stored stays, unless the guest runs.
  std::optional<ShutdownReason> shutdown{};
  std::optional<store::Compare> guard{};  // nothing is stored once this has changed (HostClaim::Guard)
};

enum class Observed {
  kStored,
  kOlder,    // the same host has told something newer, or the same, already
  kNotOurs,  // the guest is another host's
};

// Stores an observation. A host speaks for the guests whose record names it as "host_id"; for a guest that names none,
// the host that spoke last goes on, or any when none has. Whatever happens at the same time, in any process, an older
// observation never replaces a newer one, and a host that has lost a guest changes nothing.
// Errors: kInvalid (not a state of guests, or a host id that is empty or no UTF-8), kNotFound (no such guest), kCorrupt
// (its record cannot be read), kConflict (others change it all the time), and what the store says. Nothing is stored
// then. A damaged "/live" record counts as none and is replaced.
Result<Observed> Observe(store::Store& store, const std::string& guest_id, const Observation& observation);

// A new epoch of this host, above all it ever had: the stored one and 1, or the clock's milliseconds when that is more,
// so that a lost or damaged record does not lead back. Errors: what the store says, kConflict.
Result<std::uint64_t> StartEpoch(store::Store& store, const std::string& host_id,
                                 std::chrono::system_clock::time_point now);

// Gives out the sequences of one epoch. Take one before looking at the guest: of two observers that overlap, the one
// that looked later then has the higher one, unless both looked at the same time.
// Threads: any, at the same time.
class Sequencer {
 public:
  explicit Sequencer(std::uint64_t epoch) : epoch_(epoch) {}
  Sequence Next() { return {epoch_, ++counter_}; }

 private:
  const std::uint64_t epoch_;
  std::atomic<std::uint64_t> counter_{0};
};

// Adds to the transaction that deletes a guest that its live state goes with it.
void ForgetLiveState(store::Transaction& transaction, const std::string& guest_id);

// The member of LiveRecordKey() that has the reason.
inline constexpr char kShutdown[] = "shutdown";

// Where the state of a guest is, and who told it.
std::string LiveStateKey(const std::string& guest_id);
std::string LiveRecordKey(const std::string& guest_id);

}  // namespace vexa::cluster
