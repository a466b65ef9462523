// Operations on the guests of this host: power, edits, deletion. Keeps records and hypervisor consistent.
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
#include "host/domain_xml/domain_differences.h"
#include "host/guests/import/guest_import.h"
#include "host/guests/jobs/requester.h"
#include "host/guests/resources.h"
#include "host/hypervisor/hypervisor.h"
#include "host/storage/storage_condition.h"
#include "host/store/store.h"

namespace vexa::guests {

struct GuestControlOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;
  hypervisor::HypervisorOptions hypervisor;  // GuestControl sets its callbacks
  std::vector<std::string> image_roots;      // see deletion.h
  unsigned vcpus_per_cpu = 8;
  storage::SpaceLimits space;  // of repositories; see storage_condition.h
  // After a shut-down has been requested, the request is repeated at this interval until the guest is off, but no
  // longer than shut_down_wait.
  std::chrono::milliseconds shut_down_wait = std::chrono::minutes(5);
  std::chrono::milliseconds press_interval = std::chrono::seconds(5);
  // How often failed work is retried, and running guests are reconciled.
  std::chrono::milliseconds maintenance_interval = std::chrono::seconds(5);
  // The pause between two guests that are started after a boot, and how long one that cannot be started waits at first.
  std::chrono::milliseconds autorun_interval = std::chrono::seconds(2);
  std::chrono::milliseconds autorun_retry_wait = std::chrono::seconds(10);
  // How long a fence waits for the end of a start that it has cancelled; its caller waits for 30 seconds.
  std::chrono::milliseconds fence_wait = std::chrono::seconds(20);
  // How long an edit waits for another one of the same guest; its caller waits for 30 seconds or more.
  std::chrono::milliseconds edit_wait = std::chrono::seconds(10);
  // How long a running guest may take to give devices back, all of one edit together.
  std::chrono::milliseconds release_wait = std::chrono::seconds(10);
  // Whether the host has a network or bridge. Not set: in test mode it has all, otherwise libvirt and the kernel
  // decide.
  std::function<bool(const std::string& name)> has_network;
  // Where QEMU's keyboard layouts are; empty: the usual folders, unless the hypervisor is on another machine, or none.
  std::vector<std::string> keymap_folders;
  // For tests: a folder whose "sys" is used in place of "/sys" for network cards, also in test mode.
  std::string system_root;
  // Whether this host keeps the networks of the cluster (host/networks/network_keeper.h). Tests of guests do without.
  enum class Networks { kNotKept, kKept };
  Networks networks = Networks::kNotKept;
  std::chrono::milliseconds networks_interval = std::chrono::seconds(10);  // between looks without a change of records
  // Commits of this host take effect only while it holds this claim. Null: always.
  std::shared_ptr<cluster::HostClaim> claim;
  // Whether another host of the cluster is alive; see deletion.h. Not set: none is.
  std::function<bool(const std::string& host_id)> is_alive;
  std::function<void(std::string_view step)> before_step;  // for tests that stop there
};

// A guest's console: what somebody who stands before a machine sees and touches.
enum class ConsoleType {
  kScreen,  // the screen, keyboard and pointer, by the protocol of VNC (RFC 6143)
  kSerial,  // the first serial line, as bytes
};

// What is known about a running guest in addition to its records.
struct RunningGuest {
  std::vector<std::string> addresses;
  std::uint64_t uptime_s = 0;
  bool has_agent = false;
};

// Only one operation at a time runs on a guest. Others are refused as busy (915); the reason names the user and the
// time. Calls block for as long as the hypervisor does. Threads: any, at the same time.
class GuestControl {
 public:
  // Opens the hypervisor, and then makes records and hypervisor consistent: guests that run according to their records
  // are started again where the hypervisor forgets them (test mode), the states that it reports are stored, and
  // deletions are finished. After a boot of the machine (see the claim), guests are then started as their "autorun"
  // says; see autorun.h. An unreachable hypervisor is not an error: the connection is retried, and calls are refused
  // with 949 meanwhile.
  // Errors: kInvalid, kDenied and kUnsupported of the hypervisor's options; those of the store.
  static Result<std::unique_ptr<GuestControl>> Start(GuestControlOptions options);
  // Guests keep running. No call may be in progress.
  virtual ~GuestControl() = default;

  // The guest's record must name this host (912). Returns when the guest runs. Refusals: those of Rate, 910, 915, 912,
  // 403, 901.
  virtual Result<void, Refusal> PowerOn(const std::string& guest_id, const Requester& requester) = 0;
  // Returns when the shut-down has been requested; the request is then repeated until the guest is off, or
  // shut_down_wait is over.
  // Refusals: 911, 915, 403, 901, 949; the same for Reboot.
  virtual Result<void, Refusal> ShutDown(const std::string& guest_id, const Requester& requester) = 0;
  // Overrides any other operation on the guest: a shut-down or a start in progress ends. Refusals: 911, 403, 901, 915
  // (the system cannot end the guest's process now), 949.
  virtual Result<void, Refusal> PowerOff(const std::string& guest_id, const Requester& requester) = 0;
  virtual Result<void, Refusal> Reboot(const std::string& guest_id, const Requester& requester) = 0;
  // Pauses a guest that runs: it executes nothing until Resume, and still counts as running for everything else. A
  // shut-down in progress is given up. A guest that is paused already is not an error. Refusals: 911, 912, 915 (also
  // while it is being restored), 403, 901, 949; the same for Save.
  virtual Result<void, Refusal> Suspend(const std::string& guest_id, const Requester& requester) = 0;
  // Lets a paused guest run, also one that libvirt paused. One that runs is not an error. A guest that stayed paused
  // because its restore could not be finished is resumed only with the files that were checked. Refusals: as above.
  virtual Result<void, Refusal> Resume(const std::string& guest_id, const Requester& requester) = 0;
  // Saves the memory of a guest to a file of libvirt, and ends the guest; PowerOn and Restore continue it. When it
  // cannot be saved, for instance because of a device, it is 901, and the guest goes on.
  virtual Result<void, Refusal> Save(const std::string& guest_id, const Requester& requester) = 0;
  // PowerOn of a guest with saved memory. Refusals: those of PowerOn, and 911 without saved memory.
  virtual Result<void, Refusal> Restore(const std::string& guest_id, const Requester& requester) = 0;
  // For high availability, which must be sure that the guest does not run here: overrides any other operation on it,
  // whichever host the record names, and does nothing when it does not run. A start in progress is cancelled, and has
  // ended when this returns. Refusals: 901, 949.
  virtual Result<void, Refusal> Fence(const std::string& guest_id) = 0;

