#include "cli/user_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/account_output.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/accounts/account_password.h"
#include "host/accounts/accounts.h"
#include "host/base/json_parse.h"
#include "webapi/error_codes.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxList = 1000;

constexpr const char* kLocalHint =
    "Start vexad. If it has never run, 'vexa user add --local' creates the first account.\n";

constexpr const char* kOwnPasswordHint = "Without a name, 'vexa user passwd' sets your own password.\n";

std::string PathOf(const char* method) { return std::string("/webapi/VEXA.Core.Account/") + method; }

// A name that no account can have is reported without asking the server.
Status CheckAccountName(const std::string& name, const std::string& kind) {
  if (accounts::IsValidAccountName(name)) return {};
  return Error(ErrorCode::kNotFound, fmt::format("The {} name is invalid", kind));
}

Status CheckGroups(const std::vector<std::string>& groups) {
  if (groups.size() > kMaxList) return Error(ErrorCode::kInvalid, "At most 1000 groups can be named");
  for (const std::string& group : groups) {
    if (!accounts::IsValidAccountName(group)) return Error(ErrorCode::kInvalid, "A group cannot have that name");
  }
  return {};
}

Json::Value JsonArray(const std::vector<std::string>& strings) {
  Json::Value array(Json::arrayValue);
  for (const std::string& string : strings) array.append(string);
  return array;
}

Json::Value NameParameter(const std::string& name) {
  Json::Value parameters(Json::objectValue);
  parameters["name"] = name;
  return parameters;
}

CallOutcome PrintLocalHintIfUnreachable(const HttpClient& client, CallOutcome outcome) {
  if (outcome.exit_code == ExitCode::kUnreachable && !client.endpoint().unix_socket.empty()) std::cerr << kLocalHint;
  return outcome;
}

// Whether the failure of level_get means that the next call cannot succeed either. Other failures are ignored: a
// damaged record of grants, for example, does not concern the account itself.
bool IsFinal(const CallOutcome& outcome) {
  switch (outcome.code.value_or(0)) {
    case user_error::kAccountDamaged:
    case user_error::kAccountsUnavailable:
    case user_error::kInternal:
    case user_error::kHostBusy:
      return false;
    default:
      return true;
  }
}

enum class Expected { kFree, kExists };

// Checks before the password prompt whether the user exists. Failures are printed.
ExitCode CheckUser(const GlobalOptions& global, const std::string& name, Expected expected) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  Json::Value parameters = NameParameter(name);
  parameters["kind"] = "user";
  CallOutcome outcome = TryApi(client, PathOf("level_get"), RenderJson(parameters, JsonLayout::kOneLine));
  const bool exists = outcome.exit_code == ExitCode::kOk;
  if (exists && expected == Expected::kExists) return ExitCode::kOk;
  if (exists) {
    return Report(UserExists(Text(Member(outcome.data, "name"))));
  }
  if (outcome.code == user_error::kNoAccount && expected == Expected::kFree) return ExitCode::kOk;
  if (!IsFinal(outcome)) return ExitCode::kOk;
  std::cerr << "vexa: " << outcome.failure << '\n';
  if (outcome.code == user_error::kDenied && expected == Expected::kExists) std::cerr << kOwnPasswordHint;
  return PrintLocalHintIfUnreachable(client, std::move(outcome)).exit_code;
}

// Sets the caller's own password. On standard input the old one is the first line, the new one the second.
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

}  // namespace

Status CheckNewUser(const NewUserOptions& options) {
  if (!accounts::IsValidAccountName(options.name)) return Error(ErrorCode::kInvalid, "A user cannot have that name");
  // (uid_t)-1 means "no id" to system calls.
  if (options.uid == UINT32_MAX) return Error(ErrorCode::kInvalid, "A user cannot have that uid");
  return CheckGroups(options.groups);
}

ExitCode AskNewPassword(PasswordSource source, const std::string& prompt, std::string& password) {
  const Result<std::string> given = GetNewPassword(source, prompt);
  const Status checked = given ? accounts::CheckNewPassword(*given) : Status(given.error());
  if (!checked) {
    Report(checked.error());
    return ExitCode::kUsage;
  }
  password = *given;
  return ExitCode::kOk;
}

