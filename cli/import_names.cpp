#include "cli/import_names.h"

#include <map>
#include <string>

#include "cli/objects.h"
#include "cli/reply.h"

namespace vexa::cli {
namespace {

// Finds the ids of the objects of one kind. Threads: one.
class IdsOf {
 public:
  IdsOf(HttpClient& client, const ObjectKind& kind) : client_(client), kind_(kind) {}

  // Replaces the id or name in `text` by the id; "" stays.
  ExitCode Resolve(std::string& text) {
    if (text.empty()) return ExitCode::kOk;
    const auto known = ids_.find(text);
    if (known != ids_.end()) {
      text = known->second;
      return ExitCode::kOk;
    }
    if (!is_listed_) {
      CallOutcome listed = ListObjects(client_, kind_);
      if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
      list_ = Member(listed.data, kind_.plural);
      is_listed_ = true;
    }
    const Result<std::string> found = FindByIdOrName(list_, kind_, text);
    if (!found) return Report(found.error());
    text = ids_[text] = *found;
    return ExitCode::kOk;
  }

 private:
  HttpClient& client_;
  const ObjectKind& kind_;
  bool is_listed_ = false;
  Json::Value list_;
  std::map<std::string, std::string> ids_;
};

}  // namespace

ExitCode ResolveImportNames(HttpClient& client, std::vector<ImportSource>& guests) {
  IdsOf repositories(client, kRepositories);
  IdsOf hosts(client, kHosts);
  IdsOf networks(client, kNetworks);
  for (ImportSource& guest : guests) {
    ExitCode found = repositories.Resolve(guest.options.repository_id);
    if (found == ExitCode::kOk) found = hosts.Resolve(guest.options.host_id);
    if (found != ExitCode::kOk) return found;
    for (auto& [name, network] : guest.options.networks) {
      found = networks.Resolve(network);
      if (found != ExitCode::kOk) return found;
    }
  }
  return ExitCode::kOk;
}

}  // namespace vexa::cli
