// The parts of GuestControl. For host/guests/*.cpp only.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "host/base/mutex.h"
#include "host/guests/checked_files.h"
#include "host/guests/creation/creation.h"
#include "host/guests/deletion/deletion.h"
#include "host/guests/edit/edit.h"
#include "host/guests/end_reasons.h"
#include "host/guests/guest_activities.h"
#include "host/guests/guest_control.h"
#include "host/guests/live_changes.h"
#include "host/guests/shut_downs.h"
#include "host/guests/starts.h"
#include "host/networks/network_keeper.h"
#include "host/records/domain_record.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/storage/storage_watch.h"

namespace vexa::guests {

// The resources of this host for one guest, gathered before a lock is taken, and what other guests use of them.
struct ResourceFacts {
  HostResources resources;
  // The guests that ran when the free memory was read: it does not include their memory.
  std::set<std::string> guests_already_deducted;
};

class LibvirtGuestControl final : public GuestControl {
 public:
  LibvirtGuestControl(GuestControlOptions options, std::uint64_t epoch);
  ~LibvirtGuestControl() override;

  // Opens the hypervisor and makes everything consistent.
  Status Begin();

  Result<void, Refusal> PowerOn(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> ShutDown(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> PowerOff(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> Reboot(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> Suspend(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> Resume(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> Save(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> Restore(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> Fence(const std::string& guest_id) override;
  Result<void, Refusal> Delete(const std::string& guest_id, const Requester& requester) override;
  Result<Json::Value, Refusal> Create(const Json::Value& parameters, const Requester& requester) override;
  Result<void, Refusal> Import(const ImportRequest& request, const GuestImport::Options& importing,
                               const Requester& requester, ImportedGuest& imported) override;
  Result<void, Refusal> Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) override;
  Result<std::vector<domain_xml::Difference>, Refusal> Pending(const std::string& guest_id) override;
  Result<void, Refusal> Apply(const std::string& guest_id, const std::vector<domain_xml::Difference>& except,
                              hypervisor::Eject eject, const Requester& requester) override;
  Result<void, Refusal> SetHost(const std::string& guest_id, const std::string& host_id) override;
  bool StopFencedGuests() override;
  Result<Rating> RateGuest(const std::string& guest_id) override;
  Result<void, Refusal> DiscardSaved(const std::string& guest_id, const Requester& requester) override;
  Result<void, Refusal> Release(const std::string& guest_id, const Requester& requester) override;
  std::optional<RunningGuest> FindRunningGuest(const std::string& guest_id) override;
  Result<Descriptor, Refusal> OpenConsole(const std::string& guest_id, ConsoleType type) override;
  Result<std::string, Refusal> Screenshot(const std::string& guest_id) override;
  Result<std::size_t, Refusal> Type(const std::string& guest_id, const std::string& text) override;
  bool IsHypervisorReachable() const override;
  std::string HypervisorVersion() const override;
  void BeginStop() override { stop_begun_ = true; }
  bool Stop(std::chrono::milliseconds timeout) override;

 private:
  using HypervisorStatus = Result<void, hypervisor::Failure>;

  // guest_power.cpp
  // Runs `act` as the guest's one activity, then reconciles the guest. Waits at most `timeout` for another caller's
  // activity of the same name; refuses other activities with 915.
  Result<void, Refusal> Perform(const std::string& guest_id, std::string_view action, const Requester& requester,
                                const std::function<Result<void, Refusal>()>& act,
                                std::chrono::milliseconds timeout = std::chrono::milliseconds(0));
  // Refuses a guest without a readable record.
  Result<void, Refusal> CheckRecord(const std::string& guest_id) const;
  // Calls `call` if the guest has a record, and maps the failure to a refusal.
  Result<void, Refusal> CallHypervisor(const std::string& guest_id, const std::function<HypervisorStatus()>& call);
  // The reason to record for a guest that a user powers off now: its domain may have been paused earlier by an I/O
  // error of its storage.
  records::ShutdownReason PowerOffReason(const std::string& guest_id);
  // Powers the guest off, overriding any other operation on it: a start in progress is cancelled.
  HypervisorStatus StopDomain(const std::string& guest_id);
  // Whether the processors that a running guest's edited record requests could be dedicated to it.
  Result<void, Refusal> CheckPinsAvailable(const records::Guest& edited);
  // Requests the guest's shut-down again. False: it does not run any more.
  bool RepeatPress(const std::string& guest_id);
  // 910 when the guest's domain is active, no matter who defined it; 949 when the hypervisor cannot be reached.
  Result<void, Refusal> CheckNotRunning(const std::string& guest_id);

  // guest_live.cpp
  // A guest's machine beside the definition that its next start would make.
  struct Comparison {
    records::Guest guest;
    std::string running_xml;
    std::string recorded_xml;
    bool is_saved = false;
    std::vector<domain_xml::Difference> differences;
  };
  // Not set: the guest has no machine here, neither running nor saved.
  Result<std::optional<Comparison>, Refusal> Compare(const std::string& guest_id);
  Result<std::optional<Comparison>, Refusal> CompareWith(records::Guest guest);
  domain_xml::DiskSizes RunningSizes(const records::Guest& guest);
  // 901 with the properties that a running guest could not take if its records became `edited`.
  Result<void, Refusal> CheckAppliesNow(const records::Guest& edited);
  // Applies what is different now and was not before.
  void ApplyNew(const std::string& guest_id, const std::vector<domain_xml::Difference>& before);
  void ApplyDifferences(const Comparison& comparison, const std::vector<domain_xml::Difference>& differences,
                        hypervisor::Eject eject);
  Result<void, Refusal> ApplyOne(const Comparison& comparison, const domain_xml::Difference& difference,
                                 LiveChanges& changes);
  Result<void, Refusal> CheckAddedFiles(const std::string& guest_id, const domain_xml::Difference& difference,
                                        LiveChanges& changes);
  Result<void, Refusal> Reserve(const std::string& guest_id, const std::string& property, std::uint64_t amount);
  Result<void, Refusal> CheckGrowth(const records::Guest& guest, const std::string& disk_id);
  Result<void, Refusal> ClearImageIsSmaller(const std::string& disk_id, std::uint64_t size_mib);
  void GrowImages(const records::Guest& guest);
  // Whether the guest's machine, running or saved, has one of the files as a disk. True when that is unknown.
  bool HasFileInMachine(const std::string& guest_id, const std::vector<std::string>& paths);

  // guest_console.cpp
  Result<void, Refusal> CheckHasConsole(const std::string& guest_id) const;

  // guest_autorun.cpp
  struct AutorunAttempts {
    int count = 0;
    std::chrono::steady_clock::time_point next;
  };
  void PlanAutorunsAfterBoot();
  // Keeps a guest that a user has started, and may stop again, from being started once more.
  Result<void, Refusal> ForgetAutorun(const std::string& guest_id, Result<void, Refusal> started);
  // Starts the guests in the list, one after the other, until it is empty.
  void RunAutoruns();
  // False: the list is empty.
  bool RunNextAutorun(std::map<std::string, AutorunAttempts>& attempts);
  bool MayAutorun() const;
  // Starts the guest. False: there is nothing left to do for it.
  bool IsToBeTriedAgain(const std::string& guest_id, AutorunAttempts& attempts);
  void LogToCluster(int priority, std::string sentence);

  // guest_processors.cpp
  // Why guests of this host cannot have the weight. Not set: they can.
  std::optional<std::string> WhyNotWeight(std::int64_t weight) const;
  Result<void, Refusal> CheckWeight(std::int64_t weight) const;
  void ReportWeight(const records::Guest& guest);
  // The processors that are not dedicated to any guest according to the run; empty when none are dedicated.
  Result<domain_xml::CpuSet> SharedCpus(const records::Run& run);
  // The processors dedicated to guests of this host other than this one.
  Result<domain_xml::CpuSet> DedicatedToOthers(const std::string& guest_id) const;
  // Moves the threads of a running guest when processors were dedicated to others, or freed.
  Status KeepOffDedicatedCpus(const std::string& guest_id);
  // Not more than `wanted`, the record's number.
  std::vector<unsigned> PinsToAdopt(const std::string& guest_id, std::uint64_t wanted);
  // The definition that a running guest was imported with, while it still runs with it. Not set: this host made another
  // one.
  std::optional<std::string> OwnersXmlInUse(const std::string& guest_id);
  // How many virtual CPUs of a running guest have processors of their own.
  std::uint64_t PinnedVcpus(const std::string& guest_id, const records::Run& run);
  // Makes the maintenance reconcile all guests now.
  void WakeMaintenance();
  // Waits until the next maintenance is due. False: Stop() was called.
  bool AwaitMaintenance();

  // guest_screen.cpp
  void ReadKeymaps();
  // Not set: unknown.
  std::optional<std::set<std::string>> Keymaps() const;
  // Whether QEMU has the layout.
  Result<void, Refusal> CheckLayout(const std::string& layout) const;
  void ReportLayout(const records::Guest& guest) const;

  // guest_suspend.cpp
  // The run of a guest that runs here, after it was reconciled.
  Result<records::Run, Refusal> RunHere(const std::string& guest_id);
  // The same; refuses a guest that is paused until its restore is finished.
  Result<void, Refusal> CheckRunsHere(const std::string& guest_id);

  // guest_fence.cpp
  // 949 from when other hosts considered this host gone until it has stopped the guests that were taken from it.
  Result<void, Refusal> CheckClaimHeld() const;
  // 949 until the domain of a guest that was taken from this host has been stopped.
  Result<void, Refusal> CheckNotFenced(const std::string& guest_id) const;
  // Makes a commit depend on this host's claim.
  void AddClaimCompare(store::Transaction& transaction) const;
  // Stops the guest's domain when the guest was taken from this host, and removes the fence record that says so.
  Status StopFencedGuest(const std::string& guest_id);

  // guest_start.cpp
  // A guest that is about to be started, and the parameters of the start.
  struct StartAttempt {
    records::Guest guest;
    std::optional<hypervisor::Definition> definition;  // libvirt's existing one; not set: none
    std::optional<records::DomainRecord> imported;
    ResourceFacts facts;
    // An interface that prefers a virtual function.
    struct WantedFunction {
      std::string nic;  // its id
      std::string network;
      std::vector<std::string> addresses;  // usable ones, some of which other guests may have
      std::string why_none;                // a part of a sentence, when it gets none
    };
    std::vector<WantedFunction> wanted_functions;
    records::Run run;

    bool IsSaved() const { return definition && definition->state == hypervisor::GuestState::kSaved; }
  };
  // What a start may use: a guest with saved memory is always restored from it.
  enum class StartFrom { kAnything, kSavedMemory };
  // Starts the guest as its activity `action`.
  Result<void, Refusal> StartAs(std::string_view action, const std::string& guest_id, const Requester& requester,
                                StartFrom from);
  Result<void, Refusal> StartGuest(const std::string& guest_id, StartFrom from);
  // Determines everything that does not need a lock.
  Result<void, Refusal> Prepare(const std::string& guest_id, StartAttempt& attempt);
  Result<void, Refusal> CheckStorageMounted(const records::Guest& guest) const;
  Result<void, Refusal> CheckDefinitionOwner(const StartAttempt& attempt) const;
  // Commits, after all checks, that this host holds the guest.
  Result<void, Refusal> Reserve(StartAttempt& attempt);
  Result<void, Refusal> StartReserved(StartAttempt& attempt, const Starts::Start& start);
  // Starts those networks of libvirt that the guest's interfaces need and that are not active, as Debian's "default" is
  // after its installation.
  Result<void, Refusal> StartNetworks(const records::Guest& guest) const;
  // Refuses when a host holds the guest, or a job with its files is not finished.
  Result<void, Refusal> CheckNotHeld(const std::string& guest_id) const;
  Result<void, Refusal> CheckNotHeld(const store::Snapshot& snapshot, const std::string& guest_id) const;

  // guest_virtual_functions.cpp
  // What the host has for the guest's interfaces.
  void FindVirtualFunctions(StartAttempt& attempt);
  // Adds functions to the attempt's run that no other guest has. Errors: those of the store.
  Status ReserveVirtualFunctions(StartAttempt& attempt) const;
  void ReportVirtualFunctions(const StartAttempt& attempt);
  static void DropUnwantedFunctions(const records::Guest& guest, const std::string& running_xml, records::Run& run);
  Status FreeVirtualFunctions(const std::string& guest_id);

  // guest_files.cpp
  // The XML of the machine that a start makes.
  Result<std::string, hypervisor::Failure> XmlOfStart(const std::string& guest_id, bool is_saved);
  Result<std::optional<CheckedFiles>, Refusal> CheckFiles(const std::string& guest_id,
                                                          const Result<std::string, hypervisor::Failure>& xml);
  // Why the guest, which has just been started, must not run: it has other files open. Not set: it may run.
  std::optional<std::string> CompareFiles(const std::string& guest_id, CheckedFiles& files);
  Refusal EndForFiles(const std::string& guest_id, const std::string& reason);
  // Lets a guest run that was restored from saved memory and is paused; saves it again if it has other files open.
  Result<void, Refusal> ResumeRestored(const std::string& guest_id, CheckedFiles& files);
  Refusal SaveAgain(const std::string& guest_id, const std::string& reason);
  bool IsBeingRestored(const std::string& guest_id, const records::Run& run) const;
  // The same for a guest that is still paused, because its host was killed, lost libvirt or could not save it. Does
  // nothing to other guests.
  Result<void, Refusal> FinishRestore(const std::string& guest_id);

  // guest_definition.cpp
  // The XML with which this host defines the guest; without an ownership tag when it is handed back to its owner.
  enum class OwnershipTag { kOurs, kNone };
  Result<std::string> DomainXml(const records::Guest& guest, const records::Run& run, OwnershipTag tag);
  Result<std::optional<records::DomainRecord>> ImportedDomain(const std::string& guest_id) const;
  Status SaveOriginalDefinition(const std::string& guest_id);
  std::string PrepareNvramPath(const records::Guest& guest) const;
  // The guest's name in libvirt, which must not be the name of another domain.
  std::string DomainName(const records::Guest& guest);
  // Stores the path of the guest's UEFI variables in its record, if the record has none yet.
  Status RecordNvram(const std::string& guest_id, const hypervisor::Definition& definition);
  Result<void, Refusal> CheckNvramExists(const records::Guest& guest) const;
  Result<void, Refusal> DefineGuest(const records::Guest& guest, const records::Run& run, OwnershipTag tag);
  // Makes libvirt not start a guest by itself whose definition this host has made, or that was imported: its "autorun"
  // is set instead, and its owner's setting is kept for a release.
  void ClearAutostartIfOurs(const std::string& guest_id);
  void ClearAutostart(const std::string& guest_id, hypervisor::Owner owner);
  Status SetAutorun(const std::string& guest_id);
  bool IsImportedHere(const std::string& guest_id) const;
  Result<void, Refusal> RestoreAutostart(const std::string& guest_id);
  Result<void, Refusal> ReturnToOwner(const std::string& guest_id);
  Status RemoveRecords(const std::string& guest_id);
  // Removes the definitions of guests that this host no longer has, as listed under /undefine/<host id>.
  void RemoveDefinitions();
  // The same for one guest, which must be held.
  void RemoveListedDefinition(const std::string& guest_id);
  Result<bool> RemoveDefinition(const std::string& guest_id);

  // guest_reconcile.cpp
  // Reconciles the records of a guest, which must be held, with the hypervisor, and cleans up after one that is off.
  void Reconcile(const std::string& guest_id);
  // Reconciles the guest, and releases it when no other reconciliation is requested.
  void ReconcileAndRelease(GuestActivities::ActivityGuard guard, const std::string& guest_id);
  void ReconcileWhenFree(const std::string& guest_id);
  // Removes saved memory of an active guest.
  Status DiscardOutdatedSaved(const std::string& guest_id);
  Status RestartForgotten(const std::string& guest_id, const records::StoredRun& stored);
  // False: the domain is not one of this host's guests.
  Result<bool> RecordRunning(const std::string& guest_id, const std::optional<records::StoredRun>& stored);
  Status RecordOff(const std::string& guest_id, const std::optional<records::StoredRun>& stored, bool is_defined);
  // Removes what this host has defined for the run that has ended.
  Status CleanUpRun(const std::string& guest_id);
  // False: the saved memory belongs to a domain that is not one of this host's guests.
  Result<bool> RecordSaved(const std::string& guest_id, const std::optional<records::StoredRun>& stored);
  // The run record of a domain that is here: the stored one or, without one, that of RunToAdopt. `what_is_here` begins
  // the sentence of the error when it is another host's: "It runs".
  Result<std::optional<records::Run>> OwnRun(const std::string& guest_id,
                                             const std::optional<records::StoredRun>& stored,
                                             std::string_view what_is_here);
  // A run record for a guest whose record names this host and that no host holds. Not set: it is not this host's guest.
  Result<std::optional<records::Run>> RunToAdopt(const std::string& guest_id);
  Status PutRun(const std::string& guest_id, const std::optional<records::StoredRun>& stored, const records::Run& run);
  // Stores the end of a guest that has no active domain. `stored` is its run; `ended` is what the hypervisor reports.
  Status ObserveEnd(const std::string& guest_id, const std::optional<records::StoredRun>& stored,
                    EndReasons::Ended ended, records::Sequence sequence);
  Status Observe(const std::string& guest_id, const std::string& state, records::Sequence sequence,
                 const std::optional<records::ShutdownReason>& shutdown = std::nullopt);
  // guest_nics.cpp
  // Records to which bridges the guest's interfaces are attached; according to its stored run.
  Status RecordNicAttachments(const std::string& guest_id);

  // guest_reconcile.cpp
  // Reconciles all guests, after a start or a lost connection.
  void ReconcileAll();

  // guest_control.cpp
  JobOptions MakeJobOptions();
  DeletionOptions MakeDeletionOptions();
  EditOptions MakeEditOptions();
  CreationOptions MakeCreationOptions();
  bool IsTestMode() const { return options_.hypervisor.mode == "test"; }
  bool IsEmbedded() const { return options_.hypervisor.mode == "embed"; }
  void BeforeStep(std::string_view step) const {
    if (options_.before_step) options_.before_step(step);
  }
  // Calls `act`, unless this object is still being opened or is being destroyed.
  void RunIfOpen(const std::function<void()>& act);
  void ReadVersion();
  void Maintain();
  // Waits at most `time` for Stop(). True: it has been called.
  bool AwaitStop(std::chrono::milliseconds time);
  void MaintainOnce();
  // Retries deletions and edits that could not be finished, each with back-off.
  void RetryUnfinished();
  // Reconciles guests whose records other processes change, such as imports of running domains.
  void WatchRecords();
  void AdoptImported(const std::string& guest_id);
  // Keeps the networks of this host, at changes of their records and now and then.
  void WatchNetworks();
  void KeepNetworks();

  // guest_facts.cpp
  // The guest in the newest state.
  Result<records::Guest> ReadGuestNow(const std::string& guest_id) const;
  // The resources of the host for a guest. Queries the hypervisor and the file system, which may hang, so do not call
  // it under a lock.
  ResourceFacts GatherFacts(const records::Guest& guest);
  Result<hypervisor::NodeInfo> GetNodeInfo();
  std::vector<std::string> LibvirtNetworks();
  // Adds what the guests of this host use, except for one. Reads only the store.
  Status AddAllocated(const std::string& except_guest_id, ResourceFacts& facts) const;

  const GuestControlOptions options_;
  const std::shared_ptr<storage::StorageWatch> storage_;
  const std::unique_ptr<networks::NetworkKeeper> networks_;  // null: networks are not kept
  Deletion deletion_;
  Edits edits_;
  Creations creations_;
  records::Sequencer sequencer_;
  GuestActivities activities_;
  Starts starts_;
  EndReasons end_reasons_;
  Mutex allocation_mutex_;  // held from counting the allocated resources until the new allocation is committed
  mutable Mutex pins_mutex_;
  mutable store::Revision pins_revision_ VEXA_GUARDED_BY(pins_mutex_) = 0;
  // The processors that are dedicated to guests of this host, by guest.
  mutable std::map<std::string, std::vector<unsigned>> pins_ VEXA_GUARDED_BY(pins_mutex_);
  mutable Mutex node_info_mutex_;
  std::optional<hypervisor::NodeInfo> node_info_ VEXA_GUARDED_BY(node_info_mutex_);
  std::optional<std::set<std::string>> keymaps_ VEXA_GUARDED_BY(node_info_mutex_);
  std::string version_ VEXA_GUARDED_BY(node_info_mutex_);  // of the hypervisor, as last read
  std::atomic<bool> stop_begun_ = false;                   // BeginStop()
  std::atomic<bool> stopping_ = false;
  std::atomic<int> screenshots_ = 0;  // that are being taken

  std::unique_ptr<ShutDowns> shut_downs_;
  Mutex maintenance_mutex_;
  ConditionVariable maintenance_wake_;
  std::set<std::string> unreconciled_ VEXA_GUARDED_BY(maintenance_mutex_);  // guests whose last reconciliation failed
  struct Retry {
    std::chrono::steady_clock::time_point next;
    std::chrono::milliseconds delay;
  };
  std::map<std::string, Retry>
      unfinished_;  // deletions, edits and creations, by guest; used by maintenance_thread_ only
  std::chrono::steady_clock::time_point next_refresh_;  // of storage_; used by maintenance_thread_ only
  store::Revision watch_revision_ = 0;                  // the revision from which watch_thread_ continues
  bool stop_requested_ VEXA_GUARDED_BY(maintenance_mutex_) = false;
  bool is_maintenance_due_ VEXA_GUARDED_BY(maintenance_mutex_) = false;
  // The hypervisor's callbacks may use everything above.
  bool is_open_ VEXA_GUARDED_BY(maintenance_mutex_) = false;
  // How many threads run: maintenance_thread_, watch_thread_, networks_thread_, autorun_thread_ and handlers of
  // hypervisor events.
  int threads_ VEXA_GUARDED_BY(maintenance_mutex_) = 0;
  std::thread maintenance_thread_;
  std::thread watch_thread_;
  std::thread networks_thread_;
  std::thread autorun_thread_;
  // Destroyed first: its callbacks use everything above.
  std::unique_ptr<hypervisor::Hypervisor> hypervisor_;
};

// Whether the guest has an active domain: it is running, paused or shutting down.
inline bool IsActive(hypervisor::GuestState state) {
  using hypervisor::GuestState;
  return state == GuestState::kRunning || state == GuestState::kPaused || state == GuestState::kShuttingDown;
}

// Map failures of the hypervisor and of the store to the codes of refusals.
Refusal RefusalOf(const hypervisor::Failure& failure);
Refusal RefusalOf(const Error& error);

// 912: the guest's record names another host.
Refusal OnOtherHost(const std::string& host_id);

}  // namespace vexa::guests
