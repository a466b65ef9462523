#include "cli/repository_command.h"

#include <algorithm>
#include <ostream>
#include <utility>
#include <vector>

#include "cli/listing.h"
#include "cli/printable.h"
#include "host/base/json_parse.h"
#include "host/base/json_readers.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml.h"
#include "host/storage/storage_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::size_t kMaxName = 128;

std::string RepositoryKey(const std::string& id) { return store::MakeKey({"dash", "repository", id, "object"}); }

// With their ids; a record that cannot be read is an empty object.
Result<std::vector<std::pair<std::string, Json::Value>>> ReadAll(const store::Snapshot& snapshot) {
  const auto ids = snapshot.Children(store::MakeKey({"dash", "repository"}));
  if (!ids) return ids.error();
  std::vector<std::pair<std::string, Json::Value>> all;
  for (const std::string& id : *ids) {
    const auto value = snapshot.Get(RepositoryKey(id));
    if (!value) return value.error();
    if (!value->has_value()) continue;
    Result<Json::Value> record = ParseJson((*value)->text);
    all.emplace_back(id, record && record->isObject() ? std::move(*record) : Json::Value(Json::objectValue));
  }
  return all;
}

// What goes before the record: the state, and what is known of the storage.
Status PutLive(const store::Snapshot& snapshot, const std::string& id, Json::Value& record) {
  const auto state = snapshot.Get(guests::RepositoryStateKey(id));
  if (!state) return state.error();
  if (state->has_value()) {
    Result<Json::Value> text = ParseJson((*state)->text);
    if (text) record["state"] = std::move(*text);
  }
  const Result<guests::Storage> storage = guests::ReadStorage(snapshot, id);
  if (!storage) {
    record["storage"]["reason"] = storage.error().ToString();
  } else if (storage->revision != 0) {
    record["storage"] = guests::StorageJson(*storage);
  }
  return {};
}

Status CheckWords(const NewRepository& repository) {
  const bool is_plain = std::ranges::none_of(repository.name, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
  if (repository.name.empty() || repository.name.size() > kMaxName || !is_plain || !IsValidUtf8(repository.name)) {
    return Error(ErrorCode::kInvalid, "A repository's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  if (!repository.id.empty() && !IsUuidForm(repository.id)) {
    return Error(ErrorCode::kInvalid, "'" + repository.id + "' is no UUID");
  }
  if (!IsUuidForm(repository.host_id)) {
    return Error(ErrorCode::kInvalid, "'" + repository.host_id + "' is no host's id: give a UUID");
  }
  return {};
}

}  // namespace

Status AddRepository(const NewRepository& repository, store::Store& store, std::ostream& out) {
  if (Status checked = CheckWords(repository); !checked) return checked;
  std::string id = NormalizeUuid(repository.id);
  if (id.empty()) {
    Result<std::string> made = RandomUuid();
    if (!made) return made.error();
    id = std::move(*made);
  }
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto all = ReadAll(**snapshot);
  if (!all) return all.error();
  for (const auto& [other, record] : *all) {
    if (other == id) return Error(ErrorCode::kConflict, "There is a repository '" + id + "' already");
    if (json::Member(record, "name") == Json::Value(repository.name)) {
      return Error(ErrorCode::kConflict, "The repository '" + other + "' has the name '" + repository.name + "'");
    }
  }
  Json::Value record(Json::objectValue);
  record["name"] = repository.name;
  record["host_id"] = NormalizeUuid(repository.host_id);
  record["state"] = VexaCCC::State::Repo::online;
  const auto committed = store.Commit({{{RepositoryKey(id), 0}}, {{RepositoryKey(id), json::ToText(record)}}});
  if (!committed) return committed.error();
  out << id << '\n';
  return {};
}

Status AcceptStorage(const std::string& repository, store::Store& store, std::ostream& out) {
  std::vector<std::string> found;
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    const auto all = ReadAll(**snapshot);
    if (!all) return all.error();
    for (const auto& [id, record] : *all) {
      if (id == repository) found.assign(1, id);
      if (id == repository) break;
      if (json::Member(record, "name") == Json::Value(repository)) found.push_back(id);
    }
  }
  if (found.empty()) return Error(ErrorCode::kNotFound, "There is no repository '" + repository + "'");
  if (found.size() > 1) {
    return Error(ErrorCode::kConflict, "Several repositories have the name '" + repository + "': give an id");
  }
  if (Status forgotten = guests::ForgetStorage(store, found.front()); !forgotten) return forgotten;
  out << Printable(found.front()) << ": its host takes the storage as it is now\n";
  return {};
}

Status ListRepositories(store::Store& store, RepositoryForm form, std::ostream& out) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  auto all = ReadAll(**snapshot);
  if (!all) return all.error();
  Json::Value list(Json::arrayValue);
  for (auto& [id, record] : *all) {
    if (Status put = PutLive(**snapshot, id, record); !put) return put;
    if (form == RepositoryForm::kLines) {
      const auto text = [&](const char* name) { return Printable(json::String(json::Member(record, name))); };
      out << Printable(id) << "  " << text("host_id") << "  " << text("state") << "  " << text("name") << '\n';
    }
    record["repository_id"] = id;
    list.append(std::move(record));
  }
  if (form == RepositoryForm::kJson) out << json::ToText(list) << '\n';
  return {};
}

}  // namespace vexa::cli
