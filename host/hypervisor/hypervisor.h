// Runs guests, on libvirt.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/domain_xml/domain_build.h"
#include "host/domain_xml/domain_interfaces.h"
#include "host/hypervisor/outcome.h"

namespace vexa::hypervisor {

enum class GuestState {
  kOff,
  kRunning,
  kPaused,
  kShuttingDown,  // its system has ended, its machine not yet
  kSaved,         // off, with its memory in a file of libvirt's: starting it restores it
  kCrashed,       // ended by no will of its own; it can be started as one that is off
  kGone,          // undefined
};

// As a word for logs: "off", "running", …
std::string_view GuestStateName(GuestState state);

struct GuestEvent {
  std::string id;  // UUID
  GuestState state = GuestState::kOff;
};

struct KnownGuest {
  std::string id;  // UUID
  std::string name;
  GuestState state = GuestState::kOff;
};

// Who made a guest's definition.
enum class Owner {
  kUser,      // somebody else: it has no mark of this system
  kHost,      // this system, for one run of a guest
  kImported,  // this system, from the definition that a user had before: it stays while the guest is off
};

// What libvirt has of a guest, whether it runs or not.
struct Definition {
  GuestState state = GuestState::kOff;
  std::string name;
  Owner owner = Owner::kUser;
  bool is_persistent = true;  // false: libvirt forgets the guest when it is off
  std::string nvram;          // the file with its UEFI variables; "" without one
};

// What goes with a definition. The files of disks and UEFI variables never do.
enum class UndefineScope {
  kDefinition,  // nothing else: a guest with a saved memory image, snapshots or checkpoints keeps its definition
  kEverything,  // its saved memory, the records of its snapshots and checkpoints, the state of its TPM
};

struct Node {
  std::string cpu_model;
  unsigned cpus = 0;  // logical ones, as the scheduler counts
  unsigned cores = 0;
  unsigned threads_per_core = 0;
  unsigned mhz = 0;  // 0 when libvirt does not know
  std::uint64_t memory_mib = 0;
};

// How long to wait for a guest that was asked to shut down. A press of the power button that comes before the guest's
// system listens is lost, so it is pressed again and again.
struct ShutDownPatience {
  std::chrono::milliseconds wait{0};  // 0: press once, wait for nothing
  std::chrono::milliseconds press_again{5000};
};

enum class MemoryCheck {
  kByMode,  // not in test mode, whose guests take no memory
  kAlways,
};

// What Open does when libvirt cannot be reached at present: its socket is not there, or nobody answers.
enum class OpenLater {
  kNever,            // it fails
  kWhenUnreachable,  // it succeeds without a connection, which is opened in the background as one that was lost
};

struct HypervisorOptions {
  // "test": libvirt's in-process test driver. It needs no rights and runs nothing: guests start with any memory, disks
  // and networks. What it knows ends with its connection, so defined and running guests are to be restored.
  // "embed": the QEMU driver in this process, with its state below `root`. Guests outlive the process; the next one
  // that opens the same root adopts them. One root a process; not for root itself unless there is a user libvirt-qemu.
  // Anything else: a libvirt URI.
  std::string mode = "test";
  std::string root;  // an absolute path; of embed only

  // Called on a thread of the hypervisor's own, one at a time and in order, from before Open returns: may take long,
  // may call the hypervisor, may not destroy it.
  std::function<void(const GuestEvent&)> on_event;
  // The connection was lost and is there again: events may be missing, and in test mode all guests are. Also called
  // when the first one comes later than Open.
  std::function<void()> on_reopened;

  // The wait before the first try to open a lost connection again; it doubles up to the last.
  std::chrono::milliseconds first_retry{200};
  std::chrono::milliseconds last_retry{30'000};
  OpenLater open_later = OpenLater::kNever;
  MemoryCheck memory_check = MemoryCheck::kByMode;
};

// Ids are UUIDs of the form 8-4-4-4-12. All calls block for as long as libvirt does, seconds sometimes: make them on
// worker threads. Besides the failures named: kInvalid (no UUID), kNoSuchGuest, kBusy, kDenied, kDisconnected, kFailed.
// A failed call leaves the guest as it was.
// Threads: any, at the same time, on the same guest too.
class Hypervisor {
 public:
  // Opens the connection; a lost one is opened again in the background for as long as the object lives. Starts
  // libvirt's event loop, once in a process, and silences libvirt's own printing of errors: nothing else in the process
  // may have opened a connection before. Failures: kInvalid (options), kDenied (embed as root), kUnsupported (no such
  // driver), kDisconnected (not with OpenLater::kWhenUnreachable).
  static Outcome<std::unique_ptr<Hypervisor>> Open(HypervisorOptions options);

