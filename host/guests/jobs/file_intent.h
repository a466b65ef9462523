// What a job is about to do with files, and the same as lists in the job's record.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/disks/image_file.h"
#include "host/storage/storage_trail.h"

namespace vexa::guests {

struct HiddenFile {
  std::string path;    // a normal path
  std::string hidden;  // its name in the same folder while it is hidden
};

std::vector<std::string> PathsOf(const std::vector<HiddenFile>& files);

// It does not say how much is done: from any point, each step can be repeated and undone.
struct FileIntent {
  std::vector<std::string> made;   // normal paths of files to create
  std::vector<HiddenFile> hidden;  // files to remove: hidden first, removed after the point of no return
  std::vector<Growth> grown;       // images to grow
  std::string repository_id;       // of the guest
  Trail storage;                   // the folders that contain all these files
};

// Every hidden name has this prefix, and a disk's file must not.
inline constexpr std::string_view kHiddenPrefix = ".vexa-deleted-";
// The hidden name of the guest's disk `index`.
std::string HiddenName(const std::string& guest_id, std::size_t index);
// The name of the file of a disk that was created here.
std::string ImageName(const std::string& disk_id, hypervisor::ImageFormat format);

// The lists of a record. Not set: they are not what the functions below have written, or a file must not be touched:
// a file to be removed again was not created here according to its name, or a hidden name is not one of this guest.
std::optional<std::vector<std::string>> ParseMade(const Json::Value& list);
std::optional<std::vector<HiddenFile>> ParseHidden(const Json::Value& list, const std::string& guest_id);
std::optional<std::vector<Growth>> ParseGrown(const Json::Value& list);

Json::Value MadeJson(const std::vector<std::string>& made);     // [path]
Json::Value HiddenJson(const std::vector<HiddenFile>& hidden);  // [{"path", "hidden"}]
Json::Value GrownJson(const std::vector<Growth>& grown);        // [{"path", "from", "to"}]

}  // namespace vexa::guests
