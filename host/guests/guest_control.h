// What this host does with the guests it runs: power, and keeping records and hypervisor in agreement.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/cluster/host_claim.h"
#include "host/guests/jobs/requester.h"
#include "host/guests/resources.h"
#include "host/hypervisor/hypervisor.h"
#include "host/storage/storage_condition.h"
#include "host/store/store.h"

namespace vexa::guests {

struct GuestControlOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;
  hypervisor::HypervisorOptions hypervisor;  // its callbacks are set by GuestControl
  std::vector<std::string> image_roots;      // see deletion.h
  unsigned vcpus_per_cpu = 8;
  SpaceLimits space;  // of repositories; see storage_condition.h
  // How long a guest is asked to shut down, and how often, after the call that asked has been answered.
  std::chrono::milliseconds shut_down_wait = std::chrono::minutes(5);
  std::chrono::milliseconds press_again = std::chrono::seconds(5);
  // How often what failed is tried again, and what runs is looked at.
  std::chrono::milliseconds maintenance_interval = std::chrono::seconds(5);
  // How long a fence waits for the end of a start that it has called off; who asks waits for 30 seconds.
  std::chrono::milliseconds fence_wait = std::chrono::seconds(20);
  // How long an edit waits for another one of the same guest; who asked waits for 30 seconds or more.
  std::chrono::milliseconds edit_patience = std::chrono::seconds(10);
  // Whether the host has a network or bridge; not set: in test mode all, else what libvirt and the kernel tell.
  std::function<bool(const std::string& name)> has_network;
  // What this host does counts only while it holds its claim. Null: always.
  std::shared_ptr<cluster::HostClaim> claim;
  // Whether another host of the cluster lives; see deletion.h. Not set: none does.
  std::function<bool(const std::string& host_id)> is_alive;
  std::function<void(std::string_view step)> before_step;  // for tests that stop there
};

// What is told of a running guest beside its records.
struct RunningGuest {
  std::vector<std::string> addresses;
  std::uint64_t uptime_s = 0;
  bool has_agent = false;
};

// One thing at a time is done with a guest: what comes meanwhile is refused as busy, with who and since when.
// Calls block for as long as the hypervisor does. Threads: any, at the same time.
class GuestControl {
 public:
  // Opens the hypervisor, and then makes records and hypervisor agree: what runs by the records is started again where
  // the hypervisor forgets (test mode), and what it tells is stored; deletions are finished. A hypervisor that cannot
  // be reached is no error: it is tried again, and calls are refused with 949 meanwhile.
  // Errors: kInvalid, kDenied and kUnsupported of the hypervisor's options; what the store says.
  static Result<std::unique_ptr<GuestControl>> Start(GuestControlOptions options);
  // Guests run on. No call may be under way.
  virtual ~GuestControl() = default;

  // The guest's record must name this host (912). Answers when the guest runs. Refusals: those of Rate, 910, 915, 912,
  // 403, 901.
  virtual Refused PowerOn(const std::string& guest_id, const Requester& requester) = 0;
  // Answers when the guest has been asked; it is asked again and again until it is off, or shut_down_wait is over.
  // Refusals: 911, 915, 403, 901, 949; the same for Reboot.
  virtual Refused ShutDown(const std::string& guest_id, const Requester& requester) = 0;
  // Goes past whatever else is being done with the guest: a shut-down or a start that is under way ends. Refusals: 911,
  // 403, 901, 915 (the system cannot end the guest's process now), 949.
  virtual Refused PowerOff(const std::string& guest_id, const Requester& requester) = 0;
  virtual Refused Reboot(const std::string& guest_id, const Requester& requester) = 0;
  // For high availability, which must know that the guest does not run here: goes past whatever is being done with it,
  // whoever the record names, and does nothing when it does not run. A start that is under way is called off, which
  // has come true when this answers. Refusals: 901, 949.
  virtual Refused Fence(const std::string& guest_id) = 0;

  // Ends the machines of the guests that were taken from this host while it was gone, and removes their saved memory,
  // whatever is being done with them. False: some are left, for instance since the hypervisor cannot be reached.
  virtual bool SettleFenced() = 0;

  // Removes the saved memory of a guest, which is off then. Refusals: 911 (it is not saved), 915, 403, 901, 949.
  virtual Refused DiscardSaved(const std::string& guest_id, const Requester& requester) = 0;
  // Gives the guest back to whoever uses libvirt without this system: its definition stays, as the records say and
  // without this system's mark; its records go, and its files stay. Refusals: 910, 915, 912, 403, 901, 949.
  virtual Refused Release(const std::string& guest_id, const Requester& requester) = 0;

  // See Deletion::Delete.
  virtual Refused Delete(const std::string& guest_id, const Requester& requester) = 0;
  // See Edits::Edit. What a guest that runs cannot take at once counts from its next start, and is in the record's
  // "pending" until then.
  virtual Refused Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) = 0;
  // Makes `host_id` the guest's host. Refusals: 403 (no such guest or host), 910 (a host has it), 915, 901.
  virtual Refused SetHost(const std::string& guest_id, const std::string& host_id) = 0;

  // Whether PowerOn would be refused now; a guest of another host is rated as if it were this one's. Errors: those of
  // ReadGuest.
  virtual Result<Rating> RateGuest(const std::string& guest_id) = 0;
  // Not set: the guest does not run here, or the hypervisor cannot be asked.
  virtual std::optional<RunningGuest> Running(const std::string& guest_id) = 0;

  // Whether the hypervisor can be reached, and its version as three numbers ("7.2.19", "" when it is not known or there
  // is none), both as they were found last: the answer waits for nothing.
  virtual bool IsControllable() const { return true; }
  virtual std::string HypervisorVersion() const { return ""; }

  // No further events are taken, and nothing is begun: calls are refused with 949. Guests run on. Calls under way end
  // as they may. False: something of this object's own still hangs by then, and its destructor would wait for it.
  virtual bool Stop(std::chrono::milliseconds patience) = 0;
};

}  // namespace vexa::guests
