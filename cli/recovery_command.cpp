#include "cli/recovery_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/guest_names.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"

namespace vexa::cli {
namespace {

constexpr const char* kRecover = "/webapi/VEXA.Virtualization.Guest/recover";
constexpr const char* kRevoke = "/webapi/VEXA.Virtualization.Host/revoke";
constexpr const char* kForget = "/webapi/VEXA.Virtualization.Host/forget";

}  // namespace

ExitCode RunGuestRecover(const GlobalOptions& global, const RecoverOptions& options) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const CallOutcome listed = ListObjects(client, kGuests);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  std::vector<NamedGuest> guests;
  if (const ExitCode found = FindGuests(Member(listed.data, "guests"), options.guests, guests); found != ExitCode::kOk)
    return found;
  Json::Value parameters(Json::objectValue);
  if (!options.to_host.empty()) {
    std::string id;
    if (const ExitCode found = FindId(client, kHosts, options.to_host, id); found != ExitCode::kOk) return found;
    parameters["host_id"] = id;
  }
  parameters["machine_is_off"] = options.machine == MachineState::kConfirmedOff;
  parameters["discard_saved"] = options.discard_saved;
  ExitCode result = ExitCode::kOk;
  for (const NamedGuest& guest : guests) {
    parameters["guest_id"] = guest.id;
    const CallOutcome outcome = CallApi(client, kRecover, RenderJson(parameters, JsonLayout::kOneLine));
    if (outcome.exit_code != ExitCode::kOk) {
      result = outcome.exit_code;
      continue;
    }
    PrintConfirmation(
        global, fmt::format("Recovered the guest '{}'. It is shut down and can be started.", Printable(guest.name)));
  }
  return result;
}

ExitCode RunHostForget(const GlobalOptions& global, const ForgetOptions& options) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  Json::Value parameters(Json::objectValue);
  std::string id;
  if (const ExitCode found = FindId(client, kHosts, options.host, id); found != ExitCode::kOk) return found;
  parameters["host_id"] = id;
  parameters["machine_is_off"] = options.machine == MachineState::kConfirmedOff;
  parameters["recover_guests"] = options.recover_guests;
  const CallOutcome outcome = CallApi(client, kForget, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  return PrintConfirmation(global, fmt::format("Removed the host '{}' from the cluster.", Printable(options.host)));
}

ExitCode RunHostRevoke(const GlobalOptions& global, const std::string& host) {
  std::string id;
  if (const ExitCode revoked = CallForObject(global, kHosts, kRevoke, host, id); revoked != ExitCode::kOk)
    return revoked;
  return PrintConfirmation(global, fmt::format("All hosts now refuse the certificates of the host '{}'. With a new one "
                                               "('vexa cluster certificate --replace') it is accepted again.",
                                               Printable(host)));
}

}  // namespace vexa::cli
