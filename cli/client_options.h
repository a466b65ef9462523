// The options that every command takes, and what follows from them: which server, with which token.
#pragma once

#include <cstdint>
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
  std::string server;
  std::string socket;
  std::string token_file;
  std::string ca_file;
  std::optional<int> timeout_s;  // kDefaultTimeoutS, where the command has none of its own
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  bool insecure_http = false;
};

// Where to go: --server or --socket, else $VEXA_SERVER, else the server of `saved`, else $VEXA_SOCKET or
// kDefaultSocket.
Result<Endpoint> ChooseEndpoint(const GlobalOptions& options, const std::optional<SavedLogin>& saved);

// A client for `endpoint`, without a token.
HttpClientOptions MakeClientOptions(const GlobalOptions& options, const Endpoint& endpoint);

// A client for the chosen endpoint. Its token is that of --token-file, else the saved one, which goes to the server
// that gave it and to no other.
Result<HttpClientOptions> ConnectOptions(const GlobalOptions& options);

// Prints "vexa: …" for an error of this program on standard error, and tells how to end for it.
ExitCode Report(const Error& error);

// The same for errors on the way to a server, where kUnavailable means that it cannot be reached.
ExitCode ReportTransport(const Error& error);

// What came of calling one method of the API.
struct CallOutcome {
  ExitCode exit_code = ExitCode::kOk;
  Json::Value data;
  // Without success:
  std::string failure;               // printable lines without "vexa: " and the last line end
  std::optional<std::int64_t> code;  // the server's
  bool has_reason = false;           // the server says why; `failure` has it
  int http_status = 0;               // 0: no reply came
};
enum class LoginHint { kGive, kOmit };

// Calls a method and reads the reply; prints nothing. `failure` ends with "Run 'vexa login'." where that helps.
CallOutcome TryApi(HttpClient& client, const std::string& path, const std::string& body,
                   Secrecy secrecy = Secrecy::kPlain, LoginHint hint = LoginHint::kGive);

// Whether it may be well a little later: no whole reply, or one that the server, or a proxy in front of it, gives while
// it restarts or has too much to do.
bool IsTemporary(const CallOutcome& outcome);

// As TryApi, and an outcome without success is printed on standard error.
CallOutcome CallApi(HttpClient& client, const std::string& path, const std::string& body,
                    Secrecy secrecy = Secrecy::kPlain, LoginHint hint = LoginHint::kGive);

// Writes `data` as JSON on standard output.
ExitCode PrintJson(const Json::Value& data);

}  // namespace vexa::cli
