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
    .key = EditKey,
    .folder = "edit",
    .doing = "doing",
    .parse_files = ParseEditFiles,
    .put_files = PutEditFiles,
    .title = "Edit",
    .titles = "Edits",
    .word = "edit",
    .being = "The guest is being edited",
    .changed = "Somebody else has changed the record of the guest's edit",
    .begun_unknown = "It is undone later: ",
    .done_unknown = "Whether it is done is unknown, so its files stay until it is taken up again: ",
    .not_undone = "What was done could not be undone, which is tried again: ",
    .not_ended = "The record of it could not be removed: ",
};

}  // namespace vexa::guests
