// The parts of GuestControl. For host/guests/*.cpp only.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "host/guests/claims.h"
#include "host/guests/deletion/deletion.h"
#include "host/guests/edit/edit.h"
#include "host/guests/end_reasons.h"
#include "host/guests/guest_control.h"
#include "host/guests/shut_downs.h"
#include "host/guests/starts.h"
#include "host/records/domain_record.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/storage/storage_watch.h"

namespace vexa::guests {

// What a host has for one guest, gathered before a lock is taken, and what its guests have taken of it.
struct Facts {
  HostResources resources;
  // The guests that ran when the free memory was read: what they have taken is not part of it.
  std::set<std::string> counted_runs;
};

class LibvirtGuestControl final : public GuestControl {
 public:
  LibvirtGuestControl(GuestControlOptions options, std::uint64_t epoch);
  ~LibvirtGuestControl() override;

  // Opens the hypervisor and makes everything consistent.
  Status Begin();

  Refused PowerOn(const std::string& guest_id, const Requester& requester) override;
  Refused ShutDown(const std::string& guest_id, const Requester& requester) override;
  Refused PowerOff(const std::string& guest_id, const Requester& requester) override;
  Refused Reboot(const std::string& guest_id, const Requester& requester) override;
  Refused Fence(const std::string& guest_id) override;
  Refused Delete(const std::string& guest_id, const Requester& requester) override;
  Refused Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) override;
  Refused SetHost(const std::string& guest_id, const std::string& host_id) override;
  bool SettleFenced() override;
  Result<Rating> RateGuest(const std::string& guest_id) override;
  Refused DiscardSaved(const std::string& guest_id, const Requester& requester) override;
  Refused Release(const std::string& guest_id, const Requester& requester) override;
  std::optional<RunningGuest> Running(const std::string& guest_id) override;
  bool IsControllable() const override;
  std::string HypervisorVersion() const override;
  bool Stop(std::chrono::milliseconds patience) override;

 private:
  using Done = hypervisor::Outcome<void>;

  // guest_power.cpp
  // `patience` is the time to wait for the same operation by another caller.
  Refused Perform(const std::string& guest_id, std::string_view action, const Requester& requester,
                  const std::function<Refused()>& act,
                  std::chrono::milliseconds patience = std::chrono::milliseconds(0));
  Refused Ask(const std::string& guest_id, const std::function<Done()>& ask);
  // The reason for the end of a guest that a user powers off now: its machine may have stopped earlier because of its
  // storage.
  cluster::ShutdownReason ReasonOfPowerOff(const std::string& guest_id);
  // Powers the guest off, overriding any other operation on it: a start in progress is cancelled.
  Done EndRun(const std::string& guest_id);
  // Whether the processors that a running guest's edited record requests could be dedicated to it.
  Refused RatePins(const Guest& edited);
  bool PressAgain(const std::string& guest_id);
  // 910 when the guest's machine exists, no matter who defined it; 949 when the hypervisor cannot be asked.
  Refused RefuseActive(const std::string& guest_id);

  // guest_fence.cpp
  // 949 once other hosts have considered this host gone and it has not settled that yet.
  Refused RefuseStale() const;
  // 949 until the machine of a guest that was taken from this host has been ended.
  Refused RefuseFenced(const std::string& guest_id) const;
  // Makes a commit depend on this host's claim.
  void AddGuard(store::Transaction& transaction) const;
  // Ends the guest's machine when the guest was taken from this host, and removes the note about that.
  Status SettleFencedGuest(const std::string& guest_id);

  // guest_start.cpp
  // What is about to be started, and the parameters of the start.
  struct Starting {
    Guest guest;
    std::optional<hypervisor::Definition> definition;  // libvirt's existing one; not set: none
    std::optional<DomainRecord> imported;
    Facts facts;
    Run run;

    bool IsSaved() const { return definition && definition->state == hypervisor::GuestState::kSaved; }
  };
  Refused StartGuest(const std::string& guest_id);
  // Determines everything that does not need a lock.
  Refused Prepare(const std::string& guest_id, Starting& starting);
  Refused RefuseUnmounted(const Guest& guest) const;
  Refused RefuseForeign(const Starting& starting) const;
  // Commits, after all checks, that this host has the guest.
  Refused Reserve(Starting& starting);
  Refused StartReserved(Starting& starting, const Starts::Start& start);
  // Removes "pending" from the guest's record: the guest is about to start with these changes.
  Status ClearPending(const std::string& guest_id);
  Refused RefuseTaken(const std::string& guest_id) const;

  // guest_definition.cpp
  // The XML with which this host defines the guest; without a mark when it is handed back to its owner.
  enum class Mark { kOurs, kNone };
  Result<std::string> DomainXml(const Guest& guest, const std::vector<unsigned>& pinned_cpus, Mark mark);
  Result<std::optional<DomainRecord>> ImportedDomain(const std::string& guest_id) const;
  Status KeepOriginal(const std::string& guest_id);
  std::string NewNvramPath(const Guest& guest) const;
  // The guest's name in libvirt, which must not be the name of another machine.
  std::string MachineName(const Guest& guest);
  // Stores in the guest's record which file has its UEFI variables, if it does not say so yet.
  Status RecordNvram(const std::string& guest_id, const hypervisor::Definition& definition);
  Refused RefuseMissingNvram(const Guest& guest) const;
  Refused DefineGuest(const Guest& guest, const std::vector<unsigned>& pinned_cpus, Mark mark);
  Refused RestoreAutostart(const std::string& guest_id);
  Refused GiveBack(const std::string& guest_id);
  Status RemoveRecords(const std::string& guest_id);
  // Removes the remaining definitions of guests that were deleted.
  void RemoveDefinitions();
  // The same for one guest, which must be held.
  void RemoveNoted(const std::string& guest_id);
  Result<bool> RemoveDefinition(const std::string& guest_id);

