// Runs guests, on libvirt.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/us_keyboard.h"
#include "host/domain_xml/domain_build.h"
#include "host/domain_xml/domain_interfaces.h"
#include "host/hypervisor/failure.h"
#include "host/hypervisor/held_file.h"

namespace vexa::hypervisor {

enum class GuestState {
  kOff,
  kRunning,
  kPaused,
  kShuttingDown,  // its operating system has halted, its VM process still exists
  kSaved,         // off, with its memory in a file of libvirt; starting it restores the memory
  kCrashed,       // ended unexpectedly; it can be started like one that is off
  kGone,          // undefined
};

// The name for logs: "off", "running", …
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
  kUser,      // a user: it has no ownership tag of this system
  kHost,      // this system, for one run of the guest
  kImported,  // this system, from the definition that a user had before: it stays defined while the guest is off
};

// What libvirt knows about a guest, whether it runs or not.
struct Definition {
  GuestState state = GuestState::kOff;
  std::string name;
  Owner owner = Owner::kUser;
  bool is_persistent = true;  // false: libvirt forgets the guest when it is off
  std::string nvram;          // the file with its UEFI variables; "" without one
};

// A network that libvirt knows.
struct KnownNetwork {
  std::string name;
  std::string xml;  // its definition; that of the running network when it has none
  bool is_active = false;
  bool is_persistent = false;
  bool is_autostarted = false;
  bool is_in_use = false;  // interfaces of running guests are in it, as far as libvirt knows
};

// What is removed together with a definition. The files of disks and UEFI variables never are.
enum class UndefineScope {
  kDefinition,  // nothing else: a guest with a saved memory image, snapshots or checkpoints keeps its definition
  kEverything,  // saved memory, the metadata of snapshots and checkpoints, the state of the TPM
};

// Whether a drive whose tray the guest has locked is opened nevertheless.
enum class Eject { kIfUnlocked, kForced };

// The hardware of the machine that runs the guests.
struct NodeInfo {
  std::string cpu_model;
  unsigned cpus = 0;  // logical processors, as the scheduler counts them
  unsigned cores = 0;
  unsigned threads_per_core = 0;
  unsigned mhz = 0;  // 0 when libvirt does not know it
  std::uint64_t memory_mib = 0;
};

// The processors of the machine that the threads of a guest may use.
struct CpuAffinity {
  std::vector<unsigned> pinned;  // of the virtual CPUs 0, 1, …: one each
  domain_xml::CpuSet vcpus;      // of all other virtual CPUs
  domain_xml::CpuSet emulator;   // of all other threads
};

enum class MemoryCheck {
  kByMode,  // not in test mode, where guests take no memory
  kAlways,
};

// What Open does when libvirt cannot be reached now: its socket does not exist, or it does not respond.
enum class IfUnreachable {
  kFail,
  kConnectInBackground,  // Open succeeds, and the connection is opened in the background like a lost one
};

struct HypervisorOptions {
  // "test": libvirt's in-process test driver. It needs no rights and runs nothing: guests start with any memory, disks
  // and networks. Its state ends with its connection, so the caller must restore defined and running guests.
  // "embed": the QEMU driver in this process, with its state below `root`. Guests outlive the process; the next process
  // that opens the same root adopts them. One root per process. The user root can use it only if there is a user
  // libvirt-qemu.
  // Anything else: a libvirt URI.
  std::string mode = "test";
  std::string root;  // an absolute path; for embed only

  // Called on a thread of the hypervisor, one at a time and in order, possibly before Open returns. It may take long
  // and may call the hypervisor, but must not destroy it.
  std::function<void(const GuestEvent&)> on_event;
  // The connection was lost and is back: events may be missing, and in test mode all guests are gone. Also called when
  // the first connection comes later than Open.
  std::function<void()> on_reopened;

