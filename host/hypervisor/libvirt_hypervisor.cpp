#include "host/hypervisor/libvirt_hypervisor.h"

#include <algorithm>
#include <array>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml.h"
#include "host/hypervisor/event_loop.h"
#include "host/hypervisor/kvm_probe.h"

namespace vexa::hypervisor {
namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  return text;
}

// Empty when it is unknown: a remote connection knows only its own kernel, and this one may be lost again already.
std::string TypeFor(const Target& target, virConnectPtr connection) {
  if (target.kind == TargetKind::kTest) return "test";
  if (target.kind == TargetKind::kEmbed) return KvmWorks("/dev/kvm") ? "kvm" : "qemu";
  const char* const driver = virConnectGetType(connection);
  const std::string type = Lower(driver != nullptr ? driver : "");
  if (type != "qemu") return type;
  const TextHandle capabilities(virConnectGetDomainCapabilities(connection, nullptr, "x86_64", nullptr, "kvm", 0));
  if (capabilities) return "kvm";
  return virConnectIsAlive(connection) == 1 ? "qemu" : "";
}

std::string IdOf(virDomainPtr domain) {
  std::array<char, VIR_UUID_STRING_BUFLEN> id{};
  return virDomainGetUUIDString(domain, id.data()) == 0 ? id.data() : "";
}

}  // namespace

std::string_view GuestStateName(GuestState state) {
  switch (state) {
    case GuestState::kOff:
      return "off";
    case GuestState::kRunning:
      return "running";
    case GuestState::kPaused:
      return "paused";
    case GuestState::kShuttingDown:
      return "shutting_down";
    case GuestState::kSaved:
      return "saved";
    case GuestState::kCrashed:
      return "crashed";
    case GuestState::kGone:
      return "gone";
  }
  return "off";
}

bool IsActive(GuestState state) {
  return state == GuestState::kRunning || state == GuestState::kPaused || state == GuestState::kShuttingDown;
}

// Not virDomainGetInfo, which asks QEMU for its memory and waits seconds for a stopped one.
std::optional<GuestState> StateOfDomain(virDomainPtr domain) {
  int state = 0;
  int reason = 0;
  if (virDomainGetState(domain, &state, &reason, 0) != 0) return std::nullopt;
  switch (state) {
    case VIR_DOMAIN_PAUSED:
    case VIR_DOMAIN_PMSUSPENDED:
      return GuestState::kPaused;
    case VIR_DOMAIN_SHUTDOWN:
      return GuestState::kShuttingDown;
    case VIR_DOMAIN_SHUTOFF:
      if (virDomainHasManagedSaveImage(domain, 0) == 1) return GuestState::kSaved;
      // A guest that could not be started has not run.
      return reason == VIR_DOMAIN_SHUTOFF_CRASHED ? GuestState::kCrashed : GuestState::kOff;
    case VIR_DOMAIN_CRASHED:
      return GuestState::kCrashed;
    default:
      return GuestState::kRunning;
  }
}

Outcome<std::unique_ptr<Hypervisor>> Hypervisor::Open(HypervisorOptions options) {
  if (options.first_retry.count() <= 0 || options.last_retry < options.first_retry) {
    return Failure(Problem::kInvalid, "The waits before a lost connection is opened again are not above zero, or fall");
  }
  if (Outcome<void> loop = StartEventLoop(); !loop) return loop.failure();
  Outcome<Target> target = MakeTarget(options);
  if (!target) return target.failure();
  Outcome<std::unique_ptr<Link>> link =
      Link::Open({target->uri, std::move(options.on_event), std::move(options.on_reopened), options.first_retry,
                  options.last_retry, options.open_later});
  if (!link) return link.failure();
  return std::unique_ptr<Hypervisor>(
      std::make_unique<LibvirtHypervisor>(std::move(*target), options.memory_check, std::move(*link)));
}

LibvirtHypervisor::LibvirtHypervisor(Target target, MemoryCheck memory_check, std::unique_ptr<Link> link)
    : target_(std::move(target)), memory_check_(memory_check), link_(std::move(link)) {}

std::string LibvirtHypervisor::DomainType() const {
  const std::lock_guard lock(type_mutex_);
  if (!domain_type_.empty()) return domain_type_;
  const std::shared_ptr<virConnect> connection = link_->Current();
  if (connection) domain_type_ = TypeFor(target_, connection.get());
  return domain_type_.empty() ? "qemu" : domain_type_;
}

CpuShares LibvirtHypervisor::ProcessorShares() const {
  return target_.IsUnprivileged() ? CpuShares::kLeftOut : CpuShares::kAllowed;
}

Outcome<std::shared_ptr<virConnect>> LibvirtHypervisor::Connection() const {
  std::shared_ptr<virConnect> connection = link_->Current();
  if (!connection) {
    return Failure(Problem::kDisconnected, "The connection to libvirt is lost: it is being opened again");
  }
  return connection;
}

