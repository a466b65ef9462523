#include "cli/guest_set_command.h"

#include <charconv>
#include <iostream>
#include <optional>
#include <set>
#include <utility>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/local_grant_command.h"
#include "cli/parallel.h"
#include "cli/power_command.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/accounts/accounts.h"
#include "host/base/error_table.h"
#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

constexpr const char* kSet = "/webapi/VEXA.Virtualization.Guest/set";
constexpr int kBadParameter = 401;
constexpr int kRightsNotSet = 1001;
constexpr int kNotReserved = 1600;

constexpr const char* kImageHint = "\nIs there an image with this id? 'vexa image list' shows them.";

// This system's word for rights on guests; there is only one.
constexpr char kRight[] = "use";

enum class Right { kAllow, kRevoke };

constexpr const char* kLevelGet = "/webapi/VEXA.Core.Account/level_get";
constexpr const char* kUserList = "/webapi/VEXA.Core.Account/user_list";
constexpr const char* kGroupList = "/webapi/VEXA.Core.Account/group_list";
constexpr const char* kNumberHint = "\nOnly administrators may look names up: give uid:NUMBER or gid:NUMBER.";

struct Principal {
  AccountKind kind = AccountKind::kUser;
  std::optional<std::uint32_t> id;
  std::string name;  // "" for a number
  Right right = Right::kAllow;
  std::string word;  // as it was given
};

Error UnknownPrincipal(const std::string& word) {
  return Error(ErrorCode::kInvalid,
               "Unknown user or group '" + word + "'. Use user:NAME, group:NAME, uid:NUMBER or gid:NUMBER");
}

Result<Principal> ParsePrincipal(const std::string& word, Right right) {
  const std::size_t at = word.find(':');
  if (at == std::string::npos || at + 1 == word.size() || !IsValidUtf8(word)) return UnknownPrincipal(word);
  const std::string prefix = word.substr(0, at);
  const std::string rest = word.substr(at + 1);
  Principal principal;
  principal.kind = prefix == "user" || prefix == "uid" ? AccountKind::kUser : AccountKind::kGroup;
  principal.right = right;
  principal.word = word;
  if (prefix == "uid" || prefix == "gid") {
    std::uint32_t id = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), id);
    if (error != std::errc() || end != rest.data() + rest.size() || id == UINT32_MAX) return UnknownPrincipal(word);
    principal.id = id;
    return principal;
  }
  if (prefix != "user" && prefix != "group") return UnknownPrincipal(word);
  principal.name = rest;
  return principal;
}

// All of "--allow" and "--revoke", not looked up yet.
Result<std::vector<Principal>> ParsePrincipals(const GuestSetOptions& options) {
  std::vector<Principal> principals;
  for (const auto& [words, right] :
       {std::pair(&options.allow, Right::kAllow), std::pair(&options.revoke, Right::kRevoke)}) {
    for (const std::string& word : *words) {
      Result<Principal> principal = ParsePrincipal(word, right);
      if (!principal) return principal.error();
      principals.push_back(std::move(*principal));
    }
  }
  return principals;
}

// The id of the name in the list of all accounts, which does not depend on the account's record of grants. Failures are
// printed.
ExitCode FindInList(HttpClient& client, Principal& principal) {
  const bool is_user = principal.kind == AccountKind::kUser;
  const CallOutcome outcome = CallApi(client, is_user ? kUserList : kGroupList, "{}");
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  for (const Json::Value& entry :
       VexaVirtualization::json::Elements(Member(outcome.data, is_user ? "users" : "groups"))) {
    if (base::FoldedName(Text(Member(entry, "name"))) != base::FoldedName(principal.name)) continue;
    const auto id = Integer(Member(entry, is_user ? "uid" : "gid"));
    if (!id || *id < 0 || *id >= UINT32_MAX) return Report(NotUnderstood("id"));
    principal.id = static_cast<std::uint32_t>(*id);
    return ExitCode::kOk;
  }
  return Report(Error(ErrorCode::kNotFound, "There is no account '" + principal.word + "'"));
}

// Asks the server for the id of a name; failures are printed.
ExitCode AskForId(HttpClient& client, Principal& principal) {
  Json::Value parameters(Json::objectValue);
  parameters["kind"] = principal.kind == AccountKind::kUser ? "user" : "group";
  parameters["name"] = principal.name;
  const CallOutcome outcome = TryApi(client, kLevelGet, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.code == webapi::kErrorAccountDamaged) return FindInList(client, principal);
  if (outcome.exit_code != ExitCode::kOk) {
    const bool is_denied = outcome.code == webapi::kErrorDenied;
    std::cerr << "vexa: " << Printable(principal.word) << ": " << outcome.failure << (is_denied ? kNumberHint : "")
              << '\n';
    return outcome.exit_code;
  }
  const auto id = Integer(Member(outcome.data, "id"));
  if (!id || *id < 0 || *id >= UINT32_MAX) return Report(NotUnderstood("id"));
  principal.id = static_cast<std::uint32_t>(*id);
  return ExitCode::kOk;
}

