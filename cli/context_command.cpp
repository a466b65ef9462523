#include "cli/context_command.h"

#include <fmt/format.h>

#include <filesystem>
#include <iostream>
#include <utility>

#include "cli/contexts.h"
#include "cli/printable.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

Json::Value AsJson(const std::string& name, const Context& context, const Contexts& contexts) {
  Json::Value value(Json::objectValue);
  value["name"] = name;
  value["server"] = context.server;
  value["ca_file"] = context.ca_file;
  value["user"] = context.user;
  value["current"] = name == contexts.current;
  return value;
}

}  // namespace

ExitCode RunContextAdd(const GlobalOptions& global, const ContextAddOptions& options) {
  if (!IsContextName(options.name)) {
    return Report(Error(ErrorCode::kInvalid, fmt::format("'{}' cannot be the name of a context. Use up to 64 letters, "
                                                         "digits and . _ -, the first a letter or digit",
                                                         options.name)));
  }
  if (global.server.empty()) return Report(Error(ErrorCode::kInvalid, "Name the server with --server URL"));
  if (!IsValidUtf8(options.user) || !IsValidUtf8(global.ca_file)) {
    return Report(Error(ErrorCode::kInvalid, "The user's name or the path of the file is not valid UTF-8"));
  }
  const Result<Endpoint> server = ParseServerUrl(global.server);
  if (!server) return Report(server.error());
  Context context{server->url, "", options.user};
  if (!global.ca_file.empty()) {
    std::error_code failed;
    context.ca_file = std::filesystem::absolute(global.ca_file, failed);
    if (failed || !std::filesystem::is_regular_file(context.ca_file, failed)) {
      return Report(Error(ErrorCode::kNotFound, fmt::format("There is no file '{}'", global.ca_file)));
    }
  }
  Result<Contexts> contexts = LoadContexts();
  if (!contexts) return Report(contexts.error());
  if (contexts->all.contains(options.name)) {
    return Report(Error(ErrorCode::kConflict, fmt::format("There is a context '{0}' already; 'vexa context remove {0}' "
                                                          "removes it",
                                                          options.name)));
  }
  contexts->all[options.name] = context;
  if (contexts->current.empty()) contexts->current = options.name;
  if (const Status saved = SaveContexts(*contexts); !saved) return Report(saved.error());
  const bool is_current = contexts->current == options.name;
  return PrintConfirmation(global, fmt::format("Added the context '{}' for {}.{}", options.name, context.server,
                                               is_current ? " It is used from now on." : ""));
}

ExitCode RunContextList(const GlobalOptions& global) {
  const Result<Contexts> contexts = LoadContexts();
  if (!contexts) return Report(contexts.error());
  if (global.json) {
    Json::Value list(Json::arrayValue);
    for (const auto& [name, context] : contexts->all) list.append(AsJson(name, context, *contexts));
    return PrintJson(list);
  }
  Table table{{"CURRENT", "NAME", "SERVER", "USER"}, {}};
  for (const auto& [name, context] : contexts->all) {
    table.rows.push_back({name == contexts->current ? "*" : "", name, context.server, context.user});
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunContextUse(const GlobalOptions& global, const std::string& name) {
  Result<Contexts> contexts = LoadContexts();
  if (!contexts) return Report(contexts.error());
  if (!contexts->all.contains(name)) return Report(UnknownContext(*contexts, name));
  contexts->current = name;
  if (const Status saved = SaveContexts(*contexts); !saved) return Report(saved.error());
  return PrintConfirmation(global, fmt::format("The context '{}' is used from now on.", name));
}

ExitCode RunContextShow(const GlobalOptions& global, const std::string& name) {
  const Result<Contexts> contexts = LoadContexts();
  if (!contexts) return Report(contexts.error());
  std::string chosen = name;
  if (chosen.empty()) {
    const std::string from_environment = EnvironmentVariable("VEXA_CONTEXT");
    chosen = from_environment.empty() ? contexts->current : from_environment;
  }
  if (chosen.empty()) {
    return Report(Error(ErrorCode::kNotFound, "No context is used. 'vexa context add' adds one"));
  }
  const auto found = contexts->all.find(chosen);
  if (found == contexts->all.end()) return Report(UnknownContext(*contexts, chosen));
  if (global.json) return PrintJson(AsJson(chosen, found->second, *contexts));
  SetLoginContext(chosen);
  const Result<std::optional<SavedLogin>> login = LoadLogin();
  PrintFields(std::cout, {{"Name", chosen},
                          {"Server", found->second.server},
                          {"Authorities", found->second.ca_file.empty() ? "the system's" : found->second.ca_file},
                          {"User", found->second.user},
                          {"Logged in", login && *login ? "yes, as " + (*login)->user : "no"}});
  return ExitCode::kOk;
}

ExitCode RunContextRemove(const GlobalOptions& global, const std::string& name) {
  Result<Contexts> contexts = LoadContexts();
  if (!contexts) return Report(contexts.error());
  if (contexts->all.erase(name) == 0) return Report(UnknownContext(*contexts, name));
  if (contexts->current == name) contexts->current.clear();
  SetLoginContext(name);
  if (const Status removed = RemoveLogin(); !removed) return Report(removed.error());
  if (const Status saved = SaveContexts(*contexts); !saved) return Report(saved.error());
  return PrintConfirmation(global, fmt::format("Removed the context '{}' and its login. The session may still exist on "
                                               "the server.",
                                               name));
}

}  // namespace vexa::cli