CallOutcome CallAccount(const GlobalOptions& global, const char* method, const Json::Value& parameters,
                        Secrecy secrecy) {
  return CallWithClient(global, [&](HttpClient& client) {
    return PrintLocalHintIfUnreachable(
        client, CallApi(client, PathOf(method), RenderJson(parameters, JsonLayout::kOneLine), secrecy));
  });
}

ExitCode ChangeAccount(const GlobalOptions& global, const char* method, const Json::Value& parameters,
                       const std::string& confirmation, Secrecy secrecy) {
  const CallOutcome outcome = CallAccount(global, method, parameters, secrecy);
  return outcome.exit_code == ExitCode::kOk ? PrintConfirmation(global, confirmation) : outcome.exit_code;
}

ExitCode RunUserAdd(const GlobalOptions& global, const NewUserOptions& options) {
  if (const Status checked = CheckNewUser(options); !checked) return Report(checked.error());
  if (const ExitCode free = CheckUser(global, options.name, Expected::kFree); free != ExitCode::kOk) return free;
  std::string password;
  const ExitCode asked =
      AskNewPassword(options.password, fmt::format("Password of {}", Printable(options.name)), password);
  if (asked != ExitCode::kOk) return asked;
  Json::Value parameters = NameParameter(options.name);
  parameters["password"] = password;
  if (!options.groups.empty()) parameters["groups"] = JsonArray(options.groups);
  if (options.uid) parameters["uid"] = *options.uid;
  if (options.advanced) parameters["advanced"] = true;
  return ChangeAccount(global, "user_add", parameters, UserAdded(options.name), Secrecy::kSecret);
}

ExitCode RunUserPasswd(const GlobalOptions& global, const std::optional<std::string>& user, PasswordSource source) {
  if (!user) return SetOwnPassword(global, source);
  const std::string& name = *user;
  if (const Status checked = CheckAccountName(name, "user"); !checked) return Report(checked.error());
  if (const ExitCode known = CheckUser(global, name, Expected::kExists); known != ExitCode::kOk) return known;
  std::string password;
  const ExitCode asked = AskNewPassword(source, fmt::format("New password of {}", Printable(name)), password);
  if (asked != ExitCode::kOk) return asked;
  Json::Value parameters = NameParameter(name);
  parameters["password"] = password;
  return ChangeAccount(global, "password_set", parameters, PasswordChanged(name), Secrecy::kSecret);
}

ExitCode RunUserGroup(const GlobalOptions& global, const std::string& name, const std::vector<std::string>& groups) {
  if (const Status checked = CheckGroups(groups); !checked) return Report(checked.error());
  if (const Status checked = CheckAccountName(name, "user"); !checked) return Report(checked.error());
  Json::Value parameters = NameParameter(name);
  parameters["groups"] = JsonArray(groups);
  return ChangeAccount(global, "groups_set", parameters, GroupsChanged(name));
}

ExitCode RunUserDel(const GlobalOptions& global, const std::string& name) {
  if (const Status checked = CheckAccountName(name, "user"); !checked) return Report(checked.error());
  return ChangeAccount(global, "user_delete", NameParameter(name), UserDeleted(name));
}

ExitCode RunUserList(const GlobalOptions& global) {
  const CallOutcome outcome = CallAccount(global, "user_list", Json::Value(Json::objectValue));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& users = Member(outcome.data, "users");
  return users.isArray() ? PrintUsers(global, users) : Report(MissingInReply("users"));
}

ExitCode RunGroupList(const GlobalOptions& global) {
  const CallOutcome outcome = CallAccount(global, "group_list", Json::Value(Json::objectValue));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& groups = Member(outcome.data, "groups");
  if (!groups.isArray()) return Report(MissingInReply("groups"));
  if (global.json) return PrintJson(groups);
  Table table{{"GROUP", "ID", "ADVANCED", "MEMBERS"}, {}};
  for (const Json::Value& group : groups) {
    table.rows.push_back({Text(Member(group, "name")), Text(Member(group, "gid")),
                          IsTrue(Member(group, "advanced")) ? "yes" : "no", JoinValues(Member(group, "members"))});
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunGroupDel(const GlobalOptions& global, const std::string& name) {
  if (const Status checked = CheckAccountName(name, "group"); !checked) return Report(checked.error());
  return ChangeAccount(global, "group_delete", NameParameter(name),
                       fmt::format("Deleted group '{}'.", Printable(name)));
}

}  // namespace vexa::cli
