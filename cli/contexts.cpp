#include "cli/contexts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/http_client.h"
#include "cli/login_file.h"
#include "cli/parse_failure.h"
#include "cli/reply.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxFileBytes = 1024 * 1024;

Result<std::string> ContextsPath() {
  const Result<std::string> folder = ConfigurationFolder();
  if (!folder) return folder.error();
  return *folder + "/contexts.json";
}

// A program that root runs as another account keeps root's HOME, which that account cannot enter.
bool IsOfAnotherAccount(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) != 0 && errno == EACCES;
}

Error Damaged(const std::string& path) {
  return Error(ErrorCode::kCorrupt, fmt::format("The contexts in '{}' are damaged. Mend or remove the file", path));
}

}  // namespace

bool IsContextName(const std::string& name) {
  const auto is_word = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  };
  return !name.empty() && name.size() <= 64 && is_word(name.front()) &&
         std::ranges::all_of(name, [&](char c) { return is_word(c) || c == '.' || c == '_' || c == '-'; });
}

Result<Contexts> LoadContexts() {
  const Result<std::string> path = ContextsPath();
  if (!path) return Contexts();
  const Result<std::string> content = ReadFile(*path, kMaxFileBytes);
  if (!content && (content.error().code() == ErrorCode::kNotFound || IsOfAnotherAccount(*path))) return Contexts();
  if (!content) return content.error();
  const Result<Json::Value> parsed = ParseJson(*content);
  if (!parsed || !Member(*parsed, "contexts").isObject()) return Damaged(*path);
  Contexts contexts;
  contexts.current = Text(Member(*parsed, "current"));
  const Json::Value& all = Member(*parsed, "contexts");
  for (const std::string& name : VexaVirtualization::json::MemberNames(all)) {
    const Json::Value& one = Member(all, name.c_str());
    const Result<Endpoint> server = ParseServerUrl(Text(Member(one, "server")));
    if (!server || !IsContextName(name)) return Damaged(*path);
    contexts.all[name] = {server->url, Text(Member(one, "ca_file")), Text(Member(one, "user"))};
  }
  if (!contexts.current.empty() && !contexts.all.contains(contexts.current)) return Damaged(*path);
  return contexts;
}

Status SaveContexts(const Contexts& contexts) {
  const Result<std::string> path = ContextsPath();
  if (!path) return path.error();
  if (Status made = MakeConfigurationFolder(); !made) return made;
  Json::Value content(Json::objectValue);
  content["current"] = contexts.current;
  content["contexts"] = Json::Value(Json::objectValue);
  for (const auto& [name, context] : contexts.all) {
    Json::Value& one = content["contexts"][name];
    one["server"] = context.server;
    if (!context.ca_file.empty()) one["ca_file"] = context.ca_file;
    if (!context.user.empty()) one["user"] = context.user;
  }
  return WriteFileAtomically(*path, RenderJson(content, JsonLayout::kIndented) + "\n", 0600);
}

Error UnknownContext(const Contexts& contexts, const std::string& name) {
  std::vector<std::string_view> names;
  for (const auto& [known, context] : contexts.all) names.push_back(known);
  const std::string guess = DidYouMean(name, names);
  return Error(ErrorCode::kInvalid, fmt::format("There is no context '{}'{} 'vexa context list'", name,
                                                guess.empty() ? "; see" : guess + " See"));
}

Result<GlobalOptions> WithContext(GlobalOptions options) {
  const bool has_server = !options.server.empty() || !options.socket.empty() ||
                          (options.context.empty() && !EnvironmentVariable("VEXA_SERVER").empty());
  if (has_server) return options;
  const Result<Contexts> contexts = LoadContexts();
  if (!contexts) return contexts.error();
  const std::string from_environment = EnvironmentVariable("VEXA_CONTEXT");
  const std::string name = !options.context.empty()    ? options.context
                           : !from_environment.empty() ? from_environment
                                                       : contexts->current;
  if (name.empty()) return options;
  const auto found = contexts->all.find(name);
  if (found == contexts->all.end()) return UnknownContext(*contexts, name);
  options.server = found->second.server;
  if (options.ca_file.empty()) options.ca_file = found->second.ca_file;
  options.context_user = found->second.user;
  SetLoginContext(name);
  return options;
}

}  // namespace vexa::cli
