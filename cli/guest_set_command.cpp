#include "cli/guest_set_command.h"

#include <fmt/format.h>

#include <charconv>
#include <iostream>
#include <optional>
#include <set>
#include <utility>

#include "cli/api_paths.h"
#include "cli/guest_devices.h"
#include "cli/guest_pending.h"
#include "cli/listing.h"
#include "cli/local_grant_command.h"
#include "cli/network_command.h"
#include "cli/objects.h"
#include "cli/parallel.h"
#include "cli/power_command.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/accounts/accounts.h"
#include "host/base/json_parse.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::cli {
namespace {

constexpr const char* kSet = "/webapi/VEXA.Virtualization.Guest/set";

// The only right on guests.
constexpr char kUseRight[] = "use";

enum class Right { kAllow, kRevoke };

constexpr const char* kLevelGet = "/webapi/VEXA.Core.Account/level_get";
constexpr const char* kUserList = "/webapi/VEXA.Core.Account/user_list";
constexpr const char* kGroupList = "/webapi/VEXA.Core.Account/group_list";
constexpr const char* kUseIdHint = "\n  Hint: Only administrators may look names up. Use uid:NUMBER or gid:NUMBER.";

struct Principal {
  AccountKind kind = AccountKind::kUser;
  std::optional<std::uint32_t> id;  // not set until it has been looked up
  std::string name;                 // "" when the argument has a number
  Right right = Right::kAllow;
  std::string argument;  // of the command line, for messages
};

Error UnknownPrincipal(const std::string& argument) {
  return Error(
      ErrorCode::kInvalid,
      fmt::format("Unknown user or group '{}'. Use user:NAME, group:NAME, uid:NUMBER or gid:NUMBER", argument));
}

Result<Principal> ParsePrincipal(const std::string& argument, Right right) {
  const std::size_t at = argument.find(':');
  if (at == std::string::npos || at + 1 == argument.size() || !IsValidUtf8(argument)) return UnknownPrincipal(argument);
  const std::string prefix = argument.substr(0, at);
  const std::string rest = argument.substr(at + 1);
  Principal principal;
  principal.kind = prefix == "user" || prefix == "uid" ? AccountKind::kUser : AccountKind::kGroup;
  principal.right = right;
  principal.argument = argument;
  if (prefix == "uid" || prefix == "gid") {
    std::uint32_t id = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), id);
    if (error != std::errc() || end != rest.data() + rest.size() || id == UINT32_MAX) return UnknownPrincipal(argument);
    principal.id = id;
    return principal;
  }
  if (prefix != "user" && prefix != "group") return UnknownPrincipal(argument);
  principal.name = rest;
  return principal;
}

// The principals of "--allow" and "--revoke", before their names are looked up.
Result<std::vector<Principal>> ParsePrincipals(const GuestSetOptions& options) {
  std::vector<Principal> principals;
  for (const auto& [arguments, right] :
       {std::pair(&options.allow, Right::kAllow), std::pair(&options.revoke, Right::kRevoke)}) {
    for (const std::string& argument : *arguments) {
      Result<Principal> principal = ParsePrincipal(argument, right);
      if (!principal) return principal.error();
      principals.push_back(std::move(*principal));
    }
  }
  return principals;
}

// Finds the id in the list of all accounts, which can be read even when the account's record of grants is damaged.
// Failures are printed.
ExitCode FindIdInList(HttpClient& client, Principal& principal) {
  const bool is_user = principal.kind == AccountKind::kUser;
  const CallOutcome outcome = CallApi(client, is_user ? kUserList : kGroupList, "{}");
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  for (const Json::Value& entry :
       VexaVirtualization::json::Elements(Member(outcome.data, is_user ? "users" : "groups"))) {
    if (accounts::LowerCaseName(Text(Member(entry, "name"))) != accounts::LowerCaseName(principal.name)) continue;
    const auto id = Integer(Member(entry, is_user ? "uid" : "gid"));
    if (!id || *id < 0 || *id >= UINT32_MAX) return Report(MissingInReply("id"));
    principal.id = static_cast<std::uint32_t>(*id);
    return ExitCode::kOk;
  }
  return Report(Error(ErrorCode::kNotFound, fmt::format("There is no account '{}'", principal.argument)));
}

