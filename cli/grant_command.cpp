#include "cli/grant_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <span>

#include "cli/account_output.h"
#include "cli/guest_names.h"
#include "cli/listing.h"
#include "cli/object_names.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "cli/user_command.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxGuests = 1000;

// {"kind", "name" or "id", "system"}
Result<Json::Value> ParametersOf(const GrantTarget& target) {
  const Result<cluster::PrincipalNameOrId> name_or_id = ParsePrincipal(target);
  if (!name_or_id) return name_or_id.error();
  Json::Value parameters(Json::objectValue);
  parameters["kind"] = target.kind == AccountKind::kUser ? "user" : "group";
  if (const auto* const id = std::get_if<std::uint32_t>(&*name_or_id)) {
    parameters["id"] = *id;
  } else {
    parameters["name"] = std::get<std::string>(*name_or_id);
  }
  if (target.source == NameSource::kSystem) parameters["system"] = true;
  return parameters;
}

// The ids of guests that are named by id or name. Failures are printed.
ExitCode FindGuestIds(const GlobalOptions& global, const std::vector<std::string>& ids_or_names,
                      std::vector<std::string>& ids) {
  if (!std::ranges::all_of(ids_or_names, [](const std::string& each) { return !each.empty() && IsValidUtf8(each); })) {
    return Report(EmptyOrNotUtf8("guest's id or name"));
  }
  const CallOutcome listed = ListObjects(global, kGuests);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  std::vector<NamedGuest> guests;
  const ExitCode found = FindGuests(Member(listed.data, kGuests.plural), ids_or_names, guests);
  for (const NamedGuest& guest : guests) ids.push_back(guest.id);
  return found;
}

ExitCode ChangeGuests(const GlobalOptions& global, const char* method, const GrantTarget& target,
                      const std::vector<std::string>& guest_ids, const std::string& confirmation) {
  Result<Json::Value> parameters = ParametersOf(target);
  if (!parameters) return Report(parameters.error());
  std::vector<std::string> ids;
  if (const ExitCode found = FindGuestIds(global, guest_ids, ids); found != ExitCode::kOk) return found;
  const Result<std::vector<std::string>> normal = NormalizeGuestIds(ids);
  if (!normal) return Report(normal.error());
  for (const std::string& id : *normal) (*parameters)["guests"].append(id);
  if (target.console) (*parameters)["console"] = true;
  return ChangeAccount(global, method, *parameters, confirmation);
}

// Calls a method about the target; failures are printed.
CallOutcome CallForTarget(const GlobalOptions& global, const char* method, const GrantTarget& target) {
  const Result<Json::Value> parameters = ParametersOf(target);
  if (parameters) return CallAccount(global, method, *parameters);
  CallOutcome outcome;
  outcome.exit_code = Report(parameters.error());
  return outcome;
}

void WarnAboutDamage(const Json::Value& identifiers) {
  for (const Json::Value& identifier : VexaVirtualization::json::Elements(identifiers)) {
    std::cerr << fmt::format("vexa: Cannot read the grants of '{}'; they may include the guest.\n",
                             Printable(Text(identifier)));
  }
}

}  // namespace

Result<cluster::PrincipalNameOrId> ParsePrincipal(const GrantTarget& target) {
  const std::string& text = target.name;
  if (target.form == NameForm::kName) {
    if (target.source == NameSource::kAccounts && !accounts::IsValidAccountName(text)) {
      const char* const kind = target.kind == AccountKind::kUser ? "user" : "group";
      return Error(ErrorCode::kNotFound, fmt::format("The {} name is invalid", kind));
    }
    if (text.empty() || !IsValidUtf8(text)) return EmptyOrNotUtf8("account's name");
    return cluster::PrincipalNameOrId(text);
  }
  std::uint32_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (error != std::errc() || end != text.data() + text.size() || id == UINT32_MAX) {
    return Error(ErrorCode::kInvalid, fmt::format("'{}' is not an id. Use a number from 0 to 4294967294", text));
  }
  return cluster::PrincipalNameOrId(id);
}

