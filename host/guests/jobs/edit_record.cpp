#include "host/guests/jobs/edit_record.h"

#include <utility>

#include "host/records/run_record.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kMade[] = "made";
constexpr char kHiddenFiles[] = "hidden";
constexpr char kGrown[] = "grown";

std::optional<FileIntent> ParseEditFiles(const Json::Value& record, const std::string& guest_id) {
  auto made = ParseMade(json::Member(record, kMade));
  auto hidden = ParseHidden(json::Member(record, kHiddenFiles), guest_id);
  auto grown = ParseGrown(json::Member(record, kGrown));
  if (!made || !hidden || !grown) return std::nullopt;
  return FileIntent{std::move(*made), std::move(*hidden), std::move(*grown), {}, {}};
}

void PutEditFiles(const FileIntent& files, Json::Value& record) {
  record[kMade] = MadeJson(files.made);
  record[kHiddenFiles] = HiddenJson(files.hidden);
  record[kGrown] = GrownJson(files.grown);
}

}  // namespace

constinit const JobKind kEditKind = {
    .key = records::EditKey,
    .folder = "edit",
    .changing_stage = "doing",
    .parse_files = ParseEditFiles,
    .put_files = PutEditFiles,
    .title = "Edit",
    .plural = "edits",
    .noun = "edit",
    .busy_sentence = "The guest is being edited",
    .start_unknown = "It is undone later",
    .commit_unknown = "It is unknown whether the edit was committed, so its files stay until it is resumed",
    .not_undone = "What was done could not be undone; the undo is retried",
};

}  // namespace vexa::guests