// Requests the id of a name from the server; failures are printed.
ExitCode RequestId(HttpClient& client, Principal& principal) {
  Json::Value parameters(Json::objectValue);
  parameters["kind"] = principal.kind == AccountKind::kUser ? "user" : "group";
  parameters["name"] = principal.name;
  const CallOutcome outcome = TryApi(client, kLevelGet, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.code == user_error::kAccountDamaged) return FindIdInList(client, principal);
  if (outcome.exit_code != ExitCode::kOk) {
    const bool is_denied = outcome.code == user_error::kDenied;
    std::cerr << "vexa: " << Printable(principal.argument) << ": " << outcome.failure << (is_denied ? kUseIdHint : "")
              << '\n';
    return outcome.exit_code;
  }
  const auto id = Integer(Member(outcome.data, "id"));
  if (!id || *id < 0 || *id >= UINT32_MAX) return Report(MissingInReply("id"));
  principal.id = static_cast<std::uint32_t>(*id);
  return ExitCode::kOk;
}

// Finds the id of a name; failures are printed.
ExitCode FindPrincipalId(HttpClient& client, const GuestSetOptions& options, Principal& principal) {
  if (principal.id) return ExitCode::kOk;
  if (options.names == NamesFrom::kServer && !options.from_system) return RequestId(client, principal);
  const auto source = options.from_system ? NameSource::kSystem : NameSource::kAccounts;
  AccountPaths paths = options.paths;
  paths.running_daemon = RunningDaemon::kAllow;  // the store is only read
  const Result<cluster::GrantPrincipal> account = FindAccount(paths, {principal.kind, principal.name, source});
  if (!account) return Report(account.error());
  principal.id = account->id;
  return ExitCode::kOk;
}

// Adds the rights of `principals` to the parameters; failures are printed.
ExitCode AddRights(HttpClient& client, const GuestSetOptions& options, std::vector<Principal> principals,
                   Json::Value& parameters) {
  std::set<std::pair<AccountKind, std::uint32_t>> seen;
  for (Principal& principal : principals) {
    if (const ExitCode found = FindPrincipalId(client, options, principal); found != ExitCode::kOk) return found;
    if (!seen.emplace(principal.kind, *principal.id).second) {
      return Report(Error(ErrorCode::kInvalid, fmt::format("The rights of '{}' are named twice", principal.argument)));
    }
    Json::Value element(Json::objectValue);
    element[principal.kind == AccountKind::kUser ? "uid" : "gid"] = *principal.id;
    element["allow"] = principal.right == Right::kAllow;
    element["type"] = kUseRight;
    element["name"] = principal.name;
    parameters["guest_privilege"].append(std::move(element));
  }
  return ExitCode::kOk;
}

Status CheckNotEmpty(const Json::Value& parameters, const std::vector<Principal>& principals) {
  if (!parameters.empty() || !principals.empty()) return {};
  return Error(ErrorCode::kInvalid, "Nothing to change is named; see 'vexa guest set --help'");
}

Json::Value WithGuestId(Json::Value parameters, const NamedGuest& guest) {
  parameters["guest_id"] = guest.id;
  return parameters;
}

// The disk or interface with this id in a list of the reply to "get"; null when absent.
const Json::Value& FindDevice(const Json::Value& guest, const char* list, const char* id_member,
                              const std::string& id) {
  const Json::Value& devices = VexaVirtualization::json::Elements(Member(guest, list));
  for (Json::ArrayIndex i = 0; i < devices.size(); ++i) {
    const Json::Value& device = VexaVirtualization::json::Element(devices, i);
    if (Text(Member(device, id_member)) == id) return device;
  }
  return Json::Value::nullSingleton();
}

