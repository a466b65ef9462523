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

// What a host has for one guest, from before a lock is taken, and what its guests have taken of it.
struct Facts {
  HostResources resources;
  // The guests that ran when the free memory was read: what they have taken is no part of it.
  std::set<std::string> counted_runs;
};

class LibvirtGuestControl final : public GuestControl {
 public:
  LibvirtGuestControl(GuestControlOptions options, std::uint64_t epoch);
  ~LibvirtGuestControl() override;

  // Opens the hypervisor and makes everything agree.
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
  // `patience` is for others who do the same.
  Refused Perform(const std::string& guest_id, std::string_view action, const Requester& requester,
                  const std::function<Refused()>& act,
                  std::chrono::milliseconds patience = std::chrono::milliseconds(0));
  Refused Ask(const std::string& guest_id, const std::function<Done()>& ask);
  // Why a guest that a user powers off now will have ended: its machine may have stopped for its storage before.
  cluster::ShutdownReason ReasonOfPowerOff(const std::string& guest_id);
  // Powers the guest off, whatever else is being done with it: a start that is under way is called off.
  Done EndRun(const std::string& guest_id);
  // Whether a guest that runs could have the processors of its own that its edited record asks for.
  Refused RatePins(const Guest& edited);
  bool PressAgain(const std::string& guest_id);
  // 910 when the guest's machine is there, whoever defined it; 949 when that cannot be asked.
  Refused RefuseActive(const std::string& guest_id);

  // guest_fence.cpp
  // 949 once others have taken this host for gone and it has not settled that yet.
  Refused RefuseStale() const;
  // 949 while what this host had of a guest that was taken from it has not been ended.
  Refused RefuseFenced(const std::string& guest_id) const;
  // Makes a commit depend on this host's claim.
  void AddGuard(store::Transaction& transaction) const;
  // Ends the guest's machine when the guest was taken from this host, and removes the note of that.
  Status SettleFencedGuest(const std::string& guest_id);

  // guest_start.cpp
  // What is about to be started, and with what it is started.
  struct Starting {
    Guest guest;
    std::optional<hypervisor::Definition> definition;  // libvirt's, from before; not set: none
    std::optional<DomainRecord> imported;
    Facts facts;
    Run run;

    bool IsSaved() const { return definition && definition->state == hypervisor::GuestState::kSaved; }
  };
  Refused StartGuest(const std::string& guest_id);
  // Finds out all that does not need a lock.
  Refused Prepare(const std::string& guest_id, Starting& starting);
  Refused RefuseUnmounted(const Guest& guest) const;
  Refused RefuseForeign(const Starting& starting) const;
  // Commits that this host has the guest, after all checks.
  Refused Reserve(Starting& starting);
  Refused StartReserved(Starting& starting, const Starts::Start& start);
  // Takes "pending" off the guest's record: it is about to start as that says.
  Status ClearPending(const std::string& guest_id);
  Refused RefuseTaken(const std::string& guest_id) const;

  // guest_definition.cpp
  // The XML of the guest as it is to be defined here; without a mark when it is given back to its owner.
  enum class Mark { kOurs, kNone };
  Result<std::string> DomainXml(const Guest& guest, const std::vector<unsigned>& pinned_cpus, Mark mark);
  Result<std::optional<DomainRecord>> ImportedDomain(const std::string& guest_id) const;
  Status KeepOriginal(const std::string& guest_id);
  std::string NewNvramPath(const Guest& guest) const;
  // The name that libvirt is to have for the guest: not one that another machine has.
  std::string MachineName(const Guest& guest);
  // Keeps in the guest's record which file has its UEFI variables, when it does not say yet.
  Status RecordNvram(const std::string& guest_id, const hypervisor::Definition& definition);
  Refused RefuseMissingNvram(const Guest& guest) const;
  Refused DefineGuest(const Guest& guest, const std::vector<unsigned>& pinned_cpus, Mark mark);
  Refused RestoreAutostart(const std::string& guest_id);
  Refused GiveBack(const std::string& guest_id);
  Status RemoveRecords(const std::string& guest_id);
  // Definitions that are left of guests that were deleted.
  void RemoveDefinitions();
  // The same of one guest that is held.
  void RemoveNoted(const std::string& guest_id);
  Result<bool> RemoveDefinition(const std::string& guest_id);

