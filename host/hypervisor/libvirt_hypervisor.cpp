#include "host/hypervisor/libvirt_hypervisor.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "host/base/rows.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_parse.h"
#include "host/hypervisor/event_loop.h"
#include "host/hypervisor/kvm_probe.h"

namespace vexa::hypervisor {
namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  return text;
}

// The <domain type>. Empty when it is unknown: only a live connection can report whether its host has KVM.
std::string DomainTypeFor(const DriverTarget& target, virConnectPtr connection) {
  if (target.kind == DriverKind::kTest) return "test";
  if (target.kind == DriverKind::kEmbed) return KvmWorks("/dev/kvm") ? "kvm" : "qemu";
  const char* const driver = virConnectGetType(connection);
  const std::string type = Lower(driver != nullptr ? driver : "");
  if (type != "qemu") return type;
  const StringHandle capabilities(virConnectGetDomainCapabilities(connection, nullptr, "x86_64", nullptr, "kvm", 0));
  if (capabilities) return "kvm";
  return virConnectIsAlive(connection) == 1 ? "qemu" : "";
}

std::string IdOf(virDomainPtr domain) {
  std::array<char, VIR_UUID_STRING_BUFLEN> id{};
  return virDomainGetUUIDString(domain, id.data()) == 0 ? id.data() : "";
}

}  // namespace

std::string_view GuestStateName(GuestState state) {
  struct Row {
    GuestState state;
    std::string_view name;
  };
  constexpr Row kNames[] = {
      {GuestState::kOff, "off"},       {GuestState::kRunning, "running"},
      {GuestState::kPaused, "paused"}, {GuestState::kShuttingDown, "shutting_down"},
      {GuestState::kSaved, "saved"},   {GuestState::kCrashed, "crashed"},
      {GuestState::kGone, "gone"},
  };
  const Row* const row = FindRow(kNames, &Row::state, state);
  return row != nullptr ? row->name : "off";
}

bool IsActive(GuestState state) {
  return state == GuestState::kRunning || state == GuestState::kPaused || state == GuestState::kShuttingDown;
}

// Does not use virDomainGetInfo, which queries QEMU for its memory and waits seconds for a stopped process.
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

Result<std::unique_ptr<Hypervisor>, Failure> Hypervisor::Open(HypervisorOptions options) {
  if (options.initial_retry_wait.count() <= 0 || options.max_retry_wait < options.initial_retry_wait) {
    return Failure(FailureKind::kInvalid,
                   "The waits before a lost connection is reopened must be above zero and must not decrease");
  }
  if (Result<void, Failure> loop = StartEventLoop(); !loop) return loop.error();
  Result<DriverTarget, Failure> target = ResolveDriver(options);
  if (!target) return target.error();
  Result<std::unique_ptr<LibvirtConnection>, Failure> connection =
      LibvirtConnection::Open({target->uri, std::move(options.on_event), std::move(options.on_reopened),
                               options.initial_retry_wait, options.max_retry_wait, options.if_unreachable});
  if (!connection) return connection.error();
  return std::unique_ptr<Hypervisor>(
      std::make_unique<LibvirtHypervisor>(std::move(*target), options.memory_check, std::move(*connection)));
}

LibvirtHypervisor::LibvirtHypervisor(DriverTarget target, MemoryCheck memory_check,
                                     std::unique_ptr<LibvirtConnection> connection)
    : target_(std::move(target)), memory_check_(memory_check), connection_(std::move(connection)) {}

std::string LibvirtHypervisor::DomainType() const {
  const MutexLock lock(type_mutex_);
  if (!domain_type_.empty()) return domain_type_;
  const std::shared_ptr<virConnect> connection = connection_->Current();
  if (connection) domain_type_ = DomainTypeFor(target_, connection.get());
  return domain_type_.empty() ? "qemu" : domain_type_;
}

Result<std::shared_ptr<virConnect>, Failure> LibvirtHypervisor::Connection() const {
  std::shared_ptr<virConnect> connection = connection_->Current();
  if (!connection) {
    return Failure(FailureKind::kDisconnected, "The connection to libvirt is lost and is being reopened");
  }
  return connection;
}

Result<LibvirtHypervisor::DomainOnConnection, Failure> LibvirtHypervisor::Find(const std::string& id) const {
  const std::string normal = NormalizeUuid(id);
  if (normal.empty()) {
    return Failure(FailureKind::kInvalid, "The id of the guest is not a UUID. Use the form 8-4-4-4-12");
  }
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  DomainHandle domain(virDomainLookupByUUIDString(connection->get(), normal.c_str()));
  if (!domain) return MakeFailure(*connection, Operation::kRead, fmt::format("Cannot find the guest {}", normal));
  return DomainOnConnection{std::move(*connection), std::move(domain)};
}

