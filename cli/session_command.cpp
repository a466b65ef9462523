#include "cli/session_command.h"

#include <fmt/format.h>

#include <pwd.h>
#include <unistd.h>

#include <iostream>

#include "cli/contexts.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr const char* kLogin = "/webapi/VEXA.Core.Session/login";
constexpr const char* kLogout = "/webapi/VEXA.Core.Session/logout";
constexpr int kHttpNotFound = 404;
constexpr const char* kRights = "/webapi/VEXA.Core.Session/rights";
constexpr const char* kInfo = "/webapi/VEXA.Core.Session/info";

std::string OwnName() {
  const passwd* entry = ::getpwuid(::geteuid());
  return entry && entry->pw_name ? entry->pw_name : "";
}

// The server to log in to. A saved login that is damaged is ignored, because the login replaces it.
Result<Endpoint> ChooseLoginEndpoint(const GlobalOptions& global) {
  const Result<std::optional<SavedLogin>> saved = LoadLogin();
  Result<Endpoint> endpoint = ChooseEndpoint(global, saved ? *saved : std::nullopt);
  if (endpoint && !endpoint->unix_socket.empty()) {
    return Error(
        ErrorCode::kInvalid,
        fmt::format("Name the server with --server URL. On the Unix socket '{}' your system account identifies you, "
                    "and no login is needed",
                    endpoint->unix_socket));
  }
  return endpoint;
}

// The guests that the caller may use.
void PrintGuests(const GlobalOptions& global, const Json::Value& rights) {
  if (IsTrue(Member(rights, "all_guests"))) {
    std::cout << "\nYou may use all guests, with their consoles.\n";
    return;
  }
  const Json::Value& guests = Member(rights, "guests");
  if (!guests.isArray()) return;
  if (guests.empty()) {
    std::cout << "\nNo guests were granted to you. An administrator can: 'vexa user grant'.\n";
    return;
  }
  constexpr Column kColumns[] = {{"ID", "guest_id", true}, {"GUEST", "guest_name"}, {"CONSOLE", "console"}};
  std::cout << '\n';
  PrintRows(guests, kColumns, global.ids ? Ids::kShown : Ids::kHidden);
}

}  // namespace

ExitCode RunLogin(const GlobalOptions& given, const LoginOptions& options) {
  const Result<GlobalOptions> applied = WithContext(given);
  if (!applied) return Report(applied.error());
  const GlobalOptions& global = *applied;
  const Result<Endpoint> endpoint = ChooseLoginEndpoint(global);
  if (!endpoint) return Report(endpoint.error());
  if (IsExposed(*endpoint) && !global.insecure_http) {
    // Fails before the user types a password.
    return Report(ExposedError(*endpoint));
  }
  const std::string user = !options.user.empty()          ? options.user
                           : !global.context_user.empty() ? global.context_user
                                                          : OwnName();
  if (!IsValidUtf8(user)) return Report(Error(ErrorCode::kInvalid, "The user's name is not valid UTF-8"));
  const Result<std::string> password =
      GetPassword(options.password, fmt::format("Password of {} at {}", Printable(user), Printable(endpoint->url)));
  if (!password) {
    Report(password.error());
    return ExitCode::kUsage;
  }
  if (!IsValidUtf8(*password)) return Report(Error(ErrorCode::kInvalid, "The password is not valid UTF-8"));

  Json::Value body;
  body["user"] = user;
  body["password"] = *password;
  HttpClient client(MakeClientOptions(global, *endpoint));
  const CallOutcome outcome =
      CallApi(client, kLogin, RenderJson(body, JsonLayout::kOneLine), Secrecy::kSecret, LoginHint::kOmit);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;

  const Json::Value& token_value = Member(outcome.data, "token");
  const std::string token = token_value.isString() ? token_value.asString() : "";
  const std::string name = Text(Member(outcome.data, "user"));
  if (!IsValidToken(token)) return Report(Error(ErrorCode::kCorrupt, "The server's reply contains no valid token"));
  if (const Status saved = SaveLogin({endpoint->url, name.empty() ? user : name, token}); !saved) {
    return Report(saved.error());
  }
  if (!global.quiet) {
    std::cout << "Logged in to " << Printable(endpoint->url) << " as " << Printable(name.empty() ? user : name);
    if (const auto seconds = Integer(Member(outcome.data, "expires_in")); seconds && *seconds >= 0) {
      std::cout << ", for " << *seconds / 60 << " minutes";
    }
    std::cout << ".\n";
  }
  return ExitCode::kOk;
}