// Finds the id of a name; failures are printed.
ExitCode FindId(HttpClient& client, const GuestSetOptions& options, Principal& principal) {
  if (principal.id) return ExitCode::kOk;
  if (options.names == NamesFrom::kServer && !options.from_system) return AskForId(client, principal);
  const auto source = options.from_system ? NameSource::kSystem : NameSource::kAccounts;
  AccountPlaces places = options.places;
  places.daemon = BesideDaemon::kAllow;  // the names are looked up, and the daemon changes the guest
  const Result<cluster::GrantPrincipal> account = FindAccount(places, {principal.kind, principal.name, source});
  if (!account) return Report(account.error());
  principal.id = account->id;
  return ExitCode::kOk;
}

// Adds the rights of `principals` to the parameters; failures are printed.
ExitCode AddRights(HttpClient& client, const GuestSetOptions& options, std::vector<Principal> principals,
                   Json::Value& parameters) {
  std::set<std::pair<AccountKind, std::uint32_t>> seen;
  for (Principal& principal : principals) {
    if (const ExitCode found = FindId(client, options, principal); found != ExitCode::kOk) return found;
    if (!seen.emplace(principal.kind, *principal.id).second) {
      return Report(Error(ErrorCode::kInvalid, "The rights of '" + principal.word + "' are named twice"));
    }
    Json::Value element(Json::objectValue);
    element[principal.kind == AccountKind::kUser ? "uid" : "gid"] = *principal.id;
    element["allow"] = principal.right == Right::kAllow;
    element["type"] = kRight;
    element["name"] = principal.name;
    parameters["guest_privilege"].append(std::move(element));
  }
  return ExitCode::kOk;
}

Status CheckNotEmpty(const Json::Value& parameters, const std::vector<Principal>& principals) {
  if (!parameters.empty() || !principals.empty()) return {};
  return Error(ErrorCode::kInvalid, "Nothing to change is named; see 'vexa guest set --help'");
}

Json::Value WithGuest(Json::Value parameters, const NamedGuest& guest) {
  parameters["guest_id"] = guest.id;
  return parameters;
}

// The element with this id in a list of the reply to "get"; null when absent.
const Json::Value& PartOf(const Json::Value& guest, const char* list, const char* id_member, const std::string& id) {
  const Json::Value& parts = VexaVirtualization::json::Elements(Member(guest, list));
  for (Json::ArrayIndex i = 0; i < parts.size(); ++i) {
    const Json::Value& part = VexaVirtualization::json::Element(parts, i);
    if (Text(Member(part, id_member)) == id) return part;
  }
  return Json::Value::nullSingleton();
}

struct PartRow {
  const char* parameter;
  const char* list;  // of the reply to "get"
  const char* id;
  const char* what;
};
constexpr PartRow kParts[] = {
    {"vdisks_del", "vdisks", "vdisk_id", "disk"},
    {"vdisks_edit", "vdisks", "vdisk_id", "disk"},
    {"vdisks_order", "vdisks", "vdisk_id", "disk"},
    {"vnics_del", "vnics", "vnic_id", "network interface"},
    {"vnics_edit", "vnics", "vnic_id", "network interface"},
};

// Errors that the guest's host would report but that are visible in the guest itself: parts that it does not have,
// disks that would shrink.
Status CheckParts(const Json::Value& guest, const Json::Value& parameters) {
  constexpr std::uint64_t kMibPerGib = 1024;
  for (const PartRow& row : kParts) {
    for (const Json::Value& element : Member(parameters, row.parameter)) {
      const std::string id = Text(Member(element, row.id));
      const Json::Value& part = PartOf(guest, row.list, row.id, id);
      if (part.isNull()) {
        return Error(ErrorCode::kNotFound, std::string("The guest has no ") + row.what + " '" + id + "'");
      }
      const std::string size = Text(Member(part, "size"));
      const auto wanted = Integer(Member(element, "vdisk_size"));
      std::uint64_t mib = 0;
      const auto [end, error] = std::from_chars(size.data(), size.data() + size.size(), mib);
      if (!wanted || error != std::errc() || end != size.data() + size.size()) continue;
      if (static_cast<std::uint64_t>(*wanted) * kMibPerGib >= mib) continue;
      return Error(ErrorCode::kConflict, "The disk '" + id + "' has " + size + " MiB, and disks do not shrink");
    }
  }
  return {};
}

