#include "host/hypervisor/libvirt_probe.h"

#include <fmt/format.h>
#include <libvirt/libvirt.h>

#include <cstdlib>
#include <future>
#include <memory>
#include <utility>

#include "host/base/background_thread.h"
#include "host/hypervisor/handles.h"
#include "host/hypervisor/libvirt_errors.h"

namespace vexa::hypervisor {
namespace {

std::string VersionText(unsigned long version) {
  return fmt::format("{}.{}.{}", version / 1'000'000, version / 1'000 % 1'000, version % 1'000);
}

Result<LibvirtReport, Failure> Probe(const std::string& uri) {
  virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
  const ConnectHandle connection(virConnectOpen(uri.c_str()));
  if (!connection) return LastFailure(Operation::kOpen, fmt::format("Cannot connect to '{}'", uri));
  LibvirtReport report;
  unsigned long version = 0;
  const char* const type = virConnectGetType(connection.get());
  if (type && virConnectGetVersion(connection.get(), &version) == 0) {
    report.hypervisor = fmt::format("{} {}", type, VersionText(version));
  }
  if (virConnectGetLibVersion(connection.get(), &version) == 0) report.libvirt = VersionText(version);
  return report;
}

}  // namespace

Result<LibvirtReport, Failure> ProbeLibvirt(const std::string& uri, std::chrono::milliseconds timeout) {
  ::setenv("LIBVIRT_AUTOSTART", "0", 1);
  const auto result = std::make_shared<std::promise<Result<LibvirtReport, Failure>>>();
  std::future<Result<LibvirtReport, Failure>> answer = result->get_future();
  StartThreadBlockingSignals([result, uri] { result->set_value(Probe(uri)); }).detach();
  if (answer.wait_for(timeout) == std::future_status::ready) return answer.get();
  return Failure(FailureKind::kDisconnected,
                 fmt::format("'{}' did not answer within {} seconds", uri,
                             std::chrono::duration_cast<std::chrono::seconds>(timeout).count()));
}

}  // namespace vexa::hypervisor
