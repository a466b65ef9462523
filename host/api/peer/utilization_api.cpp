// How busy this host is.
#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "host/api/peer/rows.h"
#include "host/machine/cpu_load.h"
#include "host/machine/figures.h"
#include "json/readers.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
using webapi::Call;
using webapi::LaneKind;

constexpr Json::ArrayIndex kMaxResources = 64;

bool IsListOfNames(const Json::Value& list) {
  return list.size() <= kMaxResources &&
         std::ranges::all_of(list, [](const Json::Value& element) { return element.isString(); });
}

// The requested resources.
class Wanted {
 public:
  // Not set: the parameter is not valid, and the call has been answered.
  static std::optional<Wanted> Of(const Call& call) {
    // Intentional: null means everything. The shared layer sends the member whether or not its caller gave one.
    if (call.request->GetParam("resource", Json::Value()).isNull()) return Wanted();
    const auto resource = call.request->GetAndCheckArray("resource", kOptional, IsListOfNames);
    if (!resource.IsInvalid()) return Wanted(resource.Get());
    Fail(call, webapi::kErrorBadParameter);
    return std::nullopt;
  }

  bool Has(const char* name) const { return !names_ || names_->contains(name); }

 private:
  Wanted() = default;
  explicit Wanted(const Json::Value& names) : names_(std::in_place) {
    for (const Json::Value& name : json::Elements(names)) names_->insert(json::String(name));
  }

  std::optional<std::set<std::string>> names_;  // not set: all of them
};

Json::Value MemoryOf(const MemoryFigures& memory) {
  Json::Value value(Json::objectValue);
  value["memory_size"] = static_cast<Json::UInt64>(memory.total);
  value["avail_real"] = static_cast<Json::UInt64>(memory.free);
  value["buffer"] = static_cast<Json::UInt64>(memory.buffers);
  value["cached"] = static_cast<Json::UInt64>(memory.cached);
  return value;
}

// Adds the known values. A resource that cannot be read is left out instead of guessed.
void PutMemory(const Machine& machine, Json::Value& data) {
  if (const auto memory = ReadMemory(machine)) data["memory"] = MemoryOf(*memory);
}

void PutCpu(CpuSampler& sampler, Json::Value& data) {
  const std::optional<CpuLoad> load = sampler.Read();
  if (!load) return;
  data["cpu"]["user_load"] = load->user;
  data["cpu"]["system_load"] = load->system;
  data["cpu"]["other_load"] = load->other;
}

void PutCounters(const char* name, Json::Value counters, Json::Value& data) {
  if (!counters.isNull()) data[name] = std::move(counters);
}

void SystemUtilization(const Machine& machine, CpuSampler& sampler, const Call& call) {
  const std::optional<Wanted> wanted = Wanted::Of(call);
  if (!wanted) return;
  Json::Value data(Json::objectValue);
  if (wanted->Has("cpu")) PutCpu(sampler, data);
  if (wanted->Has("memory")) PutMemory(machine, data);
  if (wanted->Has("disk")) PutCounters("disk", DiskCounters(machine), data);
  if (wanted->Has("network")) PutCounters("network", NetworkCounters(machine), data);
  call.response->SetSuccess(data);
}

void MemberUtilization(const Machine& machine, const Call& call) {
  const std::optional<Wanted> wanted = Wanted::Of(call);
  if (!wanted) return;
  Json::Value data(Json::objectValue);
  if (wanted->Has("memory")) PutMemory(machine, data);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<webapi::ApiRow> UtilizationRows(const ServiceParts& parts) {
  const Machine machine = parts.machine;
  const auto sampler = std::make_shared<CpuSampler>(machine);
  const webapi::Parameter resource{
      "resource", webapi::ParameterType::kArray, webapi::Necessity::kOptional,
      "The names of the requested resources. If missing or null: all. Unknown names are ignored."};
  // The long lane: without a recent reading, the call samples the processors for 0.2 s.
  return {
      HostRow("VEXA.Core.System.Utilization", "get", LaneKind::kLong,
              [machine, sampler](const Call& call) { SystemUtilization(machine, *sampler, call); },
              "How busy the host is: \"cpu\" (percent), \"memory\" (KiB), counters of each \"disk\" and \"network\".",
              {resource}, {webapi::kErrorBadParameter}),
      HostRow("VEXA.CCC.Cluster.Member", "utilization_get", LaneKind::kQuick,
              [machine](const Call& call) { MemberUtilization(machine, call); },
              "The host's \"memory\" in KiB, as the cluster counts it.", {resource}, {webapi::kErrorBadParameter})};
}

}  // namespace vexa::services