ExitCode RunLogout(const GlobalOptions& given) {
  const Result<GlobalOptions> applied = WithContext(given);
  if (!applied) return Report(applied.error());
  const GlobalOptions& global = *applied;
  GlobalOptions logout_options = global;
  if (global.token_file.empty()) {
    // Only the saved session is ended, so its server is used and not the one in the environment.
    const Result<std::optional<SavedLogin>> saved = LoadLogin();
    if (!saved || !*saved) {
      const ExitCode code = saved ? ExitCode::kOk : Report(saved.error());
      const Status removed = RemoveLogin();
      if (!removed) return Report(removed.error());
      if (saved && !global.quiet) std::cout << "You are not logged in.\n";
      return code;
    }
    const Result<Endpoint> named =
        global.server.empty() ? Endpoint{(*saved)->server, ""} : ParseServerUrl(global.server);
    if (!named) return Report(named.error());
    if (named->url != (*saved)->server || !global.socket.empty()) {
      return Report(Error(ErrorCode::kInvalid, fmt::format("The saved login is for '{}'", (*saved)->server)));
    }
    logout_options.server = named->url;
  }
  const Result<HttpClientOptions> options = ConnectOptions(logout_options);
  if (!options) return Report(options.error());
  HttpClient client(*options);
  const Result<HttpReply> reply = client.PostJson(kLogout, "{}");
  if (global.token_file.empty()) {
    if (const Status removed = RemoveLogin(); !removed) return Report(removed.error());
  }
  if (!reply) {
    const ExitCode code = ReportTransport(reply.error());
    if (global.token_file.empty())
      std::cerr << "The login was removed here, but the session may still exist on the server.\n";
    return code;
  }
  const Result<ApiReply> parsed = ReadApiReply(*reply);
  // 401: the session had already ended.
  if (reply->status != 401 && !parsed) return Report(parsed.error());
  if (reply->status != 401 && !parsed->success) {
    return Report(
        Error(ErrorCode::kInternal, "The server did not end the session", client.WithoutToken(parsed->message)));
  }
  if (!global.quiet) std::cout << "Logged out.\n";
  return ExitCode::kOk;
}

ExitCode RunWhoami(const GlobalOptions& global) {
  const Result<HttpClientOptions> options = ConnectOptions(global);
  if (!options) return Report(options.error());
  HttpClient client(*options);
  CallOutcome outcome = TryApi(client, kRights, "{}");
  // A server of an older version only knows who the caller is.
  if (outcome.http_status == kHttpNotFound) outcome = TryApi(client, kInfo, "{}");
  if (outcome.exit_code != ExitCode::kOk) {
    std::cerr << "vexa: " << outcome.failure << '\n';
    return outcome.exit_code;
  }
  if (global.json) return PrintJson(outcome.data);
  const std::string level = IsTrue(Member(outcome.data, "administrator")) ? "administrator"
                            : IsTrue(Member(outcome.data, "advanced"))    ? "advanced user"
                                                                          : "user";
  PrintFields(std::cout, {{"User", Text(Member(outcome.data, "user"))},
                          {"Id", Text(Member(outcome.data, "uid"))},
                          {"Level", level},
                          {"Server", client.endpoint().Name()}});
  PrintGuests(global, outcome.data);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
