// What the file system reports about a repository's storage.
#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "host/storage/storage_watch.h"

namespace vexa::guests {
namespace {

using Outcome = TrailCheck::Outcome;

class StorageLook {
 public:
  explicit StorageLook(const StorageQuestion& question) : question_(question) {}

  StorageAnswer Answer() {
    for (const std::string& path : question_.paths) {
      const std::vector<std::string> folders = TrailFolders(question_.roots, path);
      used_.insert(folders.begin(), folders.end());
      if (!folders.empty()) paths_by_folder_[folders.back()].push_back(path);
    }
    Trail known = UsedPart();
    StorageAnswer answer;
    answer.check = CheckTrail(known);
    if (answer.check.outcome != Outcome::kNotMounted) CheckRoots(answer.check);
    if (answer.check.outcome != Outcome::kNotMounted) {
      LearnOfFiles(answer.check);
      TakeOwnFolders(known, answer.check);
      answer.conditions = Conditions();
      answer.learned = std::move(learned_);
    } else {
      // Whether the repository's own folder is in use cannot be known now.
      for (const auto& [folder, identity] : question_.known) used_.insert(folder);
    }
    answer.used = std::move(used_);
    return answer;
  }

 private:
  Trail UsedPart() const {
    Trail part;
    for (const auto& [folder, identity] : question_.known) {
      const bool is_own = IsOwnFolder(folder);
      if (used_.contains(folder) || is_own) part.emplace(folder, identity);
      if (!is_own) continue;
      const std::vector<std::string> above = TrailFolders(question_.roots, folder);
      for (const std::string& each : above) {
        if (const auto found = question_.known.find(each); found != question_.known.end()) part.insert(*found);
      }
    }
    return part;
  }

  bool IsOwnFolder(const std::string& folder) const {
    const std::vector<std::string> above = TrailFolders(question_.roots, folder);
    return above.size() == 1 && folder == above.front() + question_.repository_id;
  }

  // Finds a root that is missing although disks are below it. It was never learned, otherwise the check would have
  // found it.
  void CheckRoots(TrailCheck& check) const {
    if (question_.unlearned == UnlearnedRoots::kIgnored) return;
    for (const std::string& folder : used_) {
      if (!folder.ends_with('/') || question_.known.contains(folder)) continue;
      TrailCheck missing = CheckTrail({{folder, ""}});
      if (missing.outcome != Outcome::kNotMounted || missing.error_number != ENOENT) continue;
      check = std::move(missing);
      return;
    }
  }

  // For the folders that contain files, otherwise for those where new ones are created.
  std::vector<FolderCondition> Conditions() const {
    std::vector<std::string> folders;
    for (const auto& [folder, paths] : paths_by_folder_) folders.push_back(folder);
    for (const std::string& folder : used_) {
      if (IsOwnFolder(folder)) folders.push_back(folder);
    }
    std::vector<FolderCondition> conditions = ProbeFolders(folders);
    if (!conditions.empty() || question_.roots.empty()) return conditions;
    return ProbeFolders({used_.empty() ? question_.roots.front() : *used_.begin()});
  }

  bool IsKnown(const std::string& folder) const {
    return question_.known.contains(folder) || learned_.contains(folder);
  }

  bool HasRoom() const { return question_.known.size() + learned_.size() < kMaxStorageFolders; }

  // Nothing when the folders above have changed since they were checked.
  void Learn(const Trail& folders) {
    const bool has_changed = std::ranges::any_of(folders, [&](const auto& each) {
      const auto known = question_.known.find(each.first);
      return known != question_.known.end() && !IsSameFolder(known->second, each.second);
    });
    if (has_changed) return;
    for (const auto& [folder, identity] : folders) {
      if (!IsKnown(folder) && HasRoom()) learned_.emplace(folder, identity);
    }
  }

  void LearnOfFiles(const TrailCheck& check) {
    for (const auto& [folder, paths] : paths_by_folder_) {
      const std::vector<std::string> all = TrailFolders(question_.roots, paths.front());
      if (std::ranges::all_of(all, [&](const std::string& each) { return IsKnown(each); })) continue;
      if (std::ranges::find(check.folders, folder) != check.folders.end()) continue;
      for (const std::string& path : paths) {
        const Result<TrailLook> look = LookAlong(question_.roots, path);
        if (!look || look->folders.size() < all.size()) break;  // the same for all files in it
        if (!look->has_file) continue;
        Learn(look->folders);
        break;
      }
    }
  }

  // "<root>/<repository>", where new disks are created. It is in use while it exists. If files that records place in it
  // are missing, it is not trusted.
  void TakeOwnFolders(const Trail& known, const TrailCheck& check) {
    if (question_.repository_id.empty()) return;
    for (const std::string& root : question_.roots) {
      const std::string inside = root + "/" + question_.repository_id + "/x";
      const std::vector<std::string> folders = TrailFolders(question_.roots, inside);
      if (folders.size() != 2 || used_.contains(folders.back())) continue;
      if (known.contains(folders.back())) {
        const bool is_gone = std::ranges::find(check.folders, folders.back()) != check.folders.end();
        if (!is_gone) used_.insert(folders.begin(), folders.end());
        continue;
      }
      const Result<TrailLook> look = LookAlong(question_.roots, inside);
      if (!look || look->folders.size() != folders.size()) continue;
      used_.insert(folders.begin(), folders.end());
      Learn(look->folders);
    }
  }

  const StorageQuestion& question_;
  std::set<std::string, std::less<>> used_;
  std::map<std::string, std::vector<std::string>> paths_by_folder_;
  Trail learned_;
};

}  // namespace

StorageAnswer AskStorage(const StorageQuestion& question) { return StorageLook(question).Answer(); }

}  // namespace vexa::guests
