#include "cli/objects.h"

#include <fmt/format.h>

#include <cstddef>
#include <iostream>
#include <vector>

#include "cli/listing.h"
#include "cli/parse_failure.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"
#include "host/records/named_record.h"

namespace vexa::cli {
namespace {

// Limit for ids in a message.
constexpr std::size_t kMaxListedIds = 20;

Result<std::string> FindByName(const Json::Value& list, const ObjectKind& kind, const std::string& name) {
  std::vector<std::string> ids;
  std::vector<std::string> names;
  for (const Json::Value& element : list) {
    names.push_back(Text(Member(element, kind.name)));
    if (names.back() == name) ids.push_back(Text(Member(element, kind.id)));
  }
  if (ids.empty()) {
    const std::string guess = DidYouMean(name, std::vector<std::string_view>(names.begin(), names.end()));
    return Error(ErrorCode::kNotFound, fmt::format("There is no {} called '{}'{} 'vexa {}'", kind.singular, name,
                                                   guess.empty() ? "; see" : guess + " See", kind.list_command));
  }
  if (ids.size() == 1) return ids.front();
  const bool is_cut = ids.size() > kMaxListedIds;
  if (is_cut) ids.resize(kMaxListedIds);
  return Error(ErrorCode::kConflict,
               fmt::format("Several {} are called '{}'. Use one of the ids {}{}; 'vexa {} --ids' shows which is which",
                           kind.plural, name, fmt::join(ids, ", "), is_cut ? ", …" : "", kind.list_command));
}

// Whether `id_or_name` can be an id or a name; otherwise the error is printed.
bool IsIdOrName(const ObjectKind& kind, const std::string& id_or_name) {
  if (!id_or_name.empty() && IsValidUtf8(id_or_name)) return true;
  Report(EmptyOrNotUtf8(fmt::format("{}'s id or name", kind.singular)));
  return false;
}

}  // namespace

CallOutcome ListObjects(HttpClient& client, const ObjectKind& kind) {
  CallOutcome outcome = CallApi(client, kind.list_path, "{}");
  if (outcome.exit_code == ExitCode::kOk && !Member(outcome.data, kind.plural).isArray()) {
    outcome.exit_code = Report(MissingInReply(kind.plural));
  }
  return outcome;
}

CallOutcome ListObjects(const GlobalOptions& global, const ObjectKind& kind) {
  return CallWithClient(global, [&](HttpClient& client) { return ListObjects(client, kind); });
}

Result<std::string> FindByIdOrName(const Json::Value& list, const ObjectKind& kind, const std::string& id_or_name) {
  const std::string uuid = NormalizeUuid(id_or_name);
  for (const Json::Value& element : list) {
    const std::string id = Text(Member(element, kind.id));
    if (id == id_or_name || (!uuid.empty() && NormalizeUuid(id) == uuid)) return id;
  }
  Result<std::string> found = FindByName(list, kind, id_or_name);
  if (!found && found.error().code() == ErrorCode::kNotFound && HasUuidForm(id_or_name)) return id_or_name;
  return found;
}

ExitCode FindId(HttpClient& client, const ObjectKind& kind, const std::string& id_or_name, std::string& id) {
  if (!IsIdOrName(kind, id_or_name)) return ExitCode::kUsage;
  const CallOutcome listed = ListObjects(client, kind);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  const Result<std::string> found = FindByIdOrName(Member(listed.data, kind.plural), kind, id_or_name);
  if (!found) return Report(found.error());
  id = *found;
  return ExitCode::kOk;
}

namespace {

// Whether `id_or_name`, a UUID that the server refused as an id, is the name of one object, whose id is then written to
// `id`.
bool IsNameOfAnother(HttpClient& client, const ObjectKind& kind, const std::string& id_or_name, std::string& id) {
  if (!HasUuidForm(id_or_name)) return false;
  const CallOutcome listed = TryApi(client, kind.list_path, "{}");
  const Json::Value& list = VexaVirtualization::json::Elements(Member(listed.data, kind.plural));
  const Result<std::string> found = FindByIdOrName(list, kind, id_or_name);
  if (!found || *found == id_or_name) return false;
  id = *found;
  return true;
}

}  // namespace

CallOutcome GetObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                      const std::string& id_or_name, std::string& id) {
  return CallWithClient(global, [&](HttpClient& client) {
    CallOutcome outcome;
    id = id_or_name;
    if (!HasUuidForm(id_or_name)) outcome.exit_code = FindId(client, kind, id_or_name, id);
    if (outcome.exit_code != ExitCode::kOk) return outcome;
    outcome = TryApi(client, path, ParameterJson(kind.id, id));
    // A name may look like an id.
    if (outcome.code && IsNameOfAnother(client, kind, id_or_name, id)) {
      outcome = TryApi(client, path, ParameterJson(kind.id, id));
    }
    if (outcome.exit_code != ExitCode::kOk) std::cerr << "vexa: " << outcome.failure << '\n';
    return outcome;
  });
}

