// A daemon as a program of its own, with methods for tests of a cluster. Takes vexad's flags; prints "READY <address>"
// when it serves, and stops on SIGTERM.
#include <signal.h>
#include <syslog.h>

#include <cstdio>
#include <functional>
#include <map>
#include <thread>

#include "host/api/request_id.h"
#include "host/api/rows.h"
#include "host/daemon/daemon.h"
#include "json/readers.h"
#include "tests/support/test_row.h"
#include "webapi/error_codes.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/utils.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::api::Access;
using vexa::api::Call;
using vexa::api::LaneKind;

Json::Value Parameter(const Call& call, const char* name) { return call.request->GetParam(name, Json::Value()); }

void WhoAmI(const Call& call) {
  Json::Value data;
  data["host"] = VexaCCC::DB::DBLocalhostID();
  data["caller"] = call.caller.host_id;
  data["acts_for"] = call.caller.acts_for;
  data["request_id"] = std::string(vexa::api::CurrentRequestId());
  call.response->SetSuccess(data);
  (*call.extra_members)["has_fail"] = true;
  (*call.extra_members)["success"] = "cannot be changed";
  (*call.extra_members)["data"] = "cannot be changed";
}

void Slow(const Call& call) {
  std::this_thread::sleep_for(std::chrono::milliseconds(json::Int(Parameter(call, "milliseconds"))));
  call.response->SetSuccess("done");
}

VexaDRCore::Request RequestOf(const Call& call) {
  VexaDRCore::Request request;
  const std::string api = json::String(Parameter(call, "api"));
  request.setAPI(api.empty() ? "VEXA.Test.Host" : api);
  request.setMethod(json::String(Parameter(call, "method")));
  request.setTimeout(json::Int(Parameter(call, "timeout")));
  request.addParam(Parameter(call, "parameters"));
  return request;
}

void Relay(const Call& call) {
  VexaCCC::Sender sender(json::String(Parameter(call, "host_id")));
  call.response->SetSuccess(sender.process(RequestOf(call)).toJson());
}

void RelayToAll(const Call& call) {
  const VexaCCC::MultiResponse responses = VexaCCC::MultiSender::allHosts().process(RequestOf(call));
  Json::Value data(Json::objectValue);
  for (const std::string& id : responses.getHostList()) data[id] = responses.getResponse(id).toJson();
  call.response->SetSuccess(data);
}

// Calls one function of the library with the arguments that the caller names.
void Library(const Call& call) {
  using namespace VexaVirtualization;  // NOLINT: nearly all of it is called
  const auto text = [&](const char* name) { return json::String(Parameter(call, name)); };
  const std::string host = text("host_id");
  const std::string guest = text("guest_id");
  Json::Value out;
  const std::map<std::string, std::function<Json::Value()>> functions{
      {"GetSysUtilization", [&] { return GetSysUtilization(host, call.request->GetParam("", {}), out); }},
      {"GetSysInfo", [&] { return GetSysInfo(host, out); }},
      {"GetVolumeInfo",
       [&] {
         Json::Value parameters(Json::objectValue);
         parameters["volume_path"] = text("volume_path");
         return GetVolumeInfo(host, parameters, out);
       }},
      {"GetVdiskUsage",
       [&] {
         GetVdiskUsage(guest, host, out);
         return Json::Value();
       }},
      {"GetNetStat", [&] { return GetNetStat(host, text("ifname"), out); }},
      {"GetHostResourceInfo", [&] { return GetHostResourceInfo(true, out); }},
      {"GetHostTotalMemory", [&] { return GetHostTotalMemory(host); }},
      {"GetAllInterfaceInfo",
       [&] {
         GetAllInterfaceInfo(out);
         return Json::Value();
       }},
      {"GetInterfaceNameById",
       [&] {
         std::string name;
         const bool found = GetInterfaceNameById(host, text("interface_id"), name);
         out = name;
         return found;
       }},
      {"MacAddrCheck", [&] { return MacAddrCheck(text("mac"), out); }},
      {"GetDefaultVnic", [&] { return GetDefaultVnic(out); }},
      {"CheckGuestRepoCap",
       [&] {
         VMCHECK check{};
         const int result = CheckGuestRepoCap(guest, check);
         out = static_cast<int>(check);
         return result;
       }},
      {"ClearPollTaskOnHost", [&] { return ClearPollTaskOnHost(host, text("task_id")); }},
      {"GetInformation",
       [&] {
         Json::Value record;
         VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Guest, guest).Get(record, VexaCCC::DB::_k::object);
         return Guest::GetInformation(guest, record, out);
       }},
  };
  const auto function = functions.find(text("function"));
  if (function == functions.end()) return call.response->SetError(vexa::user_error::kBadParameter, Json::Value());
  Json::Value data(Json::objectValue);
  data["result"] = function->second();
  data["out"] = std::move(out);
  call.response->SetSuccess(data);
}

vexa::api::ApiRow Row(const char* method, Access access, LaneKind lane, vexa::api::Handler handler) {
  using vexa::api::ParameterType;
  vexa::api::ApiRow row = vexa::test::TestRow("VEXA.Test.Host", method, access, lane, std::move(handler));
  for (const char* name : {"api", "function", "guest_id", "host_id", "ifname", "interface_id", "mac", "method",
                           "task_id", "volume_path"}) {
    row.parameters.push_back(vexa::api::OptionalString(name, "A text."));
  }
  row.parameters.push_back(vexa::api::Optional("milliseconds", ParameterType::kInteger, "A time."));
  row.parameters.push_back(vexa::api::Optional("timeout", ParameterType::kInteger, "A time."));
  row.parameters.push_back(vexa::api::Optional("parameters", ParameterType::kObject, "Those of the method."));
  row.parameters.push_back(vexa::api::Optional("resource", ParameterType::kArray, "Names of resources."));
  return row;
}

}  // namespace

int main(int argc, char** argv) {
  using vexa::daemon::CommandLine;
  const CommandLine command = vexa::daemon::ParseCommandLine(argc, argv);
  if (command.action != CommandLine::Action::kRun) return command.exit_status;
  const auto fail = [](const vexa::Error& error) {
    std::fprintf(stderr, "%s\n", error.ToString().c_str());
    return 1;
  };
  if (const auto problems = vexa::daemon::CheckConfig(command.config); !problems.empty()) {
    vexa::daemon::PrintProblems(problems);
    return 1;
  }
  // Only vexad itself sends the lines where the setting says.
  if (command.config.log != vexa::daemon::LogTarget::kSyslog) ::openlog("transport_host", LOG_PERROR, LOG_DAEMON);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  auto daemon = vexa::daemon::Daemon::Start(
      command.config,
      {Row("whoami", Access::kHost, LaneKind::kQuick, WhoAmI), Row("slow", Access::kHost, LaneKind::kLong, Slow),
       Row("throws", Access::kHost, LaneKind::kQuick, [](const Call&) { throw std::runtime_error("x"); }),
       Row("user", Access::kUser, LaneKind::kQuick, WhoAmI), Row("relay", Access::kUser, LaneKind::kLong, Relay),
       Row("relay_to_all", Access::kUser, LaneKind::kLong, RelayToAll),
       Row("library", Access::kUser, LaneKind::kLong, Library)});
  if (!daemon) return fail(daemon.error());
  std::printf("READY %s\n", (*daemon)->cluster_address().c_str());
  std::fflush(stdout);
  int signal = 0;
  sigwait(&signals, &signal);
  return (*daemon)->Stop(command.config.stop_timeout) ? 0 : 3;
}
