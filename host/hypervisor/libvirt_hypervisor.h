// The hypervisor on a libvirt connection. For host/hypervisor/*.cpp only.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "host/base/mutex.h"
#include "host/hypervisor/driver_uri.h"
#include "host/hypervisor/libvirt_connection.h"
#include "host/hypervisor/libvirt_errors.h"

namespace vexa::hypervisor {

// Serialises starts and stops per guest: libvirt's monitors corrupt memory when a guest is powered off while it is
// being started.
// Threads: any, at the same time.
class GuestOperationLocks {
 public:
  class Lock {
   public:
    // Waits for the guest's lock.
    Lock(GuestOperationLocks& locks, std::string id);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    // Whether EndHolder was called while this lock was held.
    bool WasEnded() const;

   private:
    friend class GuestOperationLocks;
    // For a lock that TryLockGuest has acquired.
    struct Acquired {};
    Lock(GuestOperationLocks& locks, std::string id, Acquired) : locks_(locks), id_(std::move(id)) {}

    GuestOperationLocks& locks_;
    const std::string id_;
  };

  // Null when a single operation has held the lock for `timeout` of this call. Operations that come and go meanwhile
  // each have that long.
  std::unique_ptr<Lock> TryLockGuest(const std::string& id, std::chrono::milliseconds timeout);

  // Lets the operation that holds the lock know that it is being ended from outside.
  void EndHolder(const std::string& id);

 private:
  struct Holder {
    std::chrono::steady_clock::time_point since = std::chrono::steady_clock::now();
    bool is_ended = false;
  };

  mutable Mutex mutex_;
  ConditionVariable released_;
  std::map<std::string, Holder> holders_ VEXA_GUARDED_BY(mutex_);  // by guest
};

class LibvirtHypervisor final : public Hypervisor {
 public:
  LibvirtHypervisor(DriverTarget target, MemoryCheck memory_check, std::unique_ptr<LibvirtConnection> connection);

  std::string DomainType() const override;
  domain_xml::CpuShares CpuSharesSupport() const override;
  std::int64_t MaxCpuWeight() const override;
  Result<std::int64_t, Failure> CpuWeightOf(const std::string& id) override;
  Result<void, Failure> SetAffinity(const std::string& id, const CpuAffinity& affinity) override;
  Result<std::string, Failure> Define(const std::string& xml) override;
  Result<void, Failure> Undefine(const std::string& id, UndefineScope scope) override;
  Result<void, Failure> DiscardSaved(const std::string& id) override;
  Result<bool, Failure> DiscardOutdatedSaved(const std::string& id) override;
  Result<Definition, Failure> DefinitionOf(const std::string& id) override;
  Result<std::string, Failure> XmlOf(const std::string& id) override;
  Result<std::string, Failure> SavedXmlOf(const std::string& id) override;
  Result<std::string, Failure> RunningXmlOf(const std::string& id) override;
  Result<bool, Failure> IsAutostarted(const std::string& id) override;
  Result<void, Failure> SetAutostart(const std::string& id, bool autostart) override;
  Result<void, Failure> Start(const std::string& id) override;
  Result<void, Failure> Restore(const std::string& id) override;
  Result<void, Failure> Suspend(const std::string& id) override;
  Result<void, Failure> Resume(const std::string& id) override;
  Result<void, Failure> Save(const std::string& id) override;
  Result<void, Failure> ShutDown(const std::string& id) override;
  Result<void, Failure> PowerOff(const std::string& id) override;
  Result<void, Failure> Reboot(const std::string& id) override;
  Result<GuestState, Failure> StateOf(const std::string& id) override;
  Result<bool, Failure> IsPausedOnIoError(const std::string& id) override;
  Result<std::vector<KnownGuest>, Failure> List() override;
  Result<std::vector<std::vector<HeldFile>>, Failure> FilesHeldBy(const std::string& id) override;
  Result<std::vector<std::string>, Failure> AddressesOf(const std::string& id) override;
  Result<bool, Failure> HasAgent(const std::string& id) override;
  Result<void, Failure> SetVcpus(const std::string& id, unsigned count) override;
  Result<void, Failure> SetCpuShares(const std::string& id, std::uint64_t shares) override;
  Result<void, Failure> AttachDevice(const std::string& id, const std::string& xml) override;
  Result<void, Failure> DetachDevice(const std::string& id, const std::string& xml) override;
  Result<void, Failure> UpdateDevice(const std::string& id, const std::string& xml, Eject eject) override;
  Result<void, Failure> ResizeDisk(const std::string& id, const std::string& disk, std::uint64_t bytes) override;
  Result<std::uint64_t, Failure> SizeOfDisk(const std::string& id, const std::string& disk) override;
  Result<std::vector<domain_xml::GuestInterface>, Failure> InterfacesOf(const std::string& id) override;
  Result<Descriptor, Failure> OpenScreen(const std::string& id) override;
  Result<Descriptor, Failure> OpenSerial(const std::string& id) override;
  Result<std::string, Failure> Screenshot(const std::string& id) override;
  Result<std::size_t, Failure> PressKeys(const std::string& id, const std::vector<KeyPress>& presses) override;
  Result<std::vector<std::string>, Failure> Networks() override;
  Result<std::vector<KnownNetwork>, Failure> KnownNetworks() override;
  Result<void, Failure> DefineNetwork(const std::string& xml) override;
  Result<void, Failure> StartNetwork(const std::string& name) override;
  Result<void, Failure> StopNetwork(const std::string& name) override;
  Result<void, Failure> UndefineNetwork(const std::string& name) override;
  Result<std::uint64_t, Failure> FreeMemory() override;
  Result<NodeInfo, Failure> GetNodeInfo() override;
  Result<std::string, Failure> Version() override;
  bool IsConnected() const override { return connection_->IsConnected(); }
  void Reconnect() override { connection_->MarkLost(); }

