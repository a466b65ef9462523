#include "cli/recovery_command.h"

#include <iostream>

#include "cli/api_paths.h"
#include "cli/guest_names.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr const char* kRecover = "/webapi/VEXA.Virtualization.Guest/recover";
constexpr const char* kForget = "/webapi/VEXA.Virtualization.Host/forget";

// The id of the host for `word`; failures are printed.
ExitCode FindHost(HttpClient& client, const std::string& word, std::string& id) {
  if (word.empty() || !IsValidUtf8(word)) return Report(NotText("host's id or name"));
  if (IsUuidForm(word)) {
    id = word;
    return ExitCode::kOk;
  }
  const CallOutcome listed = CallApi(client, kHostList, "{}");
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  const Json::Value& hosts = Member(listed.data, "hosts");
  if (!hosts.isArray()) return Report(NotUnderstood("hosts"));
  const Result<std::string> found = FindByName(hosts, kHostNaming, word);
  if (!found) return Report(found.error());
  id = *found;
  return ExitCode::kOk;
}

void Print(const GlobalOptions& global, const std::string& sentence) {
  if (!global.quiet) std::cout << sentence << '\n';
}

}  // namespace

ExitCode RunGuestRecover(const GlobalOptions& global, const RecoverOptions& options) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const CallOutcome listed = ListGuests(client);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  std::vector<NamedGuest> guests;
  if (const ExitCode found = FindGuests(Member(listed.data, "guests"), options.guests, guests); found != ExitCode::kOk)
    return found;
  Json::Value parameters(Json::objectValue);
  if (!options.to_host.empty()) {
    std::string id;
    if (const ExitCode found = FindHost(client, options.to_host, id); found != ExitCode::kOk) return found;
    parameters["host_id"] = id;
  }
  parameters["machine_is_off"] = options.machine == MachineIs::kConfirmedOff;
  parameters["discard_saved"] = options.discard_saved;
  ExitCode result = ExitCode::kOk;
  for (const NamedGuest& guest : guests) {
    parameters["guest_id"] = guest.id;
    const CallOutcome outcome = CallApi(client, kRecover, RenderJson(parameters, JsonLayout::kOneLine));
    if (outcome.exit_code != ExitCode::kOk) {
      result = outcome.exit_code;
      continue;
    }
    Print(global, "Recovered the guest '" + Printable(guest.name) + "': it is shut down, and can be started.");
  }
  return result;
}

ExitCode RunHostForget(const GlobalOptions& global, const ForgetOptions& options) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  Json::Value parameters(Json::objectValue);
  std::string id;
  if (const ExitCode found = FindHost(client, options.host, id); found != ExitCode::kOk) return found;
  parameters["host_id"] = id;
  parameters["machine_is_off"] = options.machine == MachineIs::kConfirmedOff;
  parameters["recover_guests"] = options.recover_guests;
  const CallOutcome outcome = CallApi(client, kForget, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  Print(global, "Removed the host '" + Printable(options.host) + "' from the cluster.");
  return ExitCode::kOk;
}

}  // namespace vexa::cli