Result<std::vector<std::string>> NormalizeGuestIds(const std::vector<std::string>& guest_ids) {
  std::vector<std::string> normal;
  for (const std::string& id : guest_ids) {
    normal.push_back(NormalizeUuid(id));
    if (normal.back().empty()) {
      return Error(ErrorCode::kInvalid, fmt::format("'{}' is not the id of a guest (a UUID)", id));
    }
  }
  if (normal.size() > kMaxGuests) return Error(ErrorCode::kInvalid, "At most 1000 guests can be named at a time");
  return normal;
}

ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return ChangeGuests(global, "grant", target, guest_ids, GrantsAdded(target.name));
}

ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return ChangeGuests(global, "revoke", target, guest_ids, GrantsRevoked(target.name));
}

ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, cluster::GrantLevel level) {
  Result<Json::Value> parameters = ParametersOf(target);
  if (!parameters) return Report(parameters.error());
  (*parameters)["advanced"] = level == cluster::GrantLevel::kAdvanced;
  return ChangeAccount(global, "level_set", *parameters,
                       LevelChanged(target.name, std::string(cluster::GrantLevelName(level))));
}

ExitCode RunShowLevel(const GlobalOptions& global, const GrantTarget& target) {
  const CallOutcome outcome = CallForTarget(global, "level_get", target);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  std::cout << Printable(Text(Member(outcome.data, "level"))) << '\n';
  return ExitCode::kOk;
}

ExitCode RunDropGrants(const GlobalOptions& global, const GrantTarget& target) {
  const Result<Json::Value> parameters = ParametersOf(target);
  if (!parameters) return Report(parameters.error());
  return ChangeAccount(global, "grants_drop", *parameters, GrantsDropped(target.name));
}

ExitCode RunListGrants(const GlobalOptions& global, const GrantTarget& target) {
  const CallOutcome outcome = CallForTarget(global, "grant_list", target);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& guests = Member(outcome.data, "guests");
  if (!guests.isArray()) return Report(MissingInReply("grants"));
  if (global.json) return PrintJson(outcome.data);
  const Json::Value& counts = Member(outcome.data, "counts");
  if (counts.isBool() && !IsTrue(counts)) {
    std::cerr << fmt::format(
        "vexa: These grants belong to another account named '{}' and have no effect. 'drop-grants' removes them.\n",
        Printable(Text(Member(outcome.data, "given_to"))));
  }
  std::cout << "Level: " << Printable(Text(Member(outcome.data, "level"))) << '\n';
  const Json::Value& consoles = Member(outcome.data, "consoles");
  ObjectNames names(global);
  for (const Json::Value& id : guests) {
    const auto& with_console = VexaVirtualization::json::Elements(consoles);
    const bool has_console = std::ranges::find(with_console, id) != with_console.end();
    std::cout << Printable(names.Of(kGuests, Text(id))) << (has_console ? " with its console\n" : "\n");
  }
  return ExitCode::kOk;
}

ExitCode RunGuestGrants(const GlobalOptions& global, const std::string& guest) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  std::string id;
  if (const ExitCode found = FindId(client, kGuests, guest, id); found != ExitCode::kOk) return found;
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = id;
  const CallOutcome outcome = CallAccount(global, "guest_grant_list", parameters);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& principals = Member(outcome.data, "principals");
  if (!principals.isArray()) return Report(MissingInReply("grants"));
  if (global.json) return PrintJson(outcome.data);
  WarnAboutDamage(Member(outcome.data, "damaged"));
  constexpr Column kColumns[] = {
      {"KIND", "kind"}, {"NAME", "name"}, {"ID", "id"}, {"LEVEL", "level"}, {"CONSOLE", "console"}};
  PrintRows(principals, kColumns);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