  // guest_look.cpp
  // Makes the records of a guest that is held say what the hypervisor tells, and cleans up behind one that is off.
  void Look(const std::string& guest_id);
  // Looks, and gives the guest back when nothing is left to look at.
  void LookAndRelease(Claims::Claim claim, const std::string& guest_id);
  void LookWhenFree(const std::string& guest_id);
  Status Restore(const std::string& guest_id, const StoredRun& stored);
  // False: a machine of the hypervisor's that is none of this host's guests.
  Result<bool> NoteRunning(const std::string& guest_id, const std::optional<StoredRun>& stored);
  Status NoteOff(const std::string& guest_id, const std::optional<StoredRun>& stored, bool is_defined);
  // Takes down what this host has defined for the run that has ended.
  Status TakeDown(const std::string& guest_id);
  // False: the saved memory of a machine that is not one of this host's guests.
  Result<bool> NoteSaved(const std::string& guest_id, const std::optional<StoredRun>& stored);
  // The run of a guest whose record names this host and that nobody has. Not set: it is not this host's guest.
  Result<std::optional<Run>> RunToAdopt(const std::string& guest_id);
  Status PutRun(const std::string& guest_id, const std::optional<StoredRun>& stored, const Run& run);
  // What is stored of a guest whose machine is not there. `stored` is its run, `has_crashed` what the hypervisor says.
  Status ObserveEnd(const std::string& guest_id, const std::optional<StoredRun>& stored, EndReasons::Ended ended,
                    cluster::Sequence sequence);
  Status Observe(const std::string& guest_id, const std::string& state, cluster::Sequence sequence,
                 const std::optional<cluster::ShutdownReason>& shutdown = std::nullopt);
  // guest_nics.cpp
  // Makes the records of the guest's interfaces say where they are plugged in, by what is stored of its run.
  Status NoteNics(const std::string& guest_id);

  // guest_look.cpp
  // Everything, after a start or a lost connection.
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
  // Goes on with deletions and edits that could not be finished, each less and less often.
  void FinishBegun();
  // Looks at guests whose records others write, such as imports of machines that run.
  void WatchRecords();
  void LookAtImported(const std::string& guest_id);

  // guest_facts.cpp
  // What the host has for a guest. Asks the hypervisor and the file system, which may hang: not under a lock.
  Facts GatherFacts(const Guest& guest);
  Result<hypervisor::Node> NodeFigures();
  std::vector<std::string> LibvirtNetworks();
  // Adds what the guests of this host have taken, but for one. Asks the store alone.
  Status AddTaken(const std::string& except_guest_id, Facts& facts) const;

  const GuestControlOptions options_;
  const std::shared_ptr<StorageWatch> storage_;
  Deletion deletion_;
  Edits edits_;
  cluster::Sequencer sequencer_;
  Claims claims_;
  Starts starts_;
  EndReasons ends_by_;
  std::mutex placing_;  // from counting what is taken until what is to be taken is committed
  mutable std::mutex node_mutex_;
  std::optional<hypervisor::Node> node_;
  std::string version_;  // of the hypervisor, as it was read last
  std::atomic<bool> stopping_ = false;

  std::unique_ptr<ShutDowns> shut_downs_;
  std::mutex maintenance_mutex_;
  std::condition_variable maintenance_wake_;
  std::set<std::string> unsettled_;  // guests whose last look failed
  struct Retry {
    std::chrono::steady_clock::time_point next;
    std::chrono::milliseconds delay;
  };
  std::map<std::string, Retry> unfinished_;             // deletions and edits, by guest; only maintenance_ uses it
  std::chrono::steady_clock::time_point next_refresh_;  // of storage_; only maintenance_ uses it
  store::Revision watched_ = 0;                         // watching_ goes on from here
  bool ends_ = false;
  bool is_open_ = false;  // the hypervisor's callbacks may use everything above
  int threads_ = 0;       // those that run: maintenance_, watching_ and answers to the hypervisor's callbacks
  std::thread maintenance_;
  std::thread watching_;
  // Destroyed first: its callbacks use everything above.
  std::unique_ptr<hypervisor::Hypervisor> hypervisor_;
};

// Whether the guest's machine is there: it runs, or is paused or on its way down.
inline bool IsActive(hypervisor::GuestState state) {
  using hypervisor::GuestState;
  return state == GuestState::kRunning || state == GuestState::kPaused || state == GuestState::kShuttingDown;
}

// The codes that callers know for what the hypervisor says.
Refusal RefusalOf(const hypervisor::Failure& failure);
Refusal RefusalOf(const Error& error);

}  // namespace vexa::guests