  // The wait before the first attempt to reopen a lost connection. It doubles with each attempt, up to the maximum.
  std::chrono::milliseconds initial_retry_wait{200};
  std::chrono::milliseconds max_retry_wait{30'000};
  IfUnreachable if_unreachable = IfUnreachable::kFail;
  MemoryCheck memory_check = MemoryCheck::kByMode;
};

// Ids are UUIDs of the form 8-4-4-4-12. All calls block for as long as libvirt does, sometimes seconds: make them on
// worker threads. Besides the failures listed, every call can fail with: kInvalid (not a UUID), kNoSuchGuest, kBusy,
// kDenied, kDisconnected, kFailed. A failed call leaves the guest unchanged.
// Threads: any, at the same time, also for the same guest.
class Hypervisor {
 public:
  // Opens the connection. A lost connection is reopened in the background for as long as the object lives. Starts
  // libvirt's event loop, once per process, and silences libvirt's own printing of errors: no other part of the process
  // may have opened a connection before. Failures: kInvalid (options), kDenied (embed as root), kUnsupported (no such
  // driver), kDisconnected (not with IfUnreachable::kConnectInBackground).
  static Result<std::unique_ptr<Hypervisor>, Failure> Open(HypervisorOptions options);

  // No callback runs afterwards.
  virtual ~Hypervisor() = default;

  // The value for <domain type='…'> here: "test", "kvm", or "qemu" where KVM does not work. A remote libvirt is asked
  // once it is connected. Before the first connection the result is "qemu", which works everywhere; a caller that used
  // it this early must call again in on_reopened.
  virtual std::string DomainType() const = 0;

  // Whether guests may have CPU shares. They need cgroups, which an unprivileged driver does not have. Whether a
  // privileged one has that for processors shows when a start fails: kNoController after that, until libvirt is
  // connected again. The caller defines the guest again, without shares.
  virtual domain_xml::CpuShares CpuSharesSupport() const = 0;
  // The largest weight that a guest can have: 262144, or 10000 with version 2 of cgroups; 0: guests cannot have
  // weights.
  virtual std::int64_t MaxCpuWeight() const = 0;
  // The weight that a running guest has. Failures: kNotRunning, kUnsupported (it cannot have one, for instance because
  // the machine of libvirt has no cgroups).
  virtual Result<std::int64_t, Failure> CpuWeightOf(const std::string& id) = 0;
  // Moves the threads of a running guest to the processors. Failures: kNotRunning, kInvalid (a processor that the
  // machine does not have), kUnsupported.
  virtual Result<void, Failure> SetAffinity(const std::string& id, const CpuAffinity& affinity) = 0;

  // Adds the guest, or replaces its configuration for the next start. Returns its UUID. Failures: kInvalid, kExists.
  virtual Result<std::string, Failure> Define(const std::string& xml) = 0;
  // Failures: kAlreadyRunning, kHasState (kDefinition, and the guest has more than its definition).
  virtual Result<void, Failure> Undefine(const std::string& id, UndefineScope scope) = 0;
  // Removes the saved memory of a guest that is off. Having none is not an error.
  virtual Result<void, Failure> DiscardSaved(const std::string& id) = 0;
  // Removes saved memory of a guest that is active. It is outdated: a save or a restore was interrupted, and the guest
  // went on. Returns false if the guest has no saved memory, or may just be being saved or restored.
  virtual Result<bool, Failure> DiscardOutdatedSaved(const std::string& id) = 0;

  virtual Result<Definition, Failure> DefinitionOf(const std::string& id) = 0;
  // The XML of the guest's configuration for its next start.
  virtual Result<std::string, Failure> XmlOf(const std::string& id) = 0;
  // The XML that was saved with the guest's memory: that of the guest as it ran. Failures: kUnsupported (the driver
  // keeps none).
  virtual Result<std::string, Failure> SavedXmlOf(const std::string& id) = 0;
  // The XML of the guest as it runs, with what libvirt has chosen for this run. Failures: kNotRunning.
  virtual Result<std::string, Failure> RunningXmlOf(const std::string& id) = 0;
  // Whether libvirt starts the guest when libvirt starts.
  virtual Result<bool, Failure> IsAutostarted(const std::string& id) = 0;
  virtual Result<void, Failure> SetAutostart(const std::string& id, bool autostart) = 0;