// The parameters of "set" that name disks and interfaces of the guest.
struct DeviceParameter {
  const char* parameter;
  const char* list;  // of the reply to "get"
  const char* id;
  const char* what;
};
constexpr DeviceParameter kDeviceParameters[] = {
    {"vdisks_del", "vdisks", "vdisk_id", "disk"},
    {"vdisks_edit", "vdisks", "vdisk_id", "disk"},
    {"vdisks_order", "vdisks", "vdisk_id", "disk"},
    {"vnics_del", "vnics", "vnic_id", "network interface"},
    {"vnics_edit", "vnics", "vnic_id", "network interface"},
};

// Errors that the guest's host would report but that are visible in the guest itself: disks and interfaces that it
// does not have, disks that would shrink.
Status CheckDevices(const Json::Value& guest, const Json::Value& parameters) {
  constexpr std::uint64_t kMibPerGib = 1024;
  for (const DeviceParameter& row : kDeviceParameters) {
    for (const Json::Value& element : Member(parameters, row.parameter)) {
      const std::string id = Text(Member(element, row.id));
      const Json::Value& device = FindDevice(guest, row.list, row.id, id);
      if (device.isNull()) {
        return Error(ErrorCode::kNotFound, fmt::format("The guest has no {} '{}'", row.what, id));
      }
      const std::string size = Text(Member(device, "size"));
      const auto wanted = Integer(Member(element, "vdisk_size"));
      std::uint64_t mib = 0;
      const auto [end, error] = std::from_chars(size.data(), size.data() + size.size(), mib);
      if (!wanted || error != std::errc() || end != size.data() + size.size()) continue;
      if (static_cast<std::uint64_t>(*wanted) * kMibPerGib >= mib) continue;
      return Error(ErrorCode::kConflict, fmt::format("The disk '{}' has {} MiB, and disks do not shrink", id, size));
    }
  }
  return {};
}

// Prints the parameters on standard output, after checking them against the guest's configuration.
ExitCode ShowDryRun(const GlobalOptions& global, HttpClient& client, const NamedGuest& guest,
                    const Json::Value& parameters) {
  const CallOutcome got = CallApi(client, kGuestGet, ParameterJson("guest_id", guest.id));
  if (got.exit_code != ExitCode::kOk) return got.exit_code;
  if (!got.data.isObject()) return Report(MissingInReply("guest"));
  if (const Status checked = CheckDevices(got.data, parameters); !checked) return Report(checked.error());
  PrintJson(WithGuestId(parameters, guest));
  if (!global.quiet) {
    std::cerr << fmt::format(
        "vexa: {}: Nothing was changed, as this is a dry run. What only the guest's host can check "
        "was not checked.\n",
        Printable(guest.name));
  }
  return ExitCode::kOk;
}

std::string SuccessText(const NamedGuest& guest, const Json::Value& parameters) {
  const std::string name = Text(Member(parameters, "name"));
  return name.empty() || name == guest.name ? "edited" : fmt::format("edited and renamed to {}", name);
}

}  // namespace

ExitCode FindGuest(HttpClient& client, const std::string& id_or_name, NamedGuest& guest) {
  const CallOutcome listed = ListObjects(client, kGuests);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  std::vector<NamedGuest> guests;
  const ExitCode found = FindGuests(Member(listed.data, "guests"), {id_or_name}, guests);
  if (found == ExitCode::kOk) guest = guests.front();
  return found;
}

CallOutcome SendEdit(const GlobalOptions& global, HttpClientOptions connect, const NamedGuest& guest,
                     const Json::Value& parameters, const std::function<void()>& on_interrupt) {
  connect.timeout = ActionTimeout(global);
  HttpClient client(std::move(connect));
  CallOutcome outcome;
  ParallelOptions parallel;
  parallel.on_interrupt = [&] {
    std::cerr << fmt::format("vexa: {}: Interrupted after the request was sent and before it was answered.\n",
                             Printable(guest.name));
    on_interrupt();
  };
  const std::string body = RenderJson(WithGuestId(parameters, guest), JsonLayout::kOneLine);
  RunInParallel(1, parallel, [&](std::size_t) { outcome = TryApi(client, kSet, body); });
  return outcome;
}

