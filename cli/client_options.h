// The options that every command takes, and what follows from them: which server, with which token.
#pragma once

#include <string>
#include <string_view>

#include "cli/exit_code.h"
#include "cli/http_client.h"
#include "cli/login_file.h"
#include "host/base/result.h"

namespace vexa::cli {

inline constexpr std::string_view kDefaultSocket = "/run/vexad/vexad.sock";

struct GlobalOptions {
  std::string server;
  std::string socket;
  std::string token_file;
  std::string ca_file;
  int timeout_s = 60;
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

// Calls one method of the API and reads the reply. An outcome without success is printed on standard error, with
// "Run 'vexa login'." where that helps.
struct CallOutcome {
  ExitCode exit_code = ExitCode::kOk;
  Json::Value data;
};
enum class LoginHint { kGive, kOmit };
CallOutcome CallApi(HttpClient& client, const std::string& path, const std::string& body,
                    Secrecy secrecy = Secrecy::kPlain, LoginHint hint = LoginHint::kGive);

// Writes `data` as JSON on standard output.
ExitCode PrintJson(const Json::Value& data);

}  // namespace vexa::cli
