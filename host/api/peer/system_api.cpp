// This host's identity and addresses.
#include "host/api/peer/rows.h"
#include "host/machine/machine_stats.h"

namespace vexa::api {
namespace {

void SystemInfo(const machine::Machine& machine, const Call& call) {
  const machine::ProcessorInfo processor = machine::ReadProcessor(machine);
  Json::Value data(Json::objectValue);
  // Only root may read the serial number; "" means unknown.
  data["model"] = machine.ReadLine("/sys/class/dmi/id/product_name");
  data["serial"] = machine.ReadLine("/sys/class/dmi/id/product_serial");
  data["cpu"]["model"] = processor.model;
  data["cpu"]["cores"] = processor.cores;
  data["cpu"]["clock_speed"] = processor.clock_mhz;
  data["memory"] = static_cast<Json::UInt64>(machine::ReadMemory(machine).value_or(machine::MemoryStats()).total);
  data["uptime"] = static_cast<Json::UInt64>(machine::UptimeSeconds(machine));
  data["version"] = machine::SystemVersion(machine);
  call.response->SetSuccess(data);
}

void WebService(const std::function<WebPorts()>& web_ports, const Call& call) {
  const WebPorts ports = web_ports ? web_ports() : WebPorts();
  Json::Value data(Json::objectValue);
  data["http_port"] = ports.http_port;
  data["https_port"] = ports.https_port;
  data["enable_https"] = ports.enable_https;
  data["enable_https_redirect"] = ports.enable_https_redirect;
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> SystemRows(const ServiceParts& parts) {
  return {HostRow(
              "VEXA.Core.System", "info", LaneKind::kQuick,
              [machine = parts.machine](const Call& call) { SystemInfo(machine, call); },
              "The host's model, serial number, processor, memory (KiB), uptime (seconds) and system version."),
          HostRow(
              "VEXA.Core.Web.Orla", "get", LaneKind::kQuick,
              [web_ports = parts.web_ports](const Call& call) { WebService(web_ports, call); },
              "The ports of the host's web service.")};
}

}  // namespace vexa::api
