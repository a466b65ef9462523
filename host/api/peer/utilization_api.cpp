// How busy this host is.
#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "host/api/peer/rows.h"
#include "host/machine/cpu_load.h"
#include "host/machine/machine_stats.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

constexpr Json::ArrayIndex kMaxResources = 64;

bool IsListOfNames(const Json::Value& list) {
  return list.size() <= kMaxResources &&
         std::ranges::all_of(list, [](const Json::Value& element) { return element.isString(); });
}

// The resources that the parameter "resource" names.
class RequestedResources {
 public:
  // Not set: the parameter is not valid, and the call has been answered.
  static std::optional<RequestedResources> Read(const Call& call) {
    // Intentional: null means everything. The shared layer always sends the member.
    if (call.request->GetParam("resource", Json::Value()).isNull()) return RequestedResources();
    const auto resource = call.request->GetAndCheckArray("resource", kOptional, IsListOfNames);
    if (!resource.IsInvalid()) return RequestedResources(resource.Get());
    Fail(call, host_error::kBadParameter);
    return std::nullopt;
  }

  bool Contains(const char* name) const { return !names_ || names_->contains(name); }

 private:
  RequestedResources() = default;
  explicit RequestedResources(const Json::Value& names) : names_(std::in_place) {
    for (const Json::Value& name : json::Elements(names)) names_->insert(json::String(name));
  }

  std::optional<std::set<std::string>> names_;  // not set: all of them
};

Json::Value MemoryOf(const machine::MemoryStats& memory) {
  Json::Value value(Json::objectValue);
  value["memory_size"] = static_cast<Json::UInt64>(memory.total);
  value["avail_real"] = static_cast<Json::UInt64>(memory.free);
  value["buffer"] = static_cast<Json::UInt64>(memory.buffers);
  value["cached"] = static_cast<Json::UInt64>(memory.cached);
  return value;
}

// The Add functions leave out a resource that cannot be read.
void AddMemory(const machine::Machine& machine, Json::Value& data) {
  if (const auto memory = machine::ReadMemory(machine)) data["memory"] = MemoryOf(*memory);
}

void AddCpu(machine::CpuSampler& sampler, Json::Value& data) {
  const std::optional<machine::CpuLoad> load = sampler.Read();
  if (!load) return;
  data["cpu"]["user_load"] = load->user;
  data["cpu"]["system_load"] = load->system;
  data["cpu"]["other_load"] = load->other;
}

void AddCounters(const char* name, Json::Value counters, Json::Value& data) {
  if (!counters.isNull()) data[name] = std::move(counters);
}

void SystemUtilization(const machine::Machine& machine, machine::CpuSampler& sampler, const Call& call) {
  const auto requested = RequestedResources::Read(call);
  if (!requested) return;
  Json::Value data(Json::objectValue);
  if (requested->Contains("cpu")) AddCpu(sampler, data);
  if (requested->Contains("memory")) AddMemory(machine, data);
  if (requested->Contains("disk")) AddCounters("disk", machine::DiskCounters(machine), data);
  if (requested->Contains("network")) AddCounters("network", machine::NetworkCounters(machine), data);
  call.response->SetSuccess(data);
}

void MemberUtilization(const machine::Machine& machine, const Call& call) {
  const auto requested = RequestedResources::Read(call);
  if (!requested) return;
  Json::Value data(Json::objectValue);
  if (requested->Contains("memory")) AddMemory(machine, data);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> UtilizationRows(const ServiceParts& parts) {
  const machine::Machine machine = parts.machine;
  const auto sampler = std::make_shared<machine::CpuSampler>(machine);
  const Parameter resource{"resource", ParameterType::kArray, Necessity::kOptional,
                           "The names of the requested resources. If missing or null: all. Unknown names are ignored."};
  // The long lane: without a recent reading, the call samples the processors for 0.2 s.
  return {
      HostRow("VEXA.Core.System.Utilization", "get", LaneKind::kLong,
              [machine, sampler](const Call& call) { SystemUtilization(machine, *sampler, call); },
              "How busy the host is: \"cpu\" (percent), \"memory\" (KiB), counters of each \"disk\" and \"network\".",
              {resource}, {host_error::kBadParameter}),
      HostRow("VEXA.CCC.Cluster.Member", "utilization_get", LaneKind::kQuick,
              [machine](const Call& call) { MemberUtilization(machine, call); },
              "The host's \"memory\" in KiB, as the cluster counts it.", {resource}, {host_error::kBadParameter})};
}

}  // namespace vexa::api
