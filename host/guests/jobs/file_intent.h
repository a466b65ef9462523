// The changes of files that a job intends, and their form in the job's record.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/disks/image_file.h"
#include "host/storage/folder_chain.h"

namespace vexa::guests {

struct HiddenFile {
  std::string path;    // a normal path
  std::string hidden;  // its name in the same folder while it is hidden
};

std::vector<std::string> PathsOf(const std::vector<HiddenFile>& files);

// Progress is not recorded: every step, and every undo of a step, can be repeated.
struct FileIntent {
  std::vector<std::string> made;     // normal paths of files to create
  std::vector<HiddenFile> hidden;    // files to remove: hidden first, removed after the point of no return
  std::vector<disks::Growth> grown;  // images to grow
  std::string repository_id;         // of the guest
  storage::FolderChain storage;      // the folders that contain all these files
};

// The prefix of every hidden name. No file of a disk may have it.
inline constexpr std::string_view kHiddenPrefix = ".vexa-deleted-";
// The hidden name of the guest's disk `index`.
std::string HiddenName(const std::string& guest_id, std::size_t index);
// The name of the file of a disk that was created here.
std::string ImageName(const std::string& disk_id, domain_xml::ImageFormat format);

// Read the lists of a record. Not set: the list has not been written by the functions below, or a file must not be
// touched. In `made` that is a file without the name of one that a job creates, in `hidden` a hidden name that is not
// one of this guest.
std::optional<std::vector<std::string>> ParseMade(const Json::Value& list);
std::optional<std::vector<HiddenFile>> ParseHidden(const Json::Value& list, const std::string& guest_id);
std::optional<std::vector<disks::Growth>> ParseGrown(const Json::Value& list);

Json::Value MadeJson(const std::vector<std::string>& made);      // [path]
Json::Value HiddenJson(const std::vector<HiddenFile>& hidden);   // [{"path", "hidden"}]
Json::Value GrownJson(const std::vector<disks::Growth>& grown);  // [{"path", "from", "to"}]

}  // namespace vexa::guests
