// What hosts observe about the guests that they run, and how it becomes the stored state of a guest.
//
//   /dash/guest/<guest id>/state   the state, a value of VexaCCC::State::Guest
//   /live/<guest id>               {"host_id", "time" (Unix seconds),
//                                   "sequences": {"<host id>": {"epoch", "counter"}},
//                                   "shutdown": see shutdown_reason.h}:
//                                  which host observed the guest last, the last sequence of each host that ever
//                                  observed it, and why the guest is off
//   /live_epoch/<host id>          {"epoch"}: the host's current epoch, see Sequence
//
// The state is a key of its own beside the guest's record and, for every reader of the dashboard, overrides the
// record's member of that name; so a guest can start and stop without its record changing. Both keys are always written
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

namespace vexa::records {

// Orders the observations of one host: by epoch, then by counter. A host begins a new epoch when it starts.
struct Sequence {
  std::uint64_t epoch = 0;
  std::uint64_t counter = 0;
  auto operator<=>(const Sequence&) const = default;
};

struct Observation {
  std::string state;  // a value of VexaCCC::State::Guest
  Sequence sequence;
  std::string host_id;
  std::chrono::system_clock::time_point time;
  // Why the guest is off. When not set, the stored reason stays unless the guest runs.
  std::optional<ShutdownReason> shutdown{};
  std::optional<store::Compare> guard{};  // nothing is stored once this has changed (HostClaim::Guard)
};

enum class ObserveResult {
  kStored,
  kOutdated,  // the same host has already reported something newer, or the same
  kNotOurs,   // the guest belongs to another host than the observer
};

// Stores an observation. A host reports on the guests whose record names it as "host_id"; for a guest whose record
// names no host, the host that reported last continues to do so, or any host if none has. Whatever happens
// concurrently, in any process, an older observation never replaces a newer one, and a host that has lost a guest
// changes nothing.
// Errors: kInvalid (not a state of guests, or a host id that is empty or not UTF-8), kNotFound (no such guest),
// kCorrupt (its record cannot be read), kConflict (the records keep changing), and those of the store. Nothing is
// stored then. A damaged "/live" record counts as missing and is replaced.
Result<ObserveResult> Observe(store::Store& store, const std::string& guest_id, const Observation& observation);

// A new epoch of this host, above all earlier ones: the stored one plus 1, or the clock's milliseconds when that is
// more, so that the epoch increases even after the record was lost or damaged. Errors: those of the store, kConflict.
Result<std::uint64_t> StartEpoch(store::Store& store, const std::string& host_id,
                                 std::chrono::system_clock::time_point now);

// Issues the sequences of one epoch. Take one before observing the guest: then an observer that starts later, and so
// sees a later state, has the higher sequence. Only observers that overlap in time may be ordered either way.
// Threads: any, at the same time.
class Sequencer {
 public:
  explicit Sequencer(std::uint64_t epoch) : epoch_(epoch) {}
  Sequence Next() { return {epoch_, ++counter_}; }

 private:
  const std::uint64_t epoch_;
  std::atomic<std::uint64_t> counter_{0};
};

// Adds the removal of the live state to the transaction that deletes a guest.
void AddLiveStateRemoval(store::Transaction& transaction, const std::string& guest_id);

// The member of LiveRecordKey() that contains the reason.
inline constexpr char kShutdownMember[] = "shutdown";

// The keys of a guest's state, and of the record about who observed it.
std::string LiveStateKey(const std::string& guest_id);
std::string LiveRecordKey(const std::string& guest_id);

}  // namespace vexa::records
