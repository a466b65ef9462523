// Starting and stopping guests.
#include <fmt/format.h>
#include <net/if.h>

#include <algorithm>
#include <pugixml.hpp>
#include <string_view>

#include "host/base/mutex.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_parse.h"
#include "host/hypervisor/libvirt_hypervisor.h"
#include "host/hypervisor/qemu_process.h"

namespace vexa::hypervisor {
namespace {

constexpr std::uint64_t kKib = 1024;
// A QEMU start takes about two seconds.
constexpr std::chrono::seconds kMaxWaitForStart{5};
constexpr std::chrono::seconds kMaxWaitForKilledStart{10};
// Meanwhile, other callers may start the guest again.
constexpr int kMaxKilledStarts = 3;

// The name of a bridge that the guest needs and this machine does not have; empty when none is missing.
std::string MissingBridge(virDomainPtr domain) {
  const StringHandle xml(virDomainGetXMLDesc(domain, VIR_DOMAIN_XML_INACTIVE));
  pugi::xml_document document;
  if (!xml || !document.load_string(xml.get())) return "";
  for (const pugi::xml_node& interface : document.document_element().child("devices").children("interface")) {
    if (std::string_view(interface.attribute("type").value()) != "bridge") continue;
    const char* const bridge = interface.child("source").attribute("bridge").value();
    if (if_nametoindex(bridge) == 0) return bridge;
  }
  return "";
}

}  // namespace

GuestOperationLocks::Lock::Lock(GuestOperationLocks& locks, std::string id) : locks_(locks), id_(std::move(id)) {
  const MutexLock lock(locks_.mutex_);
  while (!locks_.holders_.try_emplace(id_).second) locks_.released_.Wait(locks_.mutex_);
}

GuestOperationLocks::Lock::~Lock() {
  const MutexLock lock(locks_.mutex_);
  locks_.holders_.erase(id_);
  locks_.released_.NotifyAll();
}

bool GuestOperationLocks::Lock::WasEnded() const {
  const MutexLock lock(locks_.mutex_);
  return locks_.holders_.at(id_).is_ended;
}

std::unique_ptr<GuestOperationLocks::Lock> GuestOperationLocks::TryLockGuest(const std::string& id,
                                                                             std::chrono::milliseconds timeout) {
  const auto begin = std::chrono::steady_clock::now();
  const MutexLock lock(mutex_);
  while (!holders_.try_emplace(id).second) {
    const auto end = std::max(begin, holders_.at(id).since) + timeout;
    if (std::chrono::steady_clock::now() >= end) return nullptr;
    released_.WaitUntil(mutex_, end);
  }
  return std::unique_ptr<Lock>(new Lock(*this, id, Lock::Acquired()));
}

void GuestOperationLocks::EndHolder(const std::string& id) {
  const MutexLock lock(mutex_);
  if (const auto holder = holders_.find(id); holder != holders_.end()) holder->second.is_ended = true;
}

// Checked before the start: QEMU's error for a lack of memory has no code of its own, and by then the host may have
// evicted other processes' memory.
Result<void, Failure> LibvirtHypervisor::CheckMemory(const DomainOnConnection& guest) const {
  const bool check = memory_check_ == MemoryCheck::kAlways || DomainType() != "test";
  if (!check) return {};
  const std::uint64_t needed = std::uint64_t{virDomainGetMaxMemory(guest.domain.get())} * kKib;
  const Result<std::uint64_t, Failure> free = FreeMemoryOf(guest.connection);
  // A host that does not report its memory is not a reason to refuse guests.
  if (!free || needed <= *free) return {};
  return Failure(FailureKind::kNoMemory, "The host does not have enough memory for the guest",
                 fmt::format("It needs {} MiB, and {} MiB are free", needed >> 20, *free >> 20));
}

Result<void, Failure> LibvirtHypervisor::StartWith(const std::string& id,
                                                   const std::function<int(virDomainPtr)>& create) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  const std::string failed = fmt::format("Cannot start the guest {}", id);
  const GuestOperationLocks::Lock lock(guest_locks_, NormalizeUuid(id));
  // Checked first, so that a running guest is not reported as short of the memory that it already has.
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (state && IsActive(*state)) return Failure(FailureKind::kAlreadyRunning, failed, "It is already running");
  if (Result<void, Failure> memory = CheckMemory(*guest); !memory) return memory;
  if (create(guest->domain.get()) == 0) return {};
  if (lock.WasEnded()) return Failure(FailureKind::kBusy, failed, "It was powered off before the start ended");
  if (const virError* const error = virGetLastError(); error != nullptr && LacksCpuGroup(*error)) {
    const MutexLock shares_lock(shares_mutex_);
    without_cpu_group_ = guest->connection;
  }
  Failure failure = GuestFailure(*guest, Operation::kStart, failed);
  // The helpers that add guests of users other than root to bridges check their own rights first.
  const bool unclear = failure.kind() == FailureKind::kFailed || failure.kind() == FailureKind::kDenied;
  if (!unclear || target_.kind == DriverKind::kUri) return failure;
  const std::string bridge = MissingBridge(guest->domain.get());
  if (bridge.empty()) return failure;
  return Failure(FailureKind::kBridgeMissing, failed, fmt::format("There is no bridge '{}'", bridge));
}

