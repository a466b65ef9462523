#include "cli/settings_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/records/named_record.h"

namespace vexa::cli {
namespace {

constexpr const char* kClusterGet = "/webapi/VEXA.Virtualization.Cluster/get";
constexpr const char* kClusterSet = "/webapi/VEXA.Virtualization.Cluster/set";
constexpr const char* kHostEdit = "/webapi/VEXA.Virtualization.Host/edit";

// Sets the parameter `name` to whether `text` is "on"; "" leaves it out.
void AddSwitch(const std::string& text, const char* name, Json::Value& parameters) {
  if (!text.empty()) parameters[name] = text == "on";
}

std::string OnOrOff(const Json::Value& value) { return IsTrue(value) ? "on" : "off"; }

}  // namespace

ExitCode RunClusterSettings(const GlobalOptions& global, const ClusterSettingsOptions& options) {
  Json::Value parameters(Json::objectValue);
  AddSwitch(options.auto_select_host, "auto_select_host", parameters);
  AddSwitch(options.upgrading, "upgrading", parameters);
  const CallOutcome outcome =
      CallServer(global, parameters.empty() ? kClusterGet : kClusterSet, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  PrintFields(std::cout, {{"Select hosts for guests without one", OnOrOff(Member(outcome.data, "auto_select_host"))},
                          {"Upgrade in progress", OnOrOff(Member(outcome.data, "upgrading"))}});
  return ExitCode::kOk;
}

ExitCode RunHostEdit(const GlobalOptions& global, const HostEditOptions& options) {
  Json::Value parameters(Json::objectValue);
  AddSwitch(options.placement, "placement", parameters);
  if (!options.name.empty()) {
    if (!records::IsRecordName(options.name)) {
      return Report(Error(ErrorCode::kInvalid, "A name is 1 to 128 bytes of UTF-8 without control characters"));
    }
    parameters["name"] = options.name;
  }
  if (parameters.empty()) {
    return Report(Error(ErrorCode::kInvalid, "Nothing to change is named; see 'vexa host edit --help'"));
  }
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  std::string id;
  if (const ExitCode found = FindId(client, kHosts, options.host, id); found != ExitCode::kOk) return found;
  parameters["host_id"] = id;
  const CallOutcome outcome = CallApi(client, kHostEdit, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (!options.name.empty()) {
    PrintConfirmation(
        global, fmt::format("The host '{}' is called '{}' now.", Printable(options.host), Printable(options.name)));
  }
  if (options.placement.empty()) return ExitCode::kOk;
  return PrintConfirmation(global, fmt::format("The host '{}' {} for guests without a host.", Printable(options.host),
                                               options.placement == "on" ? "may be chosen" : "is not chosen"));
}

}  // namespace vexa::cli
