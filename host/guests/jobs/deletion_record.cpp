#include "host/guests/jobs/deletion_record.h"

#include <utility>

#include "host/base/json_parse.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kFiles[] = "files";

std::optional<FileIntent> ParseDeletionFiles(const Json::Value& record, const std::string& guest_id) {
  auto hidden = ParseHidden(json::Member(record, kFiles), guest_id);
  if (!hidden) return std::nullopt;
  return FileIntent{{}, std::move(*hidden), {}, {}, {}};
}

void PutDeletionFiles(const FileIntent& files, Json::Value& record) { record[kFiles] = HiddenJson(files.hidden); }

}  // namespace

constinit const JobKind kDeletionKind = {
    .key = records::DeletionKey,
    .folder = "deletion",
    .changing_stage = "hiding",
    .parse_files = ParseDeletionFiles,
    .put_files = PutDeletionFiles,
    .title = "Deletion",
    .plural = "deletions",
    .noun = "deletion",
    .busy_sentence = "The guest is being deleted",
    .start_unknown = "It is resumed later",
    .commit_unknown =
        "It is unknown whether its records were deleted, so its files stay hidden until the deletion is resumed",
    .not_undone = "What was done could not be undone, and the deletion is resumed later",
};

Result<std::optional<StoredJob>> ReadDeletion(const store::Snapshot& snapshot, const std::string& guest_id) {
  return ReadJob(snapshot, kDeletionKind, guest_id);
}

Refusal HeldByDeletion(const StoredJob& deletion) { return HeldByJob(kDeletionKind, deletion); }

std::string LeftoverKey(const std::string& host_id, const std::string& guest_id) {
  return store::MakeKey({"leftover", host_id, guest_id});
}

Result<StoredLeftover> ReadLeftover(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& guest_id) {
  const auto value = snapshot.Get(LeftoverKey(host_id, guest_id));
  if (!value) return value.error();
  if (!value->has_value()) return StoredLeftover{0, "", std::vector<std::string>()};
  StoredLeftover stored{(*value)->revision, "", std::nullopt};
  const Result<Json::Value> parsed = ParseJson((*value)->text);
  if (!parsed || !json::Member(*parsed, kFiles).isArray()) return stored;
  std::vector<std::string> paths;
  for (const Json::Value& element : json::Elements(json::Member(*parsed, kFiles))) {
    if (!element.isString()) return stored;
    paths.push_back(json::String(element));
  }
  const Json::Value& repository_id = json::Member(*parsed, kRepositoryId);
  stored.paths = std::move(paths);
  if (repository_id.isString()) stored.repository_id = json::String(repository_id);
  return stored;
}

std::string SerializeLeftover(const std::vector<std::string>& paths, const std::string& repository_id) {
  Json::Value object(Json::objectValue);
  object[kFiles] = MadeJson(paths);
  if (!repository_id.empty()) object[kRepositoryId] = repository_id;
  return json::ToText(object);
}

}  // namespace vexa::guests