Result<void, Failure> LibvirtHypervisor::Start(const std::string& id) { return StartWith(id, virDomainCreate); }

Result<void, Failure> LibvirtHypervisor::Restore(const std::string& id) {
  return StartWith(id, [](virDomainPtr domain) {
    // The test driver has neither the flag nor files. Others must not run the guest before its files are compared.
    const char* const driver = virConnectGetType(virDomainGetConnect(domain));
    const bool is_test = driver != nullptr && std::string_view(driver) == "TEST";
    return virDomainCreateWithFlags(domain, is_test ? 0 : VIR_DOMAIN_START_PAUSED);
  });
}

Result<void, Failure> LibvirtHypervisor::Suspend(const std::string& id) {
  const std::string failed = fmt::format("Cannot suspend the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const GuestOperationLocks::Lock lock(guest_locks_, NormalizeUuid(id));
  if (StateOfDomain(guest->domain.get()) == GuestState::kPaused) return {};
  if (virDomainSuspend(guest->domain.get()) == 0) return {};
  return GuestFailure(*guest, Operation::kSuspend, failed);
}

Result<void, Failure> LibvirtHypervisor::Resume(const std::string& id) {
  const std::string failed = fmt::format("Cannot resume the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const GuestOperationLocks::Lock lock(guest_locks_, NormalizeUuid(id));
  if (StateOfDomain(guest->domain.get()) == GuestState::kRunning) return {};
  if (virDomainResume(guest->domain.get()) == 0) return {};
  return GuestFailure(*guest, Operation::kSuspend, failed);
}

Result<void, Failure> LibvirtHypervisor::Save(const std::string& id) {
  const std::string failed = fmt::format("Cannot save the memory of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const GuestOperationLocks::Lock lock(guest_locks_, NormalizeUuid(id));
  if (virDomainManagedSave(guest->domain.get(), VIR_DOMAIN_SAVE_RUNNING) == 0) return {};
  return GuestFailure(*guest, Operation::kSuspend, failed);
}

Result<void, Failure> LibvirtHypervisor::ShutDown(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  const std::string failed = fmt::format("Cannot shut down the guest {}", id);
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (state && !IsActive(*state)) return Failure(FailureKind::kNotRunning, failed, "It is not running");
  // Without flags, libvirt asks the agent if one is connected; otherwise it presses the power button.
  if (virDomainShutdown(guest->domain.get()) == 0) return {};
  Failure failure = GuestFailure(*guest, Operation::kStop, failed);
  // A guest that powers off quickly ends its agent before libvirt has received the reply.
  if (state && failure.kind() == FailureKind::kNotRunning) return {};
  return failure;
}

Result<void, Failure> LibvirtHypervisor::PowerOff(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  // A start that hangs would keep its lock forever; it ends when its QEMU process does.
  const std::string normal = NormalizeUuid(id);
  std::unique_ptr<GuestOperationLocks::Lock> lock = guest_locks_.TryLockGuest(normal, kMaxWaitForStart);
  for (int kills = 0; !lock && target_.kind == DriverKind::kEmbed && kills < kMaxKilledStarts; ++kills) {
    guest_locks_.EndHolder(normal);
    KillQemuProcesses(normal, target_.root);
    lock = guest_locks_.TryLockGuest(normal, kMaxWaitForKilledStart);
  }
  // A remote libvirt serialises calls itself; in this process, two concurrent calls would corrupt memory.
  const std::string failed = fmt::format("Cannot power off the guest {}", id);
  if (!lock && target_.kind != DriverKind::kUri) {
    return Failure(FailureKind::kBusy, failed, "It is being started, and the start does not end");
  }
  if (virDomainDestroy(guest->domain.get()) != 0) return GuestFailure(*guest, Operation::kStop, failed);
  return {};
}

Result<void, Failure> LibvirtHypervisor::Reboot(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  if (virDomainReboot(guest->domain.get(), 0) != 0) {
    return GuestFailure(*guest, Operation::kStop, fmt::format("Cannot reboot the guest {}", id));
  }
  return {};
}

}  // namespace vexa::hypervisor
