#include "host/transport/method_rules.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "json/readers.h"

namespace vexa::transport {
namespace {

using std::chrono::milliseconds;
using Weight = Breaker::Weight;

struct Row {
  std::string_view api;
  std::string_view method;
  milliseconds timeout;  // 0: the default
  Weight weight;
};

// From the kernel's memory: a host that has not replied by then is overloaded, stopped or gone.
constexpr milliseconds kFromMemory{3'000};
// As above, with a sample of 0.2 s or firmware files.
constexpr milliseconds kSampled{5'000};
// The host queries its file systems, which may wake up disks.
constexpr milliseconds kFromDisk{10'000};
// The host may wait for the guest's agent, or read many images.
constexpr milliseconds kDefault{0};

constexpr Row kRows[] = {
    {"VEXA.Core.Network.Interface", "list", kFromMemory, Weight::kRefusable},
    {"VEXA.Core.Network.Ethernet", "get", kFromMemory, Weight::kRefusable},
    {"VEXA.Core.Network.Bond", "get", kFromMemory, Weight::kRefusable},
    {"VEXA.Core.Web.Orla", "get", kFromMemory, Weight::kRefusable},
    {"VEXA.Core.System", "info", kSampled, Weight::kRefusable},
    {"VEXA.Core.System.Utilization", "get", kSampled, Weight::kRefusable},
    {"VEXA.CCC.Cluster.Member", "utilization_get", kSampled, Weight::kRefusable},
    {"VEXA.Core.Storage.Volume", "get", kFromDisk, Weight::kRefusable},
    {"VEXA.CCC.VDisk", "list", kDefault, Weight::kRefusable},
    {"VEXA.CCC.Guest", "get_info", kDefault, Weight::kRefusable},
    // Users who start or stop a guest want the call to be tried, even if the host seemed gone a moment ago.
    {"VEXA.CCC.Guest", "poweron", kDefault, Weight::kMustGo},
    {"VEXA.CCC.Guest", "shutdown", kDefault, Weight::kMustGo},
    {"VEXA.CCC.Guest", "poweroff", kDefault, Weight::kMustGo},
    {"VEXA.CCC.Guest", "reboot", kDefault, Weight::kMustGo},
};

constexpr std::string_view kCompoundApi = "VEXA.Entry.Request";
constexpr std::string_view kCompoundMethod = "request";

MethodRule Find(std::string_view api, std::string_view method, milliseconds default_timeout) {
  const Row* const row = std::find_if(std::begin(kRows), std::end(kRows),
                                      [&](const Row& it) { return it.api == api && it.method == method; });
  if (row == std::end(kRows)) return {default_timeout, Weight::kOrdinary};
  return {row->timeout.count() == 0 ? default_timeout : std::min(row->timeout, default_timeout), row->weight};
}

}  // namespace

MethodRule RuleOf(const VexaDRCore::Request& request, milliseconds default_timeout) {
  if (request.api() != kCompoundApi || request.method() != kCompoundMethod) {
    return Find(request.api(), request.method(), default_timeout);
  }
  const Json::Value& items = json::Member(request.parameters(), "compound");
  if (!items.isArray() || items.empty()) return {default_timeout, Weight::kOrdinary};
  MethodRule rule{milliseconds(0), Weight::kRefusable};
  for (const Json::Value& item : json::Elements(items)) {
    const MethodRule of_item =
        Find(json::String(json::Member(item, "api")), json::String(json::Member(item, "method")), default_timeout);
    rule.timeout = std::max(rule.timeout, of_item.timeout);
    if (of_item.weight != Weight::kRefusable) rule.weight = Weight::kOrdinary;
  }
  return rule;
}

}  // namespace vexa::transport
