#include "host/guests/jobs/creation_record.h"

#include <utility>

#include "host/records/run_record.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kMade[] = "made";

std::optional<FileIntent> ParseCreationFiles(const Json::Value& record, const std::string& /*guest_id*/) {
  auto made = ParseMade(json::Member(record, kMade));
  if (!made) return std::nullopt;
  return FileIntent{std::move(*made), {}, {}, {}, {}};
}

void PutCreationFiles(const FileIntent& files, Json::Value& record) { record[kMade] = MadeJson(files.made); }

}  // namespace

constinit const JobKind kCreationKind = {
    .key = records::CreationKey,
    .folder = "creation",
    .changing_stage = "making",
    .parse_files = ParseCreationFiles,
    .put_files = PutCreationFiles,
    .title = "Creation",
    .plural = "creations",
    .noun = "creation",
    .busy_sentence = "The guest is being created or imported",
    .start_unknown = "It is undone later",
    .commit_unknown = "It is unknown whether the creation was committed, so its files stay until it is resumed",
    .not_undone = "What was done could not be undone; the undo is retried",
};

}  // namespace vexa::guests