  // Failures: kAlreadyRunning, kNoMemory, kCpuIncompatible, kNetworkMissing, kBridgeMissing, kDiskMissing, kBusy
  // (PowerOff ended a start that took too long).
  virtual Result<void, Failure> Start(const std::string& id) = 0;
  // Starts a guest with saved memory, which is used up, and leaves it paused: not a single instruction of the guest has
  // run. Drivers that cannot start paused let it run. Failures: those of Start.
  virtual Result<void, Failure> Restore(const std::string& id) = 0;
  // Pauses a running guest: it keeps its memory, and executes nothing. One that is paused already is not an error.
  // Failures: kNotRunning.
  virtual Result<void, Failure> Suspend(const std::string& id) = 0;
  // Lets a paused guest run. One that runs already is not an error. Failures: kNotRunning.
  virtual Result<void, Failure> Resume(const std::string& id) = 0;
  // Saves the memory of an active guest in a file of libvirt, and ends the guest. A start of the guest restores it, and
  // it runs then even if it is paused now. Failures: kNotRunning, kFailed (also for a guest with a device that cannot
  // be saved).
  virtual Result<void, Failure> Save(const std::string& id) = 0;
  // Asks the guest's agent if there is one, otherwise presses the power button once. Does not wait for the guest to go
  // off, and a press before the guest's operating system listens is lost. Failures: kNotRunning.
  virtual Result<void, Failure> ShutDown(const std::string& id) = 0;
  // Ends the guest regardless of other operations on it: a start that hangs is ended together with its QEMU process.
  // Failures: kNotRunning, kBusy (the system cannot end the guest's process now, for instance because its storage does
  // not respond).
  virtual Result<void, Failure> PowerOff(const std::string& id) = 0;
  virtual Result<void, Failure> Reboot(const std::string& id) = 0;

  virtual Result<GuestState, Failure> StateOf(const std::string& id) = 0;
  // Whether libvirt paused the guest because its storage returned an error or was full. False: it runs, is off, or was
  // paused for another reason.
  virtual Result<bool, Failure> IsPausedOnIoError(const std::string& id) = 0;
  // All guests, by id.
  virtual Result<std::vector<KnownGuest>, Failure> List() = 0;

  // The files, devices and sockets that the guest's process has open, except its standard streams. There can be more
  // than one process that looks like the guest's, for example that of another libvirt; only those of the user whom
  // libvirt runs guests as count. Failures: kNotRunning, kUnsupported (test mode; the process is not on this machine,
  // or not QEMU), kDenied (this process may not examine it).
  virtual Result<std::vector<std::vector<HeldFile>>, Failure> FilesHeldBy(const std::string& id) = 0;

  // The addresses of a running guest, as its agent reports them or else as libvirt's networks assigned them, without
  // loopback and link-local addresses. Empty when they are unknown. Failures: kNotRunning.
  virtual Result<std::vector<std::string>, Failure> AddressesOf(const std::string& id) = 0;
  // Whether the agent of a running guest is connected. Failures: kNotRunning.
  virtual Result<bool, Failure> HasAgent(const std::string& id) = 0;

  // A connection to the screen of a running guest, in the protocol of VNC (RFC 6143), as a stream socket. libvirt
  // passes it to QEMU, so it does not matter where the guest's screen listens, nor whether this process could reach it,
  // and a password of the screen is not asked for. Failures: kNotRunning, kUnsupported (no VNC screen, or the driver
  // has no screens).
  virtual Result<Descriptor, Failure> OpenScreen(const std::string& id) = 0;
  // A connection to the serial line of a running guest, as a stream socket. There can be one at a time. Failures:
  // kNotRunning, kBusy (somebody has it), kUnsupported.
  virtual Result<Descriptor, Failure> OpenSerial(const std::string& id) = 0;
  // A picture of the screen of a running guest, as PNG of at most kMaxPngBytes. Failures: kNotRunning, kUnsupported,
  // kInvalid (the picture cannot be read, or is too large).
  virtual Result<std::string, Failure> Screenshot(const std::string& id) = 0;
  // Presses keys of a running guest one after another; takes some 40 ms for each. Returns how many were pressed: fewer
  // than asked when one could not be. Failures, when not even the first could be: kNotRunning, kUnsupported.
  virtual Result<std::size_t, Failure> PressKeys(const std::string& id, const std::vector<KeyPress>& presses) = 0;

