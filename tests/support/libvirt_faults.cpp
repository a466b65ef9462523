#include "tests/support/libvirt_faults.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

#include "host/domain_xml/cpu_set.h"

namespace {

template <class Function>
Function* Real(const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) std::abort();
  return reinterpret_cast<Function*>(symbol);
}

thread_local std::optional<vexa::test::LibvirtError> start_error;
thread_local std::optional<vexa::test::LibvirtError> stop_error;
thread_local std::optional<vexa::test::LibvirtError> save_error;
thread_local std::optional<vexa::test::LibvirtError> suspend_error;
thread_local std::optional<vexa::test::LibvirtError> resume_error;
thread_local std::optional<vexa::test::LibvirtError> networks_error;
// The last fault of this thread; it remains the last error until the fault ends.
thread_local std::optional<vexa::test::LibvirtError> met;
std::mutex pins_mutex;
std::optional<vexa::test::LibvirtError> pin_error;
std::mutex openings_mutex;
std::optional<vexa::test::LibvirtError> opening_error;
std::atomic<int> openings{0};
thread_local bool connections_dead = false;
thread_local std::string fake_xml_text;
std::atomic<int> presses_to_ignore{0};
std::atomic<int> presses{0};
std::atomic<bool> shut_down_before_reply{false};
std::atomic<int> fake_state{-1};
std::atomic<int> fake_reason{0};

struct LastConnection {
  std::mutex mutex;
  virConnectPtr connection = nullptr;
  virConnectCloseFunc callback = nullptr;
  void* opaque = nullptr;
};
LastConnection& Last() {
  static LastConnection last;
  return last;
}

}  // namespace

