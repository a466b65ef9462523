#include "cli/user_command.h"

#include <iostream>

#include "cli/account_output.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/accounts/account_password.h"
#include "host/accounts/accounts.h"
#include "host/base/error_table.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxList = 1000;

constexpr const char* kLocalHint =
    "Start vexad. Where it has never run, 'vexa user add --local' makes the first account.\n";

constexpr const char* kOwnHint = "Without a name, 'vexa user passwd' sets your own password.\n";

std::string PathOf(const char* method) { return std::string("/webapi/VEXA.Core.Account/") + method; }

// The server need not be asked about a name that no account can have.
Status CheckKnown(const std::string& name, const std::string& kind) {
  if (base::IsValidAccountName(name)) return {};
  return Error(ErrorCode::kNotFound, "The " + kind + " name is invalid");
}

Status CheckGroups(const std::vector<std::string>& groups) {
  if (groups.size() > kMaxList) return Error(ErrorCode::kInvalid, "At most 1000 groups can be named");
  for (const std::string& group : groups) {
    if (!base::IsValidAccountName(group)) return Error(ErrorCode::kInvalid, "A group cannot have that name");
  }
  return {};
}

Json::Value ArrayOf(const std::vector<std::string>& texts) {
  Json::Value array(Json::arrayValue);
  for (const std::string& text : texts) array.append(text);
  return array;
}

Json::Value Named(const std::string& name) {
  Json::Value parameters(Json::objectValue);
  parameters["name"] = name;
  return parameters;
}

CallOutcome WithLocalHint(const HttpClient& client, CallOutcome outcome) {
  if (outcome.exit_code == ExitCode::kUnreachable && !client.endpoint().unix_socket.empty()) std::cerr << kLocalHint;
  return outcome;
}

// Whether level_get has said that the call which follows cannot succeed. A damaged record of grants, for one, says
// nothing about the account.
bool IsFinal(const CallOutcome& outcome) {
  switch (outcome.code.value_or(0)) {
    case webapi::kErrorAccountDamaged:
    case webapi::kErrorAccountsUnavailable:
    case webapi::kErrorInternal:
    case webapi::kErrorBusy:
      return false;
    default:
      return true;
  }
}

enum class Wanted { kFree, kTaken };

// Before a password is asked for in vain: whether there is a user of the name. Failures are printed.
ExitCode CheckUser(const GlobalOptions& global, const std::string& name, Wanted wanted) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  Json::Value parameters = Named(name);
  parameters["kind"] = "user";
  CallOutcome outcome = TryApi(client, PathOf("level_get"), RenderJson(parameters, JsonLayout::kOneLine));
  const bool is_there = outcome.exit_code == ExitCode::kOk;
  if (is_there && wanted == Wanted::kTaken) return ExitCode::kOk;
  if (is_there) {
    const std::string known = Text(Member(outcome.data, "name"));
    return Report(Error(ErrorCode::kConflict, "There is a user '" + known + "' already"));
  }
  if (outcome.code == webapi::kErrorNoAccount && wanted == Wanted::kFree) return ExitCode::kOk;
  if (!IsFinal(outcome)) return ExitCode::kOk;
  std::cerr << "vexa: " << outcome.failure << '\n';
  if (outcome.code == webapi::kErrorDenied && wanted == Wanted::kTaken) std::cerr << kOwnHint;
  return WithLocalHint(client, std::move(outcome)).exit_code;
}

// The caller's own password: on standard input the old one is the first line, the new one the second.
ExitCode SetOwnPassword(const GlobalOptions& global, PasswordSource source) {
  const Result<std::string> old_password = GetPassword(source, "Old password");
  if (!old_password) {
    Report(old_password.error());
    return ExitCode::kUsage;
  }
  if (!IsValidUtf8(*old_password)) return Report(Error(ErrorCode::kInvalid, "The password is not valid UTF-8"));
  Json::Value parameters(Json::objectValue);
  parameters["old_password"] = *old_password;
  std::string password;
  if (const ExitCode asked = AskNewPassword(source, "New password", password); asked != ExitCode::kOk) return asked;
  parameters["password"] = password;
  return ChangeAccount(global, "password_set", parameters, "Changed your password.", Secrecy::kSecret);
}

std::string Joined(const Json::Value& texts) {
  std::string joined;
  for (const Json::Value& text : VexaVirtualization::json::Elements(texts)) {
    joined += (joined.empty() ? "" : ", ") + Text(text);
  }
  return joined;
}

}  // namespace

Status CheckNewUser(const NewUserOptions& options) {
  if (!base::IsValidAccountName(options.name)) return Error(ErrorCode::kInvalid, "A user cannot have that name");
  // (uid_t)-1 means "no id" to system calls.
  if (options.uid == UINT32_MAX) return Error(ErrorCode::kInvalid, "A user cannot have that uid");
  return CheckGroups(options.groups);
}