// Prints the parameters on standard output, once it is known that the guest can be read.
ExitCode ShowDryRun(const GlobalOptions& global, HttpClient& client, const NamedGuest& guest,
                    const Json::Value& parameters) {
  const CallOutcome got = CallApi(client, kGuestGet, OneParameter("guest_id", guest.id));
  if (got.exit_code != ExitCode::kOk) return got.exit_code;
  if (!got.data.isObject()) return Report(NotUnderstood("guest"));
  if (const Status checked = CheckParts(got.data, parameters); !checked) return Report(checked.error());
  PrintJson(WithGuest(parameters, guest));
  if (!global.quiet) {
    std::cerr << "vexa: " << Printable(guest.name)
              << ": Nothing was changed, as this is a dry run. What only the guest's host can check was not checked.\n";
  }
  return ExitCode::kOk;
}

std::string SuccessText(const NamedGuest& guest, const Json::Value& parameters) {
  const std::string name = Text(Member(parameters, "name"));
  return name.empty() || name == guest.name ? "edited" : "edited and renamed to " + name;
}

}  // namespace

ExitCode FindGuest(HttpClient& client, const std::string& word, NamedGuest& guest) {
  const CallOutcome listed = ListGuests(client);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  std::vector<NamedGuest> guests;
  const ExitCode found = FindGuests(Member(listed.data, "guests"), {word}, guests);
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
    std::cerr << "vexa: " << Printable(guest.name)
              << ": Interrupted after the request was sent and before it was answered.\n";
    on_interrupt();
  };
  const std::string body = RenderJson(WithGuest(parameters, guest), JsonLayout::kOneLine);
  RunInParallel(1, parallel, [&](std::size_t) { outcome = TryApi(client, kSet, body); });
  return outcome;
}

bool WasEdited(const CallOutcome& outcome) {
  return outcome.exit_code == ExitCode::kOk || outcome.code == kRightsNotSet || outcome.code == kNotReserved;
}

ExitCode ShowOutcome(const GlobalOptions& global, const NamedGuest& guest, const CallOutcome& outcome,
                     const std::string& text) {
  const bool is_well = outcome.exit_code == ExitCode::kOk;
  if (!is_well) std::cerr << "vexa: " << Printable(guest.name) << ": " << text << '\n';
  if (is_well && !global.quiet && !global.json) {
    std::cout << Printable(guest.name) << ": " << Printable(text) << '\n';
  }
  if (!global.json) return outcome.exit_code;
  Json::Value result(Json::objectValue);
  result["guest_id"] = guest.id;
  result["guest_name"] = guest.name;
  result["success"] = is_well;
  result["message"] = text;
  if (outcome.code) result["code"] = Json::Int64{*outcome.code};
  PrintJson(result);
  return outcome.exit_code;
}

ExitCode ShowEdit(const GlobalOptions& global, const NamedGuest& guest, const Json::Value& parameters,
                  const CallOutcome& outcome) {
  if (outcome.exit_code == ExitCode::kOk) return ShowOutcome(global, guest, outcome, SuccessText(guest, parameters));
  // All other causes of this answer have been ruled out before.
  const bool is_unknown_image = outcome.code == kBadParameter && parameters.isMember("iso_images");
  return ShowOutcome(global, guest, outcome, outcome.failure + (is_unknown_image ? kImageHint : ""));
}

ExitCode RunGuestSet(const GlobalOptions& global, const GuestSetOptions& options) {
  if (options.guest.empty() || !IsValidUtf8(options.guest)) return Report(NotText("guest's id or name"));
  Result<Json::Value> parameters = ParametersOf(options.words);
  if (!parameters) return Report(parameters.error());
  Result<std::vector<Principal>> principals = ParsePrincipals(options);
  if (!principals) return Report(principals.error());
  if (const Status named = CheckNotEmpty(*parameters, *principals); !named) return Report(named.error());
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const ExitCode added = AddRights(client, options, *std::move(principals), *parameters);
  if (added != ExitCode::kOk) return added;
  NamedGuest guest;
  if (const ExitCode found = FindGuest(client, options.guest, guest); found != ExitCode::kOk) return found;
  if (options.dry_run == DryRun::kYes) return ShowDryRun(global, client, guest, *parameters);
  return ShowEdit(global, guest, *parameters, SendEdit(global, *connect, guest, *parameters));
}

}  // namespace vexa::cli
