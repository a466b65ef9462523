// Starting and stopping guests.
#include <net/if.h>

#include <pugixml.hpp>
#include <string_view>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml.h"
#include "host/hypervisor/libvirt_hypervisor.h"
#include "host/hypervisor/qemu_process.h"

namespace vexa::hypervisor {
namespace {

constexpr std::uint64_t kKib = 1024;
// A QEMU start takes about two seconds.
constexpr std::chrono::seconds kMaxWaitForStart{5};
constexpr std::chrono::seconds kMaxWaitForKilledStart{10};

// The name of a bridge that the guest needs and this machine does not have; empty when absent.
std::string MissingBridge(virDomainPtr domain) {
  const TextHandle xml(virDomainGetXMLDesc(domain, VIR_DOMAIN_XML_INACTIVE));
  pugi::xml_document document;
  if (!xml || !document.load_string(xml.get())) return "";
  for (const pugi::xml_node& interface : document.document_element().child("devices").children("interface")) {
    if (std::string_view(interface.attribute("type").value()) != "bridge") continue;
    const char* const bridge = interface.child("source").attribute("bridge").value();
    if (if_nametoindex(bridge) == 0) return bridge;
  }
  return "";
}

std::string InMib(std::uint64_t bytes) { return std::to_string(bytes >> 20) + " MiB"; }

}  // namespace

Turns::Turn::Turn(Turns& turns, std::string id) : turns_(turns), id_(std::move(id)) {
  std::unique_lock lock(turns_.mutex_);
  turns_.ended_.wait(lock, [this] { return turns_.taken_.insert(id_).second; });
}

std::unique_ptr<Turns::Turn> Turns::TryTake(const std::string& id, std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  if (!ended_.wait_for(lock, patience, [&] { return taken_.insert(id).second; })) return nullptr;
  return std::unique_ptr<Turn>(new Turn(*this, id, Turn::Taken()));
}

Turns::Turn::~Turn() {
  const std::lock_guard lock(turns_.mutex_);
  turns_.taken_.erase(id_);
  turns_.ended_.notify_all();
}

// QEMU's error for a lack of memory has no code of its own, and by then the host may have evicted other processes'
// memory.
Outcome<void> LibvirtHypervisor::CheckMemory(const Found& guest) const {
  const bool check = memory_check_ == MemoryCheck::kAlways || DomainType() != "test";
  if (!check) return {};
  const std::uint64_t needed = std::uint64_t{virDomainGetMaxMemory(guest.domain.get())} * kKib;
  const Outcome<std::uint64_t> free = FreeMemoryOf(guest.connection);
  // A host that does not report its memory is not a reason to refuse guests.
  if (!free || needed <= *free) return {};
  return Failure(Problem::kNoMemory, "The host has not enough memory for the guest",
                 "It needs " + InMib(needed) + ", and " + InMib(*free) + " are free");
}

Outcome<void> LibvirtHypervisor::Start(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const std::string failed = "Cannot start the guest " + id;
  const Turns::Turn turn(turns_, NormalizeUuid(id));
  // First, so that a running guest is not reported as short of the memory that it already has.
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (state && IsActive(*state)) return Failure(Problem::kAlreadyRunning, failed, "It runs already");
  if (Outcome<void> memory = CheckMemory(*guest); !memory) return memory;
  if (virDomainCreate(guest->domain.get()) == 0) return {};
  Failure failure = FailedOn(*guest, Operation::kStart, failed);
  // The helpers that add guests of users other than root to bridges check their own rights first.
  const bool unclear = failure.problem() == Problem::kFailed || failure.problem() == Problem::kDenied;
  if (!unclear || target_.kind == TargetKind::kUri) return failure;
  const std::string bridge = MissingBridge(guest->domain.get());
  if (bridge.empty()) return failure;
  return Failure(Problem::kBridgeMissing, failed, "There is no bridge '" + bridge + "'");
}

Outcome<void> LibvirtHypervisor::ShutDown(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const std::string failed = "Cannot shut down the guest " + id;
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (state && !IsActive(*state)) return Failure(Problem::kNotRunning, failed, "It does not run");
  // Without flags, libvirt asks the agent if one is connected; otherwise it presses the power button.
  if (virDomainShutdown(guest->domain.get()) == 0) return {};
  Failure failure = FailedOn(*guest, Operation::kStop, failed);
  // A guest that goes off quickly takes its agent with it before libvirt has the answer.
  if (state && failure.problem() == Problem::kNotRunning) return {};
  return failure;
}

Outcome<void> LibvirtHypervisor::PowerOff(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  // A start that hangs would keep its turn forever; it ends when its QEMU does.
  const std::string normal = NormalizeUuid(id);
  std::unique_ptr<Turns::Turn> turn = turns_.TryTake(normal, kMaxWaitForStart);
  if (!turn && target_.kind == TargetKind::kEmbed) {
    KillQemusOf(normal, target_.root);
    turn = turns_.TryTake(normal, kMaxWaitForKilledStart);
  }
  // A remote libvirt serialises on its own; in this process, two concurrent calls would corrupt memory.
  if (!turn && target_.kind != TargetKind::kUri) {
    return Failure(Problem::kBusy, "Cannot power off the guest " + id, "It is being started, and that does not end");
  }
  if (virDomainDestroy(guest->domain.get()) != 0) {
    return FailedOn(*guest, Operation::kStop, "Cannot power off the guest " + id);
  }
  return {};
}

Outcome<void> LibvirtHypervisor::Reboot(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  if (virDomainReboot(guest->domain.get(), 0) != 0) {
    return FailedOn(*guest, Operation::kStop, "Cannot reboot the guest " + id);
  }
  return {};
}

}  // namespace vexa::hypervisor