bool WasGuestEdited(const CallOutcome& outcome) {
  return outcome.exit_code == ExitCode::kOk || outcome.code == user_error::kRightsNotSet ||
         outcome.code == user_error::kEditedWithoutReservation;
}

ExitCode ShowOutcome(const GlobalOptions& global, const NamedGuest& guest, const CallOutcome& outcome,
                     const std::string& text) {
  const bool succeeded = outcome.exit_code == ExitCode::kOk;
  if (!succeeded) std::cerr << "vexa: " << Printable(guest.name) << ": " << text << '\n';
  if (succeeded && !global.quiet && !global.json) {
    std::cout << Printable(guest.name) << ": " << Printable(text) << '\n';
  }
  if (!global.json) return outcome.exit_code;
  Json::Value result(Json::objectValue);
  result["guest_id"] = guest.id;
  result["guest_name"] = guest.name;
  result["success"] = succeeded;
  result["message"] = text;
  if (outcome.code) result["code"] = Json::Int64{*outcome.code};
  PrintJson(result);
  return outcome.exit_code;
}

ExitCode ShowEditResult(const GlobalOptions& global, const NamedGuest& guest, const Json::Value& parameters,
                        const CallOutcome& outcome) {
  if (outcome.exit_code == ExitCode::kOk) {
    const bool shows_pending = !global.quiet && !global.json;
    return ShowOutcome(global, guest, outcome,
                       SuccessText(guest, parameters) + (shows_pending ? PendingText(global, guest) : ""));
  }
  return ShowOutcome(global, guest, outcome, outcome.failure);
}

ExitCode RunGuestSet(const GlobalOptions& global, const GuestSetOptions& options) {
  if (options.guest.empty() || !IsValidUtf8(options.guest)) return Report(EmptyOrNotUtf8("guest's id or name"));
  GuestSetArguments arguments = options.arguments;
  Result<std::vector<Principal>> principals = ParsePrincipals(options);
  if (!principals) return Report(principals.error());
  NamedGuest guest;
  if (HasDeviceNumbers(arguments)) {
    const ExitCode resolved = CallWithClient(global, [&](HttpClient& client) {
                                CallOutcome outcome;
                                outcome.exit_code = FindGuest(client, options.guest, guest);
                                if (outcome.exit_code == ExitCode::kOk) {
                                  outcome.exit_code = ResolveDevices(client, guest.id, arguments);
                                }
                                return outcome;
                              }).exit_code;
    if (resolved != ExitCode::kOk) return resolved;
  }
  Result<Json::Value> parameters = ParametersOf(arguments);
  if (!parameters) return Report(parameters.error());
  if (const Status named = CheckNotEmpty(*parameters, *principals); !named) return Report(named.error());
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  if (const ExitCode found = ResolveNetworks(client, *parameters); found != ExitCode::kOk) return found;
  if (const ExitCode found = ResolveImages(client, *parameters); found != ExitCode::kOk) return found;
  const ExitCode added = AddRights(client, options, *std::move(principals), *parameters);
  if (added != ExitCode::kOk) return added;
  if (guest.id.empty()) {
    if (const ExitCode found = FindGuest(client, options.guest, guest); found != ExitCode::kOk) return found;
  }
  if (!options.apply.empty()) (*parameters)["apply"] = options.apply;
  if (options.dry_run == DryRun::kYes) return ShowDryRun(global, client, guest, *parameters);
  return ShowEditResult(global, guest, *parameters, SendEdit(global, *connect, guest, *parameters));
}

}  // namespace vexa::cli
