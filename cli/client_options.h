// The options that every command takes, and how commands use them to find and call the server.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "cli/exit_code.h"
#include "cli/http_client.h"
#include "cli/login_file.h"
#include "host/base/result.h"

namespace vexa::cli {

inline constexpr std::string_view kDefaultSocket = "/run/vexad/vexad.sock";

inline constexpr int kDefaultTimeoutS = 60;

struct GlobalOptions {
  std::string context;
  std::string context_user;  // of the context, set with its server
  std::string server;
  std::string socket;
  std::string token_file;
  std::string ca_file;
  std::optional<int> timeout_s;  // kDefaultTimeoutS, unless the command has its own
  bool json = false;             // PrintJson instead of text: --json, or --output with json, yaml or name
  bool ids = false;              // ids in texts and tables, too
  bool quiet = false;
  bool verbose = false;
  bool insecure_http = false;
};

// The value of an environment variable; empty without one.
std::string EnvironmentVariable(const char* name);

// The server to use: --server or --socket, otherwise $VEXA_SERVER, otherwise the server of `saved`, otherwise
// $VEXA_SOCKET or kDefaultSocket.
Result<Endpoint> ChooseEndpoint(const GlobalOptions& options, const std::optional<SavedLogin>& saved);

// A client for `endpoint`, without a token.
HttpClientOptions MakeClientOptions(const GlobalOptions& options, const Endpoint& endpoint);

// A client for the chosen endpoint. Its token is that of --token-file, otherwise the saved one, which is only ever sent
// to the server that issued it. The context counts, see contexts.h.
Result<HttpClientOptions> ConnectOptions(const GlobalOptions& options);

// Prints "vexa: …" on standard error and returns the exit code: kUsage for kInvalid, otherwise kFailed.
ExitCode Report(const Error& error);

// The same for errors of HttpClient: the exit code is kUnreachable for kUnavailable.
ExitCode ReportTransport(const Error& error);

// The outcome of calling one method of the API.
struct CallOutcome {
  ExitCode exit_code = ExitCode::kOk;
  Json::Value data;
  bool is_simulated = false;  // guests are only simulated on the host that acted
  // On failure:
  std::string failure;               // printable lines without "vexa: " and without the final line end
  std::optional<std::int64_t> code;  // from the server
  std::string reason;                // from the server, as it came; `failure` contains it
  std::string hint;                  // likewise
  Json::Value details;               // from the server
  int http_status = 0;               // 0: there was no reply
};
enum class LoginHint { kShow, kOmit };

// Calls a method and reads the reply; prints nothing. `failure` ends with "Run 'vexa login'." where that helps.
CallOutcome TryApi(HttpClient& client, const std::string& path, const std::string& body,
                   Secrecy secrecy = Secrecy::kPlain, LoginHint hint = LoginHint::kShow);

// The same for a piece of an upload, which is sent with PUT and the header Content-Range.
CallOutcome TryPut(HttpClient& client, const std::string& path, const std::string& content_range,
                   const std::string& bytes);

// Whether a retry a little later may succeed: no complete reply, or one that the server, or a proxy in front of it,
// gives while it restarts or is overloaded.
bool IsTemporary(const CallOutcome& outcome);

// Like TryApi, but prints a failure on standard error.
CallOutcome CallApi(HttpClient& client, const std::string& path, const std::string& body,
                    Secrecy secrecy = Secrecy::kPlain, LoginHint hint = LoginHint::kShow);

// Connects, and passes the client to `call`; a failure to connect is printed.
CallOutcome CallWithClient(const GlobalOptions& global, const std::function<CallOutcome(HttpClient& client)>& call);

// Connects, and calls a method. Failures are printed.
CallOutcome CallServer(const GlobalOptions& global, const std::string& path, const std::string& body,
                       Secrecy secrecy = Secrecy::kPlain);

// Prints a line on standard error about a host whose guests are only simulated.
void PrintSimulationNote();

// Prints a sentence about what was done, unless --quiet is set. Returns kOk.
ExitCode PrintConfirmation(const GlobalOptions& global, const std::string& sentence);

// Writes `data` on standard output as JSON, or in the format of --output.
ExitCode PrintJson(const Json::Value& data);

}  // namespace vexa::cli