 private:
  // A guest and the connection on which it was found.
  struct DomainOnConnection {
    std::shared_ptr<virConnect> connection;
    DomainHandle domain;
  };

  Result<std::shared_ptr<virConnect>, Failure> Connection() const;
  Result<DomainOnConnection, Failure> Find(const std::string& id) const;
  // A guest that is running. Failures: kNotRunning, with `message`.
  Result<DomainOnConnection, Failure> FindRunning(const std::string& id, const std::string& message) const;
  // The XML of the domain as it runs now, not of its next start. Failures: those of libvirt, with `message`.
  Result<StringHandle, Failure> RunningXml(const DomainOnConnection& guest, const std::string& message) const;
  // The same guest on another connection, which nothing else uses and which has no keepalive.
  Result<DomainOnConnection, Failure> OnOwnConnection(const DomainOnConnection& guest,
                                                      const std::string& message) const;

  // The failure of this thread's last libvirt call on `connection`. Drops a connection that has ended, so that it is
  // reopened.
  Failure MakeFailure(const std::shared_ptr<virConnect>& connection, Operation operation, std::string message) const;
  // The same for a call on a guest. If libvirt's error does not show whether the guest runs, queries its state.
  Failure GuestFailure(const DomainOnConnection& guest, Operation operation, std::string message) const;

  // Calls `act`, one of libvirt's functions on networks, for the network with this name.
  Result<void, Failure> ActOnNetwork(const std::string& name, const std::string& message, Operation operation,
                                     int (*act)(virNetworkPtr network)) const;
  // Calls `act`, one of libvirt's functions that change a running guest.
  Result<void, Failure> ChangeRunning(const std::string& id, const std::string& message,
                                      const std::function<int(virDomainPtr)>& act);
  // Starts the guest with `create`, which calls libvirt.
  Result<void, Failure> StartWith(const std::string& id, const std::function<int(virDomainPtr)>& create);
  Result<void, Failure> CheckMemory(const DomainOnConnection& guest) const;
  // Whether the guest has more than its definition: saved memory, snapshots, checkpoints.
  bool HasExtraState(const DomainOnConnection& guest) const;
  Result<std::uint64_t, Failure> FreeMemoryOf(const std::shared_ptr<virConnect>& connection) const;

  const DriverTarget target_;
  const MemoryCheck memory_check_;
  GuestOperationLocks guest_locks_;
  mutable Mutex type_mutex_;
  mutable std::string domain_type_ VEXA_GUARDED_BY(type_mutex_);  // empty until a connection has reported it
  mutable Mutex shares_mutex_;
  // The connection on which a start has shown that libvirt has no control group for processors.
  std::weak_ptr<virConnect> without_cpu_group_ VEXA_GUARDED_BY(shares_mutex_);
  // Destroyed first: a callback that is still running may use the other members.
  const std::unique_ptr<LibvirtConnection> connection_;
};

// The current state of a domain according to libvirt. Empty: unknown, see libvirt's last error.
std::optional<GuestState> StateOfDomain(virDomainPtr domain);

// Whether the guest has a VM process: it is running, paused or shutting down.
bool IsActive(GuestState state);

}  // namespace vexa::hypervisor