  // guest_look.cpp
  // Reconciles the records of a guest, which must be held, with the hypervisor, and cleans up after one that is off.
  void Look(const std::string& guest_id);
  // Looks, and releases the guest when no look is left to do.
  void LookAndRelease(Claims::Claim claim, const std::string& guest_id);
  void LookWhenFree(const std::string& guest_id);
  Status Restore(const std::string& guest_id, const StoredRun& stored);
  // False: a machine of the hypervisor that is not one of this host's guests.
  Result<bool> NoteRunning(const std::string& guest_id, const std::optional<StoredRun>& stored);
  Status NoteOff(const std::string& guest_id, const std::optional<StoredRun>& stored, bool is_defined);
  // Removes what this host has defined for the run that has ended.
  Status TakeDown(const std::string& guest_id);
  // False: the saved memory of a machine that is not one of this host's guests.
  Result<bool> NoteSaved(const std::string& guest_id, const std::optional<StoredRun>& stored);
  // The run of a guest whose record names this host and that no host has. Not set: it is not this host's guest.
  Result<std::optional<Run>> RunToAdopt(const std::string& guest_id);
  Status PutRun(const std::string& guest_id, const std::optional<StoredRun>& stored, const Run& run);
  // Stores the end of a guest whose machine does not exist. `stored` is its run; `has_crashed` is the hypervisor's
  // report.
  Status ObserveEnd(const std::string& guest_id, const std::optional<StoredRun>& stored, EndReasons::Ended ended,
                    cluster::Sequence sequence);
  Status Observe(const std::string& guest_id, const std::string& state, cluster::Sequence sequence,
                 const std::optional<cluster::ShutdownReason>& shutdown = std::nullopt);
  // guest_nics.cpp
  // Updates the records of the guest's interfaces with where they are plugged in, according to its stored run.
  Status NoteNics(const std::string& guest_id);

  // guest_look.cpp
  // Looks at everything, after a start or a lost connection.
  void Reconcile();

  // guest_control.cpp
  DeletionOptions OptionsOfDeletion();
  EditOptions OptionsOfEdits();
  bool ForgetsGuests() const { return options_.hypervisor.mode == "test"; }
  void Step(std::string_view step) const {
    if (options_.before_step) options_.before_step(step);
  }
  // Calls `act`, unless this object is not open yet or is being destroyed.
  void Answer(const std::function<void()>& act);
  void ReadVersion();
  void Maintain();
  void MaintainOnce();
  // Retries deletions and edits that could not be finished, each with back-off.
  void FinishBegun();
  // Looks at guests whose records change elsewhere, such as imports of running machines.
  void WatchRecords();
  void LookAtImported(const std::string& guest_id);

  // guest_facts.cpp
  // What the host has for a guest. Asks the hypervisor and the file system, which may hang, so do not call it under a
  // lock.
  Facts GatherFacts(const Guest& guest);
  Result<hypervisor::Node> NodeFigures();
  std::vector<std::string> LibvirtNetworks();
  // Adds what the guests of this host, except for one, have taken. Uses only the store.
  Status AddTaken(const std::string& except_guest_id, Facts& facts) const;

  const GuestControlOptions options_;
  const std::shared_ptr<StorageWatch> storage_;
  Deletion deletion_;
  Edits edits_;
  cluster::Sequencer sequencer_;
  Claims claims_;
  Starts starts_;
  EndReasons ends_by_;
  std::mutex placing_;  // held from counting what is taken until the new allocation is committed
  mutable std::mutex node_mutex_;
  std::optional<hypervisor::Node> node_;
  std::string version_;  // of the hypervisor, as last read
  std::atomic<bool> stopping_ = false;

  std::unique_ptr<ShutDowns> shut_downs_;
  std::mutex maintenance_mutex_;
  std::condition_variable maintenance_wake_;
  std::set<std::string> unsettled_;  // guests whose last look failed
  struct Retry {
    std::chrono::steady_clock::time_point next;
    std::chrono::milliseconds delay;
  };
  std::map<std::string, Retry> unfinished_;             // deletions and edits, by guest; used by maintenance_ only
  std::chrono::steady_clock::time_point next_refresh_;  // of storage_; used by maintenance_ only
  store::Revision watched_ = 0;                         // the revision from which watching_ continues
  bool ends_ = false;
  bool is_open_ = false;  // the hypervisor's callbacks may use everything above
  int threads_ = 0;       // running threads: maintenance_, watching_ and answers to the hypervisor's callbacks
  std::thread maintenance_;
  std::thread watching_;
  // Destroyed first: its callbacks use everything above.
  std::unique_ptr<hypervisor::Hypervisor> hypervisor_;
};

// Whether the guest's machine exists: it is running, paused or shutting down.
inline bool IsActive(hypervisor::GuestState state) {
  using hypervisor::GuestState;
  return state == GuestState::kRunning || state == GuestState::kPaused || state == GuestState::kShuttingDown;
}

// Maps the hypervisor's failures to the codes that callers know.
Refusal RefusalOf(const hypervisor::Failure& failure);
Refusal RefusalOf(const Error& error);

}  // namespace vexa::guests
