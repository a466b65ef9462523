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

#include "host/cluster/live_state.h"
#include "host/guests/claims.h"
#include "host/guests/edit.h"
#include "host/guests/guest_control.h"
#include "host/guests/run_record.h"
#include "host/guests/shut_downs.h"
#include "host/guests/starts.h"

namespace vexa::guests {

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
  Result<Rating> RateGuest(const std::string& guest_id) override;
  std::optional<RunningGuest> Running(const std::string& guest_id) override;
  void BeginStop() override;

 private:
  using Done = hypervisor::Outcome<void>;

  // guest_power.cpp
  // `patience` is for others who do the same.
  Refused Perform(const std::string& guest_id, std::string_view action, const Requester& requester,
                  const std::function<Refused()>& act,
                  std::chrono::milliseconds patience = std::chrono::milliseconds(0));
  Refused StartGuest(const std::string& guest_id);
  // Commits that this host has the guest, after all checks; the processors to set apart for it.
  std::variant<Run, Refusal> Reserve(const Guest& guest);
  Refused StartReserved(const Guest& guest, const Run& run, const Starts::Start& start);
  // Takes "pending" off the guest's record: it is about to start as that says.
  Status ClearPending(const std::string& guest_id);
  Refused RefuseTaken(const std::string& guest_id) const;
  Refused Ask(const std::string& guest_id, const std::function<Done()>& ask);
  // Whether a guest that runs could have the processors of its own that its edited record asks for.
  Refused RatePins(const Guest& edited);
  bool PressAgain(const std::string& guest_id);

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
  Status Observe(const std::string& guest_id, const char* state, cluster::Sequence sequence);
  // Everything, after a start or a lost connection.
  void Reconcile();

  // guest_control.cpp
  Result<HostResources> Resources(const std::string& but_guest_id);
  Result<hypervisor::Node> NodeFigures();
  EditOptions OptionsOfEdits();
  Result<std::string> DomainXml(const Guest& guest, const Run& run);
  bool IsMachineOfOther(const Guest& guest);
  std::vector<std::string> LibvirtNetworks();
  bool ForgetsGuests() const { return options_.hypervisor.mode == "test"; }
  void Step(std::string_view step) const {
    if (options_.before_step) options_.before_step(step);
  }
  void Maintain();
  // Goes on with edits that could not be finished, each less and less often.
  void FinishEdits();

  const GuestControlOptions options_;
  Deletion deletion_;
  Edits edits_;
  cluster::Sequencer sequencer_;
  Claims claims_;
  Starts starts_;
  std::mutex placing_;  // from counting what is taken until what is to be taken is committed
  std::mutex node_mutex_;
  std::optional<hypervisor::Node> node_;
  std::atomic<bool> stopping_ = false;

  std::unique_ptr<ShutDowns> shut_downs_;
  std::mutex maintenance_mutex_;
  std::condition_variable maintenance_wake_;
  std::set<std::string> unsettled_;  // guests whose last look failed
  struct Retry {
    std::chrono::steady_clock::time_point next;
    std::chrono::milliseconds delay;
  };
  std::map<std::string, Retry> unfinished_;  // edits, by guest; only maintenance_ uses it
  bool ends_ = false;
  std::thread maintenance_;
  std::mutex callback_mutex_;  // held by the hypervisor's callbacks, so that none uses one that is being destroyed
  bool is_open_ = false;
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