  // Changes of a running guest. They last until it is off: its definition for the next start stays as it is. Failures
  // of each: kNotRunning, kUnsupported and kFailed (the driver or the guest's machine cannot do it). Not more
  // processors than the definition's maximum. The guest must agree to give some up.
  virtual Result<void, Failure> SetVcpus(const std::string& id, unsigned count) = 0;
  virtual Result<void, Failure> SetCpuShares(const std::string& id, std::uint64_t shares) = 0;
  // `xml` is the element of the device in domain XML.
  virtual Result<void, Failure> AttachDevice(const std::string& id, const std::string& xml) = 0;
  // Asks the guest to release the device. It may still have the device when this returns: RunningXmlOf shows that.
  virtual Result<void, Failure> DetachDevice(const std::string& id, const std::string& xml) = 0;
  // Changes the device that `xml` describes: the medium of a drive, the network of an interface.
  virtual Result<void, Failure> UpdateDevice(const std::string& id, const std::string& xml, Eject eject) = 0;
  // `disk` is the path of its file or its target name ("vda").
  virtual Result<void, Failure> ResizeDisk(const std::string& id, const std::string& disk, std::uint64_t bytes) = 0;
  // The size in bytes that the guest sees.
  virtual Result<std::uint64_t, Failure> SizeOfDisk(const std::string& id, const std::string& disk) = 0;

  // What the interfaces of a running guest are plugged into. For a libvirt network that leads to a bridge or device of
  // the host, the bridge or device is returned. Failures: kNotRunning.
  virtual Result<std::vector<domain_xml::GuestInterface>, Failure> InterfacesOf(const std::string& id) = 0;

  // The names of libvirt's networks, in order, also of inactive ones, which StartNetwork starts. Empty where the driver
  // has no networks.
  virtual Result<std::vector<std::string>, Failure> Networks() = 0;
  // All networks, by name. Failures: kUnsupported (the driver has no networks).
  virtual Result<std::vector<KnownNetwork>, Failure> KnownNetworks() = 0;
  // Defines the network, which libvirt then starts whenever it starts itself, or replaces the definition of the network
  // with the same name and UUID; an active network keeps its old one until it is started again. Failures: kInvalid,
  // kUnsupported.
  virtual Result<void, Failure> DefineNetwork(const std::string& xml) = 0;
  // Having started or stopped it already is not a failure. Failures: kNetworkMissing; for instance kFailed, when its
  // subnet is in use on this machine.
  virtual Result<void, Failure> StartNetwork(const std::string& name) = 0;
  virtual Result<void, Failure> StopNetwork(const std::string& name) = 0;
  // An active network runs until it is stopped. Failures: kNetworkMissing.
  virtual Result<void, Failure> UndefineNetwork(const std::string& name) = 0;

  // The bytes available to guests: free memory, buffers and caches.
  virtual Result<std::uint64_t, Failure> FreeMemory() = 0;
  virtual Result<NodeInfo, Failure> GetNodeInfo() = 0;
  // The version of the program that runs the guests, as three numbers: "7.2.19".
  virtual Result<std::string, Failure> Version() = 0;

  virtual bool IsConnected() const = 0;
  // Closes the connection and lets it be reopened, as if it had been lost. Returns immediately.
  virtual void Reconnect() = 0;
};

}  // namespace vexa::hypervisor
