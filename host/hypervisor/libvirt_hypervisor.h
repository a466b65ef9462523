// The hypervisor on a libvirt connection. For host/hypervisor/*.cpp only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "host/hypervisor/driver_uri.h"
#include "host/hypervisor/libvirt_connection.h"
#include "host/hypervisor/libvirt_errors.h"

namespace vexa::hypervisor {

// Serialises starts and stops per guest: libvirt's monitors corrupt memory when a guest is powered off while it is
// being started.
// Threads: any, at the same time.
class Turns {
 public:
  class Turn {
   public:
    Turn(Turns& turns, std::string id);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    friend class Turns;
    struct Taken {};
    Turn(Turns& turns, std::string id, Taken) : turns_(turns), id_(std::move(id)) {}

    Turns& turns_;
    const std::string id_;
  };

  // Null: the other operation has not ended by then.
  std::unique_ptr<Turn> TryTake(const std::string& id, std::chrono::milliseconds patience);

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<std::string> taken_;
};

class LibvirtHypervisor final : public Hypervisor {
 public:
  LibvirtHypervisor(Target target, MemoryCheck memory_check, std::unique_ptr<Link> link);

  std::string DomainType() const override;
  CpuShares ProcessorShares() const override;
  Outcome<std::string> Define(const std::string& xml) override;
  Outcome<void> Undefine(const std::string& id, UndefineScope scope) override;
  Outcome<void> DiscardSaved(const std::string& id) override;
  Outcome<Definition> DefinitionOf(const std::string& id) override;
  Outcome<std::string> XmlOf(const std::string& id) override;
  Outcome<bool> IsAutostarted(const std::string& id) override;
  Outcome<void> SetAutostart(const std::string& id, bool autostart) override;
  Outcome<void> Start(const std::string& id) override;
  Outcome<void> ShutDown(const std::string& id) override;
  Outcome<void> PowerOff(const std::string& id) override;
  Outcome<void> Reboot(const std::string& id) override;
  Outcome<GuestState> StateOf(const std::string& id) override;
  Outcome<bool> HasStoppedForStorage(const std::string& id) override;
  Outcome<std::vector<KnownGuest>> List() override;
  Outcome<std::vector<std::string>> AddressesOf(const std::string& id) override;
  Outcome<bool> HasAgent(const std::string& id) override;
  Outcome<std::vector<GuestInterface>> InterfacesOf(const std::string& id) override;
  Outcome<std::vector<std::string>> Networks() override;
  Outcome<std::uint64_t> FreeMemory() override;
  Outcome<Node> NodeFigures() override;
  Outcome<std::string> Version() override;
  bool IsConnected() const override { return link_->IsConnected(); }
  void Reconnect() override { link_->Lose(); }

 private:
  // A guest and the connection on which it was found.
  struct Found {
    std::shared_ptr<virConnect> connection;
    DomainHandle domain;
  };

  Outcome<std::shared_ptr<virConnect>> Connection() const;
  Outcome<Found> Find(const std::string& id) const;

  // The failure of this thread's last libvirt call on `connection`. A connection that has ended is dropped.
  Failure Failed(const std::shared_ptr<virConnect>& connection, Operation operation, std::string message) const;
  // The same for a call on a guest. Where libvirt's error does not show whether the guest runs, libvirt is asked.
  Failure FailedOn(const Found& guest, Operation operation, std::string message) const;

  Outcome<void> CheckMemory(const Found& guest) const;
  // Whether the guest has more than its definition: saved memory, snapshots, checkpoints.
  bool HasState(const Found& guest) const;
  Outcome<std::uint64_t> FreeMemoryOf(const std::shared_ptr<virConnect>& connection) const;

  const Target target_;
  const MemoryCheck memory_check_;
  Turns turns_;
  mutable std::mutex type_mutex_;
  mutable std::string domain_type_;  // empty until a connection has reported it
  // Destroyed first: a callback that is still running may use the other members.
  const std::unique_ptr<Link> link_;
};

// The current state of a domain according to libvirt. Empty: unknown, see libvirt's last error.
std::optional<GuestState> StateOfDomain(virDomainPtr domain);

// Whether the guest's machine exists: it is running, paused or shutting down.
bool IsActive(GuestState state);

}  // namespace vexa::hypervisor