ExitCode AskNewPassword(PasswordSource source, const std::string& prompt, std::string& password) {
  const Result<std::string> given = GetNewPassword(source, prompt);
  const Status checked = given ? base::CheckNewPassword(*given) : Status(given.error());
  if (!checked) {
    Report(checked.error());
    return ExitCode::kUsage;
  }
  password = *given;
  return ExitCode::kOk;
}

CallOutcome CallAccount(const GlobalOptions& global, const char* method, const Json::Value& parameters,
                        Secrecy secrecy) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) {
    CallOutcome outcome;
    outcome.exit_code = Report(connect.error());
    return outcome;
  }
  HttpClient client(*connect);
  return WithLocalHint(client, CallApi(client, PathOf(method), RenderJson(parameters, JsonLayout::kOneLine), secrecy));
}

ExitCode ChangeAccount(const GlobalOptions& global, const char* method, const Json::Value& parameters,
                       const std::string& done, Secrecy secrecy) {
  const CallOutcome outcome = CallAccount(global, method, parameters, secrecy);
  return outcome.exit_code == ExitCode::kOk ? Say(global, done) : outcome.exit_code;
}

ExitCode RunUserAdd(const GlobalOptions& global, const NewUserOptions& options) {
  if (const Status checked = CheckNewUser(options); !checked) return Report(checked.error());
  if (const ExitCode free = CheckUser(global, options.name, Wanted::kFree); free != ExitCode::kOk) return free;
  std::string password;
  const ExitCode asked = AskNewPassword(options.password, "Password of " + Printable(options.name), password);
  if (asked != ExitCode::kOk) return asked;
  Json::Value parameters = Named(options.name);
  parameters["password"] = password;
  if (!options.groups.empty()) parameters["groups"] = ArrayOf(options.groups);
  if (options.uid) parameters["uid"] = *options.uid;
  if (options.advanced) parameters["advanced"] = true;
  return ChangeAccount(global, "user_add", parameters, "Added user '" + Printable(options.name) + "'.",
                       Secrecy::kSecret);
}

ExitCode RunUserPasswd(const GlobalOptions& global, const std::optional<std::string>& whose, PasswordSource source) {
  if (!whose) return SetOwnPassword(global, source);
  const std::string& name = *whose;
  if (const Status checked = CheckKnown(name, "user"); !checked) return Report(checked.error());
  if (const ExitCode known = CheckUser(global, name, Wanted::kTaken); known != ExitCode::kOk) return known;
  std::string password;
  const ExitCode asked = AskNewPassword(source, "New password of " + Printable(name), password);
  if (asked != ExitCode::kOk) return asked;
  Json::Value parameters = Named(name);
  parameters["password"] = password;
  return ChangeAccount(global, "password_set", parameters, "Changed the password of '" + Printable(name) + "'.",
                       Secrecy::kSecret);
}

ExitCode RunUserGroup(const GlobalOptions& global, const std::string& name, const std::vector<std::string>& groups) {
  if (const Status checked = CheckGroups(groups); !checked) return Report(checked.error());
  if (const Status checked = CheckKnown(name, "user"); !checked) return Report(checked.error());
  Json::Value parameters = Named(name);
  parameters["groups"] = ArrayOf(groups);
  return ChangeAccount(global, "groups_set", parameters, "Changed the groups of '" + Printable(name) + "'.");
}

ExitCode RunUserDel(const GlobalOptions& global, const std::string& name) {
  if (const Status checked = CheckKnown(name, "user"); !checked) return Report(checked.error());
  return ChangeAccount(global, "user_delete", Named(name), "Deleted user '" + Printable(name) + "'.");
}

ExitCode RunUserList(const GlobalOptions& global) {
  const CallOutcome outcome = CallAccount(global, "user_list", Json::Value(Json::objectValue));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& users = Member(outcome.data, "users");
  return users.isArray() ? PrintUsers(global, users) : Report(NotUnderstood("users"));
}

ExitCode RunGroupList(const GlobalOptions& global) {
  const CallOutcome outcome = CallAccount(global, "group_list", Json::Value(Json::objectValue));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& groups = Member(outcome.data, "groups");
  if (!groups.isArray()) return Report(NotUnderstood("groups"));
  if (global.json) return PrintJson(groups);
  Table table{{"GROUP", "ID", "ADVANCED", "MEMBERS"}, {}};
  for (const Json::Value& group : groups) {
    table.rows.push_back({Text(Member(group, "name")), Text(Member(group, "gid")),
                          IsTrue(Member(group, "advanced")) ? "yes" : "no", Joined(Member(group, "members"))});
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunGroupDel(const GlobalOptions& global, const std::string& name) {
  if (const Status checked = CheckKnown(name, "group"); !checked) return Report(checked.error());
  return ChangeAccount(global, "group_delete", Named(name), "Deleted group '" + Printable(name) + "'.");
}

}  // namespace vexa::cli