  // Stops the domains of the guests that were taken from this host while it was gone, and removes their saved memory,
  // overriding any other operation on them. False: some are left, for instance because the hypervisor cannot be
  // reached.
  virtual bool StopFencedGuests() = 0;

  // Removes the saved memory of a guest, which is then off. Refusals: 911 (it is not saved), 915, 403, 901, 949.
  virtual Result<void, Refusal> DiscardSaved(const std::string& guest_id, const Requester& requester) = 0;
  // Hands the guest back to its owner, who uses libvirt without this system: its definition stays, updated from the
  // records and without this system's ownership tag; its records are deleted, and its files stay. Refusals: 910, 915,
  // 912, 403, 901, 949.
  virtual Result<void, Refusal> Release(const std::string& guest_id, const Requester& requester) = 0;

  // See Deletion::Delete.
  virtual Result<void, Refusal> Delete(const std::string& guest_id, const Requester& requester) = 0;
  // See Creations::Create; the guest gets a new id.
  virtual Result<Json::Value, Refusal> Create(const Json::Value& parameters, const Requester& requester) = 0;
  // See Creations::Import. A dry run only checks.
  virtual Result<void, Refusal> Import(const ImportRequest& request, const GuestImport::Options& importing,
                                       const Requester& requester, ImportedGuest& imported) = 0;
  // Ends copies of images, and waits for other requests, with 949: they would use up the time of a stop.
  virtual void BeginStop() = 0;
  // See Edits::Edit. Then changes the running guest likewise, as far as it can be changed; the rest takes effect at its
  // next start and is in Pending() until then. The parameter "apply" (guest_setting.h) decides otherwise.
  virtual Result<void, Refusal> Edit(const std::string& guest_id, const Json::Value& edit,
                                     const Requester& requester) = 0;
  // What the guest will have otherwise at its next start than it has now. Empty for a guest that has no machine here.
  // Refusals: 403, 901 (the definition cannot be read or made), 949.
  virtual Result<std::vector<domain_xml::Difference>, Refusal> Pending(const std::string& guest_id) = 0;
  // Changes a running guest as its records say, as far as it can be changed, except for what waits in `except`. What
  // still waits is in Pending(), and the reasons are in the system log. Refusals: 911, 915, 403, 901, 949.
  virtual Result<void, Refusal> Apply(const std::string& guest_id, const std::vector<domain_xml::Difference>& except,
                                      hypervisor::Eject eject, const Requester& requester) = 0;
  // Makes `host_id` the guest's host. Refusals: 403 (no such guest or host), 910 (a host holds the guest), 915, 901.
  virtual Result<void, Refusal> SetHost(const std::string& guest_id, const std::string& host_id) = 0;

  // Whether PowerOn would be refused now; a guest of another host is rated as if it belonged to this one. Errors: those
  // of ReadGuest.
  virtual Result<Rating> RateGuest(const std::string& guest_id) = 0;
  // Not set: the guest does not run here, or the hypervisor cannot be reached.
  virtual std::optional<RunningGuest> FindRunningGuest(const std::string& guest_id) = 0;

  // A connection to the console of a guest that runs here: a stream socket. Any number of viewers can have a screen,
  // one a serial line. Refusals: 911, 915 (somebody has the serial line), 403, 901 (it has no such console), 949.
  virtual Result<Descriptor, Refusal> OpenConsole(const std::string& guest_id, ConsoleType type) = 0;
  // A picture of the screen of a guest that runs here, as PNG. Refusals: 911, 915 (too many pictures are being taken),
  // 403, 901, 949.
  virtual Result<std::string, Refusal> Screenshot(const std::string& guest_id) = 0;
  // Types a text on the keyboard of a guest that runs here, or the beginning of one with more than kTypedPerCall
  // characters. Returns how many of them were typed, at least one. Refusals: 401 (a character has no key;
  // KeyPressesOf), 911, 403, 901, 949.
  virtual Result<std::size_t, Refusal> Type(const std::string& guest_id, const std::string& text) = 0;

  // Whether the hypervisor can be reached, and its version as three numbers ("7.2.19", or
  // "" when unknown), both as last known: the call never waits.
  virtual bool IsHypervisorReachable() const { return true; }
  virtual std::string HypervisorVersion() const { return ""; }

  // Ignores later events and starts nothing more: calls are refused with 949. Guests keep running, and calls in
  // progress end in their own time. False: one of this object's own threads still hangs by then, and its destructor
  // would wait for it.
  virtual bool Stop(std::chrono::milliseconds timeout) = 0;
};

}  // namespace vexa::guests