namespace vexa::test {

FailingStarts::FailingStarts(const LibvirtError& error) { start_error = error; }
FailingStarts::~FailingStarts() {
  start_error.reset();
  met.reset();
}

FailingStops::FailingStops(const LibvirtError& error) { stop_error = error; }
FailingStops::~FailingStops() {
  stop_error.reset();
  met.reset();
}

FailingSaves::FailingSaves(const LibvirtError& error) { save_error = error; }
FailingSaves::~FailingSaves() {
  save_error.reset();
  met.reset();
}

FailingSuspends::FailingSuspends(const LibvirtError& error) { suspend_error = error; }
FailingSuspends::~FailingSuspends() {
  suspend_error.reset();
  met.reset();
}

FailingResumes::FailingResumes(const LibvirtError& error) { resume_error = error; }
FailingResumes::~FailingResumes() {
  resume_error.reset();
  met.reset();
}

FailingPins::FailingPins(const LibvirtError& error) {
  const std::lock_guard lock(pins_mutex);
  pin_error = error;
}
FailingPins::~FailingPins() {
  const std::lock_guard lock(pins_mutex);
  pin_error.reset();
}

FailingConnects::FailingConnects(const LibvirtError& error) {
  const std::lock_guard lock(openings_mutex);
  opening_error = error;
  openings = 0;
}
FailingConnects::~FailingConnects() {
  const std::lock_guard lock(openings_mutex);
  opening_error.reset();
  met.reset();
}
int ConnectAttempts() { return openings; }

FailingNetworks::FailingNetworks(const LibvirtError& error) { networks_error = error; }
FailingNetworks::~FailingNetworks() {
  networks_error.reset();
  met.reset();
}

DeadConnections::DeadConnections() { connections_dead = true; }
DeadConnections::~DeadConnections() { connections_dead = false; }

void IgnoreButtonPresses(int count) {
  presses = 0;
  presses_to_ignore = count;
}
int ButtonPresses() { return presses; }

ShutDownsBeforeReply::ShutDownsBeforeReply() { shut_down_before_reply = true; }
ShutDownsBeforeReply::~ShutDownsBeforeReply() { shut_down_before_reply = false; }

FakeStateReason::FakeStateReason(int state, int reason) {
  fake_reason = reason;
  fake_state = state;
}
FakeStateReason::~FakeStateReason() { fake_state = -1; }

void FakeXml(const std::string& xml) { fake_xml_text = xml; }

namespace {

// Calls `act` with the guest and returns its result; returns `otherwise` without such a guest.
template <class Value, class Act>
Value WithGuest(const std::string& id, Value otherwise, const Act& act) {
  LastConnection& last = Last();
  const std::lock_guard lock(last.mutex);
  if (last.connection == nullptr) return otherwise;
  const virDomainPtr domain = virDomainLookupByUUIDString(last.connection, id.c_str());
  if (domain == nullptr) return otherwise;
  const Value value = act(domain);
  virDomainFree(domain);
  return value;
}

}  // namespace

bool DefineAsUser(const std::string& xml) {
  LastConnection& last = Last();
  const std::lock_guard lock(last.mutex);
  const virDomainPtr domain = virDomainDefineXML(last.connection, xml.c_str());
  if (domain == nullptr) return false;
  virDomainFree(domain);
  return true;
}

bool StartAsUser(const std::string& id) {
  return WithGuest(id, false, [](virDomainPtr domain) { return virDomainCreate(domain) == 0; });
}

bool SaveAsUser(const std::string& id) {
  return WithGuest(id, false, [](virDomainPtr domain) { return virDomainManagedSave(domain, 0) == 0; });
}

bool DestroyAsUser(const std::string& id) {
  return WithGuest(id, false, [](virDomainPtr domain) { return virDomainDestroy(domain) == 0; });
}

bool PauseAsUser(const std::string& id) {
  return WithGuest(id, false, [](virDomainPtr domain) { return virDomainSuspend(domain) == 0; });
}

int StateAsUser(const std::string& id) {
  return WithGuest(id, -1, [](virDomainPtr domain) {
    int state = -1;
    return virDomainGetState(domain, &state, nullptr, 0) == 0 ? state : -1;
  });
}

bool AutostartAsUser(const std::string& id) {
  return WithGuest(id, false, [](virDomainPtr domain) { return virDomainSetAutostart(domain, 1) == 0; });
}

std::string XmlAsUser(const std::string& id) {
  return WithGuest(id, std::string(), [](virDomainPtr domain) -> std::string {
    char* const xml = virDomainGetXMLDesc(domain, VIR_DOMAIN_XML_INACTIVE);
    std::string text = xml != nullptr ? xml : "";
    std::free(xml);
    return text;
  });
}

std::string AffinityAsUser(const std::string& id) {
  constexpr int kMaxCpus = 4096;
  constexpr int kBytes = kMaxCpus / 8;
  return WithGuest(id, std::string(), [](virDomainPtr domain) -> std::string {
    const int vcpus = virDomainGetVcpusFlags(domain, VIR_DOMAIN_AFFECT_LIVE);
    const int cpus = virNodeGetCPUMap(virDomainGetConnect(domain), nullptr, nullptr, 0);
    if (vcpus <= 0 || cpus <= 0) return "";
    const auto format = [&](const unsigned char* bits) {
      vexa::domain_xml::CpuSet set;
      for (int cpu = 0; cpu < cpus; ++cpu) {
        if (VIR_CPU_USED(bits, cpu)) set.insert(static_cast<unsigned>(cpu));
      }
      return vexa::domain_xml::FormatCpuSet(set);
    };
    std::vector<unsigned char> bits(static_cast<std::size_t>(vcpus) * kBytes);
    if (virDomainGetVcpuPinInfo(domain, vcpus, bits.data(), kBytes, VIR_DOMAIN_AFFECT_LIVE) != vcpus) return "";
    std::string text;
    for (int vcpu = 0; vcpu < vcpus; ++vcpu)
      text += format(bits.data() + static_cast<std::ptrdiff_t>(vcpu) * kBytes) + " ";
    if (virDomainGetEmulatorPinInfo(domain, bits.data(), kBytes, VIR_DOMAIN_AFFECT_LIVE) != 1) return "";
    return text + "emulator " + format(bits.data());
  });
}

bool IsAutostartedAsUser(const std::string& id) {
  return WithGuest(id, false, [](virDomainPtr domain) {
    int autostart = 0;
    return virDomainGetAutostart(domain, &autostart) == 0 && autostart == 1;
  });
}

void CloseLastConnection() {
  LastConnection& last = Last();
  const std::lock_guard lock(last.mutex);
  last.callback(last.connection, VIR_CONNECT_CLOSE_REASON_EOF, last.opaque);
}

}  // namespace vexa::test