Outcome<LibvirtHypervisor::Found> LibvirtHypervisor::Find(const std::string& id) const {
  const std::string normal = NormalizeUuid(id);
  if (normal.empty())
    return Failure(Problem::kInvalid, "The id of the guest is no UUID: give one of the form 8-4-4-4-12");
  Outcome<std::shared_ptr<virConnect>> connection = Connection();
  if (!connection) return connection.failure();
  DomainHandle domain(virDomainLookupByUUIDString(connection->get(), normal.c_str()));
  if (!domain) return Failed(*connection, Operation::kRead, "Cannot find the guest " + normal);
  return Found{std::move(*connection), std::move(domain)};
}

Failure LibvirtHypervisor::Failed(const std::shared_ptr<virConnect>& connection, Operation operation,
                                  std::string message) const {
  Failure failure = LastFailure(operation, std::move(message));
  // The check would overwrite the error, which has been copied by now. Only the connection in use is dropped: another
  // thread may already have replaced it.
  if (virConnectIsAlive(connection.get()) == 0) {
    if (link_->Current() == connection) link_->Lose();
    return {Problem::kDisconnected, failure.error().message(), failure.error().cause()};
  }
  // An in-process driver has no connection to lose, except to daemons that it asks itself.
  if (target_.kind == TargetKind::kEmbed && failure.problem() == Problem::kDisconnected) {
    return {Problem::kFailed, failure.error().message(), failure.error().cause()};
  }
  return failure;
}

Failure LibvirtHypervisor::FailedOn(const Found& guest, Operation operation, std::string message) const {
  Failure failure = Failed(guest.connection, operation, std::move(message));
  if (failure.problem() != Problem::kFailed) return failure;
  const std::optional<GuestState> state = StateOfDomain(guest.domain.get());
  if (!state) return failure;
  const bool start = operation == Operation::kStart;
  if (start && IsActive(*state)) return {Problem::kAlreadyRunning, failure.error().message(), failure.error().cause()};
  const bool needs_running = operation == Operation::kStop || operation == Operation::kRead;
  if (needs_running && !IsActive(*state)) {
    return {Problem::kNotRunning, failure.error().message(), failure.error().cause()};
  }
  return failure;
}

Outcome<std::string> LibvirtHypervisor::Define(const std::string& xml) {
  if (xml.size() > kMaxDomainXmlBytes || xml.find('\0') != std::string::npos) {
    return Failure(Problem::kInvalid, "The XML of the guest has more than 4 MiB or a NUL: that is no domain XML");
  }
  Outcome<std::shared_ptr<virConnect>> connection = Connection();
  if (!connection) return connection.failure();
  const DomainHandle domain(virDomainDefineXMLFlags(connection->get(), xml.c_str(), 0));
  if (!domain) return Failed(*connection, Operation::kDefine, "Cannot define the guest");
  return IdOf(domain.get());
}

Outcome<GuestState> LibvirtHypervisor::StateOf(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) return Failed(guest->connection, Operation::kRead, "Cannot read the state of the guest " + id);
  return *state;
}

Outcome<bool> LibvirtHypervisor::HasStoppedForStorage(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  int state = 0;
  int reason = 0;
  if (virDomainGetState(guest->domain.get(), &state, &reason, 0) != 0) {
    return Failed(guest->connection, Operation::kRead, "Cannot read the state of the guest " + id);
  }
  return state == VIR_DOMAIN_PAUSED && reason == VIR_DOMAIN_PAUSED_IOERROR;
}

Outcome<std::vector<KnownGuest>> LibvirtHypervisor::List() {
  Outcome<std::shared_ptr<virConnect>> connection = Connection();
  if (!connection) return connection.failure();
  virDomainPtr* raw = nullptr;
  const int count = virConnectListAllDomains(connection->get(), &raw, 0);
  if (count < 0) return Failed(*connection, Operation::kRead, "Cannot list the guests");
  const std::vector<DomainHandle> domains(raw, raw + count);
  std::free(raw);

  std::vector<KnownGuest> guests;
  for (const DomainHandle& domain : domains) {
    const std::optional<GuestState> state = StateOfDomain(domain.get());
    if (state) {
      const char* const name = virDomainGetName(domain.get());
      guests.push_back({IdOf(domain.get()), name != nullptr ? name : "", *state});
    } else if (virGetLastErrorCode() != VIR_ERR_NO_DOMAIN) {  // a guest may disappear meanwhile
      return Failed(*connection, Operation::kRead, "Cannot list the guests");
    }
  }
  std::sort(guests.begin(), guests.end(),
            [](const KnownGuest& left, const KnownGuest& right) { return left.id < right.id; });
  return guests;
}

}  // namespace vexa::hypervisor
