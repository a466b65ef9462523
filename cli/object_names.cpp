#include "cli/object_names.h"

#include "cli/reply.h"

namespace vexa::cli {
namespace {

std::map<std::string, std::string> NamesById(const GlobalOptions& global, const ObjectKind& kind) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return {};
  HttpClient client(*connect);
  const CallOutcome listed = TryApi(client, kind.list_path, "{}");
  std::map<std::string, std::string> names;
  for (const Json::Value& object : VexaVirtualization::json::Elements(Member(listed.data, kind.plural))) {
    names[Text(Member(object, kind.id))] = Text(Member(object, kind.name));
  }
  return names;
}

}  // namespace

std::string ObjectNames::Of(const ObjectKind& kind, const std::string& id) {
  if (id.empty() || global_.ids) return id;
  const auto listed = names_.find(kind.plural);
  const auto& names = listed != names_.end() ? listed->second : names_[kind.plural] = NamesById(global_, kind);
  const auto found = names.find(id);
  return found == names.end() || found->second.empty() ? id : found->second;
}

}  // namespace vexa::cli
