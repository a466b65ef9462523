#include "tests/support/libvirt_faults.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>

namespace {

template <class Function>
Function* Real(const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) std::abort();
  return reinterpret_cast<Function*>(symbol);
}

thread_local std::optional<vexa::test::LibvirtError> start_error;
thread_local bool start_failed = false;
thread_local bool connections_dead = false;
thread_local std::string pretended_xml;
std::atomic<int> presses_to_lose{0};
std::atomic<int> presses{0};

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
  start_failed = false;
}

DeadConnections::DeadConnections() { connections_dead = true; }
DeadConnections::~DeadConnections() { connections_dead = false; }

void LosePresses(int count) {
  presses = 0;
  presses_to_lose = count;
}
int Presses() { return presses; }

void PretendXml(const std::string& xml) { pretended_xml = xml; }

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
  start_failed = true;
  return -1;
}

virErrorPtr virGetLastError() {
  static auto* const real = Real<virErrorPtr()>("virGetLastError");
  if (!start_failed) return real();
  thread_local virError error;
  error = {};
  error.code = start_error->code;
  error.domain = start_error->domain;
  error.message = start_error->message.data();
  error.int1 = start_error->system_error;
  return &error;
}

int virDomainShutdown(virDomainPtr domain) {
  static auto* const real = Real<int(virDomainPtr)>("virDomainShutdown");
  ++presses;
  if (presses_to_lose > 0) {
    --presses_to_lose;
    return 0;
  }
  return real(domain);
}

int virConnectIsAlive(virConnectPtr connection) {
  static auto* const real = Real<int(virConnectPtr)>("virConnectIsAlive");
  return connections_dead ? 0 : real(connection);
}

char* virDomainGetXMLDesc(virDomainPtr domain, unsigned int flags) {
  static auto* const real = Real<char*(virDomainPtr, unsigned int)>("virDomainGetXMLDesc");
  return pretended_xml.empty() ? real(domain, flags) : strdup(pretended_xml.c_str());
}

int virConnectRegisterCloseCallback(virConnectPtr connection, virConnectCloseFunc callback, void* opaque,
                                    virFreeCallback free_opaque) {
  static auto* const real =
      Real<int(virConnectPtr, virConnectCloseFunc, void*, virFreeCallback)>("virConnectRegisterCloseCallback");
  {
    LastConnection& last = Last();
    const std::lock_guard lock(last.mutex);
    last.connection = connection;
    last.callback = callback;
    last.opaque = opaque;
  }
  return real(connection, callback, opaque, free_opaque);
}
}
