#include "cli/call_command.h"

#include <fmt/format.h>

#include <array>
#include <iostream>
#include <string_view>

#include "cli/contexts.h"
#include "cli/printable.h"
#include "cli/transport_failure.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

// For the names of APIs and methods, which become part of the request's path.
bool IsValidName(std::string_view name) {
  if (name.empty() || name.size() > 128) return false;
  if (name.find_first_not_of('.') == std::string_view::npos) return false;
  return name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
         std::string_view::npos;
}

Result<std::string> ReadStandardInput() {
  std::string text;
  std::array<char, 65536> buffer;
  while (std::cin.read(buffer.data(), buffer.size()) || std::cin.gcount() > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(std::cin.gcount()));
    if (text.size() > kMaxReplyBytes) return Error(ErrorCode::kInvalid, "Standard input is larger than 16 MiB");
  }
  return text;
}

}  // namespace

ExitCode RunCall(const GlobalOptions& global, const CallOptions& options) {
  if (!IsValidName(options.api) || !IsValidName(options.method)) {
    return Report(Error(ErrorCode::kInvalid, "The name of an API or method consists of letters, digits and . _ -"));
  }
  const Result<std::string> body =
      options.parameters == "-" ? ReadStandardInput() : Result<std::string>(options.parameters);
  if (!body) return Report(body.error());
  const Result<Json::Value> parsed = ParseJson(*body);
  if (!parsed) return Report(Error(ErrorCode::kInvalid, "The parameters are not valid JSON", parsed.error().cause()));
  if (!parsed->isObject()) {
    return Report(Error(ErrorCode::kInvalid, "The parameters are not a JSON object, such as '{\"guest_id\": \"…\"}'"));
  }

  std::string path = fmt::format("/webapi/{}/{}", options.api, options.method);
  if (options.version) path += fmt::format("?version={}", *options.version);
  // Parameters may contain a password, and there is no way to know which ones do.
  const CallOutcome outcome = CallServer(global, path, *body, Secrecy::kSecret);
  return outcome.exit_code == ExitCode::kOk ? PrintJson(outcome.data) : outcome.exit_code;
}

ExitCode RunHealth(const GlobalOptions& given) {
  const Result<GlobalOptions> applied = WithContext(given);
  if (!applied) return Report(applied.error());
  const GlobalOptions& global = *applied;
  // Health needs no login: no token is sent.
  const Result<std::optional<SavedLogin>> saved = LoadLogin();
  const Result<Endpoint> endpoint = ChooseEndpoint(global, saved ? *saved : std::nullopt);
  if (!endpoint) return Report(endpoint.error());
  HttpClient client(MakeClientOptions(global, *endpoint));
  const Result<HttpReply> reply = client.Get("/healthz");
  if (!reply) return ReportTransport(reply.error());
  const bool healthy = reply->status == 200;
  const Result<Json::Value> body = ParseJson(reply->body);
  if (healthy && (!body || !body->isObject())) {
    return Report(Error(ErrorCode::kCorrupt, "The reply is not the health report of a server", NotVexaHint(*endpoint)));
  }
  if (global.json) {
    if (!body) return Report(Error(ErrorCode::kCorrupt, "The server's health report is not JSON"));
    PrintJson(*body);
  } else if (!global.quiet) {
    Fields fields{{"Server", endpoint->Name()},
                  {"Health", fmt::format("{} (HTTP {})", healthy ? "good" : "bad", reply->status)}};
    if (body && body->isObject()) {
      if (IsTrue(Member(*body, "simulated"))) fields.emplace_back("Guests", "only simulated here: nothing runs");
      for (const std::string& name : body->getMemberNames()) {
        if (name == "simulated") continue;
        const Json::Value& value = Member(*body, name.c_str());
        const std::string text = Text(value);
        fields.emplace_back(Printable(name), text.empty() ? RenderJson(value, JsonLayout::kOneLine) : text);
      }
    }
    PrintFields(std::cout, fields);
  }
  return healthy ? ExitCode::kOk : ExitCode::kFailed;
}

}  // namespace vexa::cli
