#include "cli/grant_command.h"

#include <charconv>
#include <iostream>
#include <span>

#include "cli/account_output.h"
#include "cli/guest_names.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "cli/user_command.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxGuests = 1000;

// With "kind", "name" or "id", and "system".
Result<Json::Value> ParametersOf(const GrantTarget& target) {
  const Result<cluster::PrincipalWord> word = WordOf(target);
  if (!word) return word.error();
  Json::Value parameters(Json::objectValue);
  parameters["kind"] = target.kind == AccountKind::kUser ? "user" : "group";
  if (const auto* const id = std::get_if<std::uint32_t>(&*word)) {
    parameters["id"] = *id;
  } else {
    parameters["name"] = std::get<std::string>(*word);
  }
  if (target.source == NameSource::kSystem) parameters["system"] = true;
  return parameters;
}

ExitCode ChangeGuests(const GlobalOptions& global, const char* method, const GrantTarget& target,
                      const std::vector<std::string>& guest_ids, const std::string& done) {
  const Result<std::vector<std::string>> ids = NormalGuestIds(guest_ids);
  if (!ids) return Report(ids.error());
  Result<Json::Value> parameters = ParametersOf(target);
  if (!parameters) return Report(parameters.error());
  for (const std::string& id : *ids) (*parameters)["guests"].append(id);
  return ChangeAccount(global, method, *parameters, done);
}

// The data of a method about the target; failures are printed.
CallOutcome Ask(const GlobalOptions& global, const char* method, const GrantTarget& target) {
  const Result<Json::Value> parameters = ParametersOf(target);
  if (parameters) return CallAccount(global, method, *parameters);
  CallOutcome outcome;
  outcome.exit_code = Report(parameters.error());
  return outcome;
}

void WarnOfDamage(const Json::Value& identifiers) {
  for (const Json::Value& identifier : VexaVirtualization::json::Elements(identifiers)) {
    std::cerr << "vexa: The grants of '" << Printable(Text(identifier))
              << "' cannot be understood, and may have the guest.\n";
  }
}

}  // namespace

Result<cluster::PrincipalWord> WordOf(const GrantTarget& target) {
  const std::string& text = target.name;
  if (target.form == NameForm::kName) {
    if (target.source == NameSource::kAccounts && !base::IsValidAccountName(text)) {
      const char* const kind = target.kind == AccountKind::kUser ? "user" : "group";
      return Error(ErrorCode::kNotFound, std::string("The ") + kind + " name is invalid");
    }
    if (text.empty() || !IsValidUtf8(text)) return NotText("account's name");
    return cluster::PrincipalWord(text);
  }
  std::uint32_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (error != std::errc() || end != text.data() + text.size() || id == UINT32_MAX) {
    return Error(ErrorCode::kInvalid, "'" + text + "' is not an id: give a number from 0 to 4294967294");
  }
  return cluster::PrincipalWord(id);
}

Result<std::vector<std::string>> NormalGuestIds(const std::vector<std::string>& guest_ids) {
  std::vector<std::string> normal;
  for (const std::string& id : guest_ids) {
    normal.push_back(NormalizeUuid(id));
    if (normal.back().empty()) return Error(ErrorCode::kInvalid, "'" + id + "' is not the id of a guest (a UUID)");
  }
  if (normal.size() > kMaxGuests) return Error(ErrorCode::kInvalid, "At most 1000 guests can be named at a time");
  return normal;
}

ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return ChangeGuests(global, "grant", target, guest_ids, Granted(target.name));
}

ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return ChangeGuests(global, "revoke", target, guest_ids, Revoked(target.name));
}

ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, cluster::GrantLevel level) {
  Result<Json::Value> parameters = ParametersOf(target);
  if (!parameters) return Report(parameters.error());
  (*parameters)["advanced"] = level == cluster::GrantLevel::kAdvanced;
  return ChangeAccount(global, "level_set", *parameters, LevelIs(target.name, std::string(cluster::WordOf(level))));
}

ExitCode RunShowLevel(const GlobalOptions& global, const GrantTarget& target) {
  const CallOutcome outcome = Ask(global, "level_get", target);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  std::cout << Printable(Text(Member(outcome.data, "level"))) << '\n';
  return ExitCode::kOk;
}

ExitCode RunDropGrants(const GlobalOptions& global, const GrantTarget& target) {
  const Result<Json::Value> parameters = ParametersOf(target);
  if (!parameters) return Report(parameters.error());
  return ChangeAccount(global, "grants_drop", *parameters, Dropped(target.name));
}

ExitCode RunListGrants(const GlobalOptions& global, const GrantTarget& target) {
  const CallOutcome outcome = Ask(global, "grant_list", target);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& guests = Member(outcome.data, "guests");
  if (!guests.isArray()) return Report(NotUnderstood("grants"));
  if (global.json) return PrintJson(outcome.data);
  const Json::Value& counts = Member(outcome.data, "counts");
  if (counts.isBool() && !IsTrue(counts)) {
    std::cerr << "vexa: This was given to '" << Printable(Text(Member(outcome.data, "given_to")))
              << "' and does not count; 'drop-grants' removes it.\n";
  }
  std::cout << "Level: " << Printable(Text(Member(outcome.data, "level"))) << '\n';
  for (const Json::Value& id : guests) std::cout << Printable(Text(id)) << '\n';
  return ExitCode::kOk;
}

ExitCode RunGuestGrants(const GlobalOptions& global, const std::string& guest) {
  std::string id = NormalizeUuid(guest);
  if (id.empty()) {
    if (guest.empty() || !IsValidUtf8(guest)) return Report(NotText("guest's id or name"));
    const Result<HttpClientOptions> connect = ConnectOptions(global);
    if (!connect) return Report(connect.error());
    HttpClient client(*connect);
    const CallOutcome listed = ListGuests(client);
    if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
    std::vector<NamedGuest> guests;
    const ExitCode found = FindGuests(Member(listed.data, "guests"), {guest}, guests);
    if (found != ExitCode::kOk) return found;
    id = guests.front().id;
  }
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = id;
  const CallOutcome outcome = CallAccount(global, "guest_grant_list", parameters);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& principals = Member(outcome.data, "principals");
  if (!principals.isArray()) return Report(NotUnderstood("grants"));
  if (global.json) return PrintJson(outcome.data);
  WarnOfDamage(Member(outcome.data, "damaged"));
  constexpr Column kColumns[] = {{"KIND", "kind"}, {"NAME", "name"}, {"ID", "id"}, {"LEVEL", "level"}};
  PrintRows(principals, kColumns);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