  // No callback runs afterwards.
  virtual ~Hypervisor() = default;

  // What <domain type='…'> is to say here: "test", "kvm", or "qemu" where KVM does not work. A libvirt elsewhere is
  // asked once it is connected; before the first connection the answer is what works everywhere, "qemu", so that who
  // has asked by then asks again in on_reopened.
  virtual std::string DomainType() const = 0;

  // Whether guests may be given processor shares: it needs cgroups, which a driver without rights does not have.
  virtual CpuShares ProcessorShares() const = 0;

  // Adds the guest, or replaces what it will be at its next start. Gives its UUID. Failures: kInvalid, kExists.
  virtual Outcome<std::string> Define(const std::string& xml) = 0;
  // Failures: kAlreadyRunning, kHasState (kDefinition, and there is more than the definition).
  virtual Outcome<void> Undefine(const std::string& id, UndefineScope scope) = 0;
  // Removes the saved memory of a guest that is off. Not an error: there is none.
  virtual Outcome<void> DiscardSaved(const std::string& id) = 0;

  virtual Outcome<Definition> DefinitionOf(const std::string& id) = 0;
  // The XML of what the guest will be at its next start.
  virtual Outcome<std::string> XmlOf(const std::string& id) = 0;
  // Whether libvirt starts the guest by itself when it starts.
  virtual Outcome<bool> IsAutostarted(const std::string& id) = 0;
  virtual Outcome<void> SetAutostart(const std::string& id, bool autostart) = 0;

  // Failures: kAlreadyRunning, kNoMemory, kCpuIncompatible, kNetworkMissing, kBridgeMissing, kDiskMissing.
  virtual Outcome<void> Start(const std::string& id) = 0;
  // Asks the guest's agent where there is one, else presses the power button. Failures: kNotRunning, kStillRunning.
  virtual Outcome<void> ShutDown(const std::string& id, const ShutDownPatience& patience) = 0;
  // Ends the guest whatever else is being done with it: a start that hangs is ended with its QEMU. Failures:
  // kNotRunning, kBusy (the system cannot end the guest's process now, for instance since its storage does not answer).
  virtual Outcome<void> PowerOff(const std::string& id) = 0;
  virtual Outcome<void> Reboot(const std::string& id) = 0;

  virtual Outcome<GuestState> StateOf(const std::string& id) = 0;
  // Whether the guest's machine has stopped since its storage gave an error or had no room. False: it runs, is off, or
  // somebody else has paused it.
  virtual Outcome<bool> HasStoppedForStorage(const std::string& id) = 0;
  // All guests, by id.
  virtual Outcome<std::vector<KnownGuest>> List() = 0;

  // The addresses of a running guest: as its agent tells, else those that libvirt's networks gave it; without those of
  // loopback devices and without link-local ones. Empty when nobody knows. Failures: kNotRunning.
  virtual Outcome<std::vector<std::string>> AddressesOf(const std::string& id) = 0;
  // Whether the agent of a running guest is connected. Failures: kNotRunning.
  virtual Outcome<bool> HasAgent(const std::string& id) = 0;

  // What the interfaces of a running guest are plugged into. A network of libvirt's that leads to a bridge or device of
  // the host is shown as that. Failures: kNotRunning.
  virtual Outcome<std::vector<GuestInterface>> InterfacesOf(const std::string& id) = 0;

  // The names of the active networks that libvirt runs, in order; none where the driver has no networks.
  virtual Outcome<std::vector<std::string>> Networks() = 0;

  // The bytes that guests could get: free ones, buffers and caches.
  virtual Outcome<std::uint64_t> FreeMemory() = 0;
  virtual Outcome<Node> NodeFigures() = 0;
  // Of what runs the guests, as three numbers: "7.2.19".
  virtual Outcome<std::string> Version() = 0;

  virtual bool IsConnected() const = 0;
  // Closes the connection and has it opened again, as when it was lost. Returns at once.
  virtual void Reconnect() = 0;
};

}  // namespace vexa::hypervisor