ExitCode ShowObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                    const std::optional<std::string>& id_or_name,
                    const std::function<void(const Json::Value& data)>& print) {
  std::string id;
  const CallOutcome outcome =
      id_or_name ? GetObject(global, kind, path, *id_or_name, id)
                 : CallWithClient(global, [&](HttpClient& client) { return CallApi(client, path, "{}"); });
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (outcome.is_simulated && !global.quiet) PrintSimulationNote();
  if (global.json) return PrintJson(outcome.data);
  if (!outcome.data.isObject()) return Report(MissingInReply(kind.singular));
  print(outcome.data);
  return ExitCode::kOk;
}

ExitCode AddObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                   const Json::Value& parameters) {
  const CallOutcome outcome = CallServer(global, path, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  const std::string id = Text(Member(outcome.data, kind.id));
  if (id.empty()) return Report(MissingInReply(fmt::format("id of the {}", kind.singular)));
  std::cout << Printable(id) << '\n';
  return ExitCode::kOk;
}

namespace {

CallOutcome CallWithParameters(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                               const std::string& id_or_name, Json::Value parameters, std::string& id) {
  if (!IsIdOrName(kind, id_or_name)) {
    CallOutcome refused;
    refused.exit_code = ExitCode::kUsage;
    return refused;
  }
  return CallWithClient(global, [&](HttpClient& client) {
    CallOutcome outcome = ListObjects(client, kind);
    if (outcome.exit_code != ExitCode::kOk) return outcome;
    const Result<std::string> found = FindByIdOrName(Member(outcome.data, kind.plural), kind, id_or_name);
    if (!found) {
      outcome.exit_code = Report(found.error());
      return outcome;
    }
    id = *found;
    parameters[kind.id] = id;
    return CallApi(client, path, RenderJson(parameters, JsonLayout::kOneLine));
  });
}

}  // namespace

CallOutcome CallForListedObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                                const std::string& id_or_name) {
  std::string id;
  return CallWithParameters(global, kind, path, id_or_name, Json::Value(Json::objectValue), id);
}

ExitCode CallForObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                       const std::string& id_or_name, std::string& id) {
  return CallWithParameters(global, kind, path, id_or_name, Json::Value(Json::objectValue), id).exit_code;
}

ExitCode CallForObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                       const std::string& id_or_name, const Json::Value& parameters) {
  std::string id;
  return CallWithParameters(global, kind, path, id_or_name, parameters, id).exit_code;
}

ExitCode RenameObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                      const std::string& id_or_name, const std::string& name) {
  if (!records::IsRecordName(name)) {
    return Report(Error(ErrorCode::kInvalid, "A name is 1 to 128 bytes of UTF-8 without control characters"));
  }
  Json::Value parameters(Json::objectValue);
  parameters["name"] = name;
  const ExitCode renamed = CallForObject(global, kind, path, id_or_name, parameters);
  if (renamed != ExitCode::kOk) return renamed;
  return PrintConfirmation(
      global, fmt::format("The {} '{}' is called '{}' now.", kind.singular, Printable(id_or_name), Printable(name)));
}

}  // namespace vexa::cli