Result<LibvirtHypervisor::DomainOnConnection, Failure> LibvirtHypervisor::FindRunning(
    const std::string& id, const std::string& message) const {
  Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest;
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) return GuestFailure(*guest, Operation::kRead, message);
  if (!IsActive(*state)) return Failure(FailureKind::kNotRunning, message, "It is not running");
  return guest;
}

Result<StringHandle, Failure> LibvirtHypervisor::RunningXml(const DomainOnConnection& guest,
                                                            const std::string& message) const {
  StringHandle xml(virDomainGetXMLDesc(guest.domain.get(), 0));
  if (!xml) return GuestFailure(guest, Operation::kRead, message);
  return xml;
}

Failure LibvirtHypervisor::MakeFailure(const std::shared_ptr<virConnect>& connection, Operation operation,
                                       std::string message) const {
  Failure failure = LastFailure(operation, std::move(message));
  // The check overwrites libvirt's error, which has been copied by now. Only the connection in use is dropped: another
  // thread may already have replaced it.
  if (virConnectIsAlive(connection.get()) == 0) {
    if (connection_->Current() == connection) connection_->MarkLost();
    return {FailureKind::kDisconnected, failure.message(), failure.cause()};
  }
  // An in-process driver cannot lose its connection. The error is about a daemon that the driver uses.
  if (target_.kind == DriverKind::kEmbed && failure.kind() == FailureKind::kDisconnected) {
    return {FailureKind::kFailed, failure.message(), failure.cause()};
  }
  return failure;
}

Failure LibvirtHypervisor::GuestFailure(const DomainOnConnection& guest, Operation operation,
                                        std::string message) const {
  Failure failure = MakeFailure(guest.connection, operation, std::move(message));
  if (failure.kind() != FailureKind::kFailed) return failure;
  const std::optional<GuestState> state = StateOfDomain(guest.domain.get());
  if (!state) return failure;
  const bool start = operation == Operation::kStart;
  if (start && IsActive(*state)) return {FailureKind::kAlreadyRunning, failure.message(), failure.cause()};
  const bool needs_running =
      operation == Operation::kStop || operation == Operation::kSuspend || operation == Operation::kRead;
  if (needs_running && !IsActive(*state)) {
    return {FailureKind::kNotRunning, failure.message(), failure.cause()};
  }
  return failure;
}

Result<std::string, Failure> LibvirtHypervisor::Define(const std::string& xml) {
  if (xml.size() > domain_xml::kMaxDomainXmlBytes || xml.find('\0') != std::string::npos) {
    return Failure(FailureKind::kInvalid,
                   "The XML of the guest is larger than 4 MiB or contains a NUL. This is not domain XML");
  }
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  const DomainHandle domain(virDomainDefineXMLFlags(connection->get(), xml.c_str(), 0));
  if (!domain) return MakeFailure(*connection, Operation::kDefine, "Cannot define the guest");
  return IdOf(domain.get());
}

Result<GuestState, Failure> LibvirtHypervisor::StateOf(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) {
    return MakeFailure(guest->connection, Operation::kRead, fmt::format("Cannot read the state of the guest {}", id));
  }
  return *state;
}

Result<bool, Failure> LibvirtHypervisor::IsPausedOnIoError(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  int state = 0;
  int reason = 0;
  if (virDomainGetState(guest->domain.get(), &state, &reason, 0) != 0) {
    return MakeFailure(guest->connection, Operation::kRead, fmt::format("Cannot read the state of the guest {}", id));
  }
  return state == VIR_DOMAIN_PAUSED && reason == VIR_DOMAIN_PAUSED_IOERROR;
}

Result<std::vector<KnownGuest>, Failure> LibvirtHypervisor::List() {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  virDomainPtr* raw = nullptr;
  const int count = virConnectListAllDomains(connection->get(), &raw, 0);
  if (count < 0) return MakeFailure(*connection, Operation::kRead, "Cannot list the guests");
  const std::vector<DomainHandle> domains(raw, raw + count);
  std::free(raw);

  std::vector<KnownGuest> guests;
  for (const DomainHandle& domain : domains) {
    const std::optional<GuestState> state = StateOfDomain(domain.get());
    if (state) {
      const char* const name = virDomainGetName(domain.get());
      guests.push_back({IdOf(domain.get()), name != nullptr ? name : "", *state});
    } else if (virGetLastErrorCode() != VIR_ERR_NO_DOMAIN) {  // a guest may disappear meanwhile
      return MakeFailure(*connection, Operation::kRead, "Cannot list the guests");
    }
  }
  std::sort(guests.begin(), guests.end(),
            [](const KnownGuest& left, const KnownGuest& right) { return left.id < right.id; });
  return guests;
}

}  // namespace vexa::hypervisor
