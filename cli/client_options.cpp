#include "cli/client_options.h"

#include <fmt/format.h>

#include <cstdlib>
#include <iostream>
#include <utility>

#include "cli/contexts.h"
#include "cli/output.h"
#include "cli/printable.h"
#include "cli/transport_failure.h"

namespace vexa::cli {
namespace {

constexpr int kHttpUnauthorized = 401;

ExitCode ExitCodeOf(const Error& error) {
  return error.code() == ErrorCode::kInvalid ? ExitCode::kUsage : ExitCode::kFailed;
}

constexpr const char* kLoginHint = "Run 'vexa login'.";
// The server knows callers on its Unix socket by their system account.
constexpr const char* kLocalLoginHint =
    "Your system account is not a user of the server. Run 'vexa login', or this command as root.";

CallOutcome FailureOf(const HttpClient& client, ApiReply reply, LoginHint hint) {
  if (reply.http_status == kHttpUnauthorized && hint == LoginHint::kShow) {
    reply.hint = client.endpoint().unix_socket.empty() ? kLoginHint : kLocalLoginHint;
  }
  CallOutcome outcome;
  outcome.exit_code = ExitCode::kFailed;
  outcome.failure = client.WithoutToken(FailureLines(reply));
  outcome.code = reply.code;
  outcome.reason = client.WithoutToken(reply.reason);
  outcome.hint = client.WithoutToken(reply.hint);
  outcome.details = std::move(reply.details);
  return outcome;
}

CallOutcome FailureOf(const Error& error) {
  CallOutcome outcome;
  outcome.exit_code = error.code() == ErrorCode::kUnavailable ? ExitCode::kUnreachable : ExitCodeOf(error);
  outcome.failure = Printable(error.ToString());
  return outcome;
}

}  // namespace

std::string EnvironmentVariable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

Result<Endpoint> ChooseEndpoint(const GlobalOptions& options, const std::optional<SavedLogin>& saved) {
  if (!options.server.empty()) return ParseServerUrl(options.server);
  if (!options.socket.empty()) return Endpoint{"", options.socket};
  if (const std::string server = EnvironmentVariable("VEXA_SERVER"); !server.empty()) return ParseServerUrl(server);
  if (saved) return Endpoint{saved->server, ""};
  const std::string socket = EnvironmentVariable("VEXA_SOCKET");
  return Endpoint{"", socket.empty() ? std::string(kDefaultSocket) : socket};
}

HttpClientOptions MakeClientOptions(const GlobalOptions& options, const Endpoint& endpoint) {
  HttpClientOptions result;
  result.endpoint = endpoint;
  result.ca_file = options.ca_file;
  result.timeout = std::chrono::seconds(options.timeout_s.value_or(kDefaultTimeoutS));
  result.insecure_http = options.insecure_http ? InsecureHttp::kAllow : InsecureHttp::kRefuse;
  result.trace = options.verbose ? Trace::kOn : Trace::kOff;
  return result;
}

Result<HttpClientOptions> ConnectOptions(const GlobalOptions& given) {
  const Result<GlobalOptions> applied = WithContext(given);
  if (!applied) return applied.error();
  const GlobalOptions& options = *applied;
  std::optional<SavedLogin> saved;
  // With --socket or --token-file, a damaged login file does not matter.
  if (options.socket.empty() && options.token_file.empty()) {
    Result<std::optional<SavedLogin>> loaded = LoadLogin();
    if (!loaded) return loaded.error();
    saved = std::move(*loaded);
  } else if (const auto loaded = LoadLogin(); loaded) {
    saved = *loaded;
  }
  const Result<Endpoint> endpoint = ChooseEndpoint(options, saved);
  if (!endpoint) return endpoint.error();
  HttpClientOptions result = MakeClientOptions(options, *endpoint);
  if (!options.token_file.empty()) {
    const Result<std::string> token = ReadTokenFile(options.token_file);
    if (!token) return token.error();
    result.token = *token;
  } else if (saved && endpoint->unix_socket.empty() && endpoint->url == saved->server) {
    result.token = saved->token;
  }
  return result;
}

ExitCode Report(const Error& error) {
  std::cerr << "vexa: " << Printable(error.ToString()) << '\n';
  return ExitCodeOf(error);
}

ExitCode ReportTransport(const Error& error) {
  const ExitCode code = Report(error);
  return error.code() == ErrorCode::kUnavailable ? ExitCode::kUnreachable : code;
}

namespace {

CallOutcome OutcomeOf(const HttpClient& client, const Result<HttpReply>& reply, LoginHint hint) {
  if (!reply) return FailureOf(reply.error());
  CallOutcome outcome;
  Result<ApiReply> parsed = ReadApiReply(*reply);
  if (!parsed) {
    outcome = FailureOf(parsed.error());
    // Servers that are overloaded, and proxies in front of them, fail in other forms, too.
    if (reply->status < 500) outcome.failure += "\n" + Printable(NotVexaHint(client.endpoint()));
    // The reply of a proxy in front of the server is not in the form of the API.
    if (reply->status == kHttpUnauthorized && hint == LoginHint::kShow)
      outcome.failure += fmt::format("\n  Hint: {}", kLoginHint);
  } else if (!parsed->success) {
    outcome = FailureOf(client, std::move(*parsed), hint);
  } else {
    outcome.data = std::move(parsed->data);
    outcome.is_simulated = parsed->is_simulated;
  }
  outcome.http_status = reply->status;
  return outcome;
}

}  // namespace

CallOutcome TryApi(HttpClient& client, const std::string& path, const std::string& body, Secrecy secrecy,
                   LoginHint hint) {
  return OutcomeOf(client, client.PostJson(path, body, secrecy), hint);
}

CallOutcome TryPut(HttpClient& client, const std::string& path, const std::string& content_range,
                   const std::string& bytes) {
  return OutcomeOf(client, client.PutPiece(path, content_range, bytes), LoginHint::kShow);
}

bool IsTemporary(const CallOutcome& outcome) {
  return outcome.exit_code == ExitCode::kUnreachable || (outcome.http_status >= 502 && outcome.http_status <= 504);
}

CallOutcome CallApi(HttpClient& client, const std::string& path, const std::string& body, Secrecy secrecy,
                    LoginHint hint) {
  CallOutcome outcome = TryApi(client, path, body, secrecy, hint);
  if (outcome.exit_code != ExitCode::kOk) std::cerr << "vexa: " << outcome.failure << '\n';
  return outcome;
}

CallOutcome CallWithClient(const GlobalOptions& global, const std::function<CallOutcome(HttpClient& client)>& call) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) {
    CallOutcome outcome;
    outcome.exit_code = Report(connect.error());
    return outcome;
  }
  HttpClient client(*connect);
  return call(client);
}

CallOutcome CallServer(const GlobalOptions& global, const std::string& path, const std::string& body, Secrecy secrecy) {
  return CallWithClient(global, [&](HttpClient& client) { return CallApi(client, path, body, secrecy); });
}

void PrintSimulationNote() { std::cerr << "vexa: Guests are only simulated here: nothing runs.\n"; }

ExitCode PrintConfirmation(const GlobalOptions& global, const std::string& sentence) {
  if (!global.quiet) std::cout << sentence << '\n';
  return ExitCode::kOk;
}

ExitCode PrintJson(const Json::Value& data) {
  std::cout << RenderData(data, CurrentDataFormat());
  return ExitCode::kOk;
}

}  // namespace vexa::cli