extern "C" {

int virDomainCreate(virDomainPtr domain) {
  static auto* const real = Real<int(virDomainPtr)>("virDomainCreate");
  if (!start_error) return real(domain);
  met = start_error;
  return -1;
}

int virDomainDestroy(virDomainPtr domain) {
  static auto* const real = Real<int(virDomainPtr)>("virDomainDestroy");
  if (!stop_error) return real(domain);
  met = stop_error;
  return -1;
}

int virDomainManagedSave(virDomainPtr domain, unsigned int flags) {
  static auto* const real = Real<int(virDomainPtr, unsigned int)>("virDomainManagedSave");
  if (!save_error) return real(domain, flags);
  met = save_error;
  return -1;
}

int virDomainSuspend(virDomainPtr domain) {
  static auto* const real = Real<int(virDomainPtr)>("virDomainSuspend");
  if (!suspend_error) return real(domain);
  met = suspend_error;
  return -1;
}

int virDomainPinVcpu(virDomainPtr domain, unsigned vcpu, unsigned char* cpus, int bytes) {
  static auto* const real = Real<int(virDomainPtr, unsigned, unsigned char*, int)>("virDomainPinVcpu");
  {
    const std::lock_guard lock(pins_mutex);
    met = pin_error;
  }
  return met ? -1 : real(domain, vcpu, cpus, bytes);
}

int virDomainResume(virDomainPtr domain) {
  static auto* const real = Real<int(virDomainPtr)>("virDomainResume");
  if (!resume_error) return real(domain);
  met = resume_error;
  return -1;
}

virConnectPtr virConnectOpen(const char* uri) {
  static auto* const real = Real<virConnectPtr(const char*)>("virConnectOpen");
  ++openings;
  {
    const std::lock_guard lock(openings_mutex);
    met = opening_error;
  }
  if (met) return nullptr;
  const virConnectPtr connection = real(uri);
  const std::lock_guard lock(Last().mutex);
  if (connection != nullptr) Last().connection = connection;
  return connection;
}

int virConnectListAllNetworks(virConnectPtr connection, virNetworkPtr** networks, unsigned int flags) {
  static auto* const real = Real<int(virConnectPtr, virNetworkPtr**, unsigned int)>("virConnectListAllNetworks");
  if (!networks_error) return real(connection, networks, flags);
  met = networks_error;
  return -1;
}

virErrorPtr virGetLastError() {
  static auto* const real = Real<virErrorPtr()>("virGetLastError");
  if (!met) return real();
  thread_local virError error;
  error = {};
  error.code = met->code;
  error.domain = met->domain;
  error.message = met->message.data();
  error.int1 = met->system_error;
  return &error;
}

int virDomainShutdown(virDomainPtr domain) {
  static auto* const real = Real<int(virDomainPtr)>("virDomainShutdown");
  ++presses;
  if (presses_to_ignore > 0) {
    --presses_to_ignore;
    return 0;
  }
  if (shut_down_before_reply) virDomainDestroy(domain);
  return real(domain);
}

int virConnectIsAlive(virConnectPtr connection) {
  static auto* const real = Real<int(virConnectPtr)>("virConnectIsAlive");
  return connections_dead ? 0 : real(connection);
}

int virDomainGetState(virDomainPtr domain, int* state, int* reason, unsigned int flags) {
  static auto* const real = Real<int(virDomainPtr, int*, int*, unsigned int)>("virDomainGetState");
  const int result = real(domain, state, reason, flags);
  if (result == 0 && state != nullptr && reason != nullptr && *state == fake_state) *reason = fake_reason;
  return result;
}

char* virDomainGetXMLDesc(virDomainPtr domain, unsigned int flags) {
  static auto* const real = Real<char*(virDomainPtr, unsigned int)>("virDomainGetXMLDesc");
  return fake_xml_text.empty() ? real(domain, flags) : strdup(fake_xml_text.c_str());
}

int virConnectRegisterCloseCallback(virConnectPtr connection, virConnectCloseFunc callback, void* opaque,
                                    virFreeCallback free_opaque) {
  static auto* const real =
      Real<int(virConnectPtr, virConnectCloseFunc, void*, virFreeCallback)>("virConnectRegisterCloseCallback");
  {
    LastConnection& last = Last();
    const std::lock_guard lock(last.mutex);
    last.callback = callback;
    last.opaque = opaque;
  }
  return real(connection, callback, opaque, free_opaque);
}
}
