#include "host/transport/method_rules.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "json/readers.h"

namespace vexa::transport {
namespace {

using std::chrono::milliseconds;
using CallPriority = Breaker::CallPriority;

struct Row {
  std::string_view api;
  std::string_view method;
  milliseconds timeout;  // 0: the default
  CallPriority priority;
};

// From the kernel's memory: a host that has not replied by then is overloaded, stopped or gone.
constexpr milliseconds kMemoryTimeout{3'000};
// As above, with a sample of 0.2 s or firmware files.
constexpr milliseconds kSamplingTimeout{5'000};
// The host queries its file systems, which may wake up disks.
constexpr milliseconds kDiskTimeout{10'000};
// The host may wait for the guest's agent, or read many images.
constexpr milliseconds kDefault{0};

constexpr Row kRows[] = {
    {"VEXA.Core.Network.Interface", "list", kMemoryTimeout, CallPriority::kSkippable},
    {"VEXA.Core.Network.Ethernet", "get", kMemoryTimeout, CallPriority::kSkippable},
    {"VEXA.Core.Network.Bond", "get", kMemoryTimeout, CallPriority::kSkippable},
    {"VEXA.Core.Web.Orla", "get", kMemoryTimeout, CallPriority::kSkippable},
    {"VEXA.Core.System", "info", kSamplingTimeout, CallPriority::kSkippable},
    {"VEXA.Core.System.Utilization", "get", kSamplingTimeout, CallPriority::kSkippable},
    {"VEXA.CCC.Cluster.Member", "utilization_get", kSamplingTimeout, CallPriority::kSkippable},
    {"VEXA.Core.Storage.Volume", "get", kDiskTimeout, CallPriority::kSkippable},
    {"VEXA.CCC.VDisk", "list", kDefault, CallPriority::kSkippable},
    {"VEXA.CCC.Guest", "get_info", kDefault, CallPriority::kSkippable},
    {"VEXA.CCC.Guest", "pending", kMemoryTimeout, CallPriority::kSkippable},
    // Users who start or stop a guest want the call to be tried, even if the host seemed gone a moment ago.
    {"VEXA.CCC.Guest", "poweron", kDefault, CallPriority::kAlways},
    {"VEXA.CCC.Guest", "shutdown", kDefault, CallPriority::kAlways},
    {"VEXA.CCC.Guest", "poweroff", kDefault, CallPriority::kAlways},
    {"VEXA.CCC.Guest", "reboot", kDefault, CallPriority::kAlways},
    {"VEXA.CCC.Guest", "suspend", kDefault, CallPriority::kAlways},
    {"VEXA.CCC.Guest", "resume", kDefault, CallPriority::kAlways},
    {"VEXA.CCC.Guest", "save", kDefault, CallPriority::kAlways},
    {"VEXA.CCC.Guest", "restore", kDefault, CallPriority::kAlways},
};

constexpr std::string_view kCompoundApi = "VEXA.Entry.Request";
constexpr std::string_view kCompoundMethod = "request";

MethodRule Find(std::string_view api, std::string_view method, milliseconds default_timeout) {
  const Row* const row = std::find_if(std::begin(kRows), std::end(kRows),
                                      [&](const Row& it) { return it.api == api && it.method == method; });
  if (row == std::end(kRows)) return {default_timeout, CallPriority::kOrdinary};
  return {row->timeout.count() == 0 ? default_timeout : std::min(row->timeout, default_timeout), row->priority};
}

}  // namespace

MethodRule RuleOf(const VexaDRCore::Request& request, milliseconds default_timeout) {
  if (request.api() != kCompoundApi || request.method() != kCompoundMethod) {
    return Find(request.api(), request.method(), default_timeout);
  }
  const Json::Value& items = json::Member(request.parameters(), "compound");
  if (!items.isArray() || items.empty()) return {default_timeout, CallPriority::kOrdinary};
  MethodRule rule{milliseconds(0), CallPriority::kSkippable};
  for (const Json::Value& item : json::Elements(items)) {
    const MethodRule of_item =
        Find(json::String(json::Member(item, "api")), json::String(json::Member(item, "method")), default_timeout);
    rule.timeout = std::max(rule.timeout, of_item.timeout);
    if (of_item.priority != CallPriority::kSkippable) rule.priority = CallPriority::kOrdinary;
  }
  return rule;
}

}  // namespace vexa::transport
