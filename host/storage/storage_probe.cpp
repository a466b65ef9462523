// Probes a repository's storage in the file system.
#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "host/storage/storage_watch.h"

namespace vexa::storage {
namespace {

using Finding = FolderChainCheck::Finding;

class StorageProbe {
 public:
  explicit StorageProbe(const ProbeRequest& request) : request_(request) {}

  ProbeResult Run() {
    for (const std::string& path : request_.paths) {
      const std::vector<std::string> folders = FolderChainPaths(request_.roots, path);
      used_.insert(folders.begin(), folders.end());
      if (!folders.empty()) paths_by_folder_[folders.back()].push_back(path);
    }
    FolderChain known = KnownFoldersInUse();
    ProbeResult result;
    result.check = CheckFolderChain(known);
    if (result.check.finding != Finding::kNotMounted) CheckRoots(result.check);
    if (result.check.finding != Finding::kNotMounted) {
      LearnFromFiles(result.check);
      HandleRepositoryFolders(known, result.check);
      result.conditions = Conditions();
      result.learned = std::move(learned_);
    } else {
      // Whether the repository's own folder is in use cannot be known now.
      for (const auto& [folder, identity] : request_.known) used_.insert(folder);
    }
    result.used = std::move(used_);
    return result;
  }

 private:
  FolderChain KnownFoldersInUse() const {
    FolderChain part;
    for (const auto& [folder, identity] : request_.known) {
      const bool is_own = IsRepositoryFolder(folder);
      if (used_.contains(folder) || is_own) part.emplace(folder, identity);
      if (!is_own) continue;
      const std::vector<std::string> ancestors = FolderChainPaths(request_.roots, folder);
      for (const std::string& each : ancestors) {
        if (const auto found = request_.known.find(each); found != request_.known.end()) part.insert(*found);
      }
    }
    return part;
  }

  bool IsRepositoryFolder(const std::string& folder) const {
    const std::vector<std::string> ancestors = FolderChainPaths(request_.roots, folder);
    return ancestors.size() == 1 && folder == ancestors.front() + request_.repository_id;
  }

  // Reports a root that is missing although disks are recorded below it. CheckFolderChain does not find it when its
  // identity was never stored.
  void CheckRoots(FolderChainCheck& check) const {
    if (request_.unused_roots == UnusedRootPolicy::kIgnored) return;
    for (const std::string& folder : used_) {
      if (!folder.ends_with('/') || request_.known.contains(folder)) continue;
      FolderChainCheck missing = CheckFolderChain({{folder, ""}});
      if (missing.finding != Finding::kNotMounted || missing.error_number != ENOENT) continue;
      check = std::move(missing);
      return;
    }
  }

  // Probes the folders that contain files. Without such folders, probes those where new files are created.
  std::vector<FolderCondition> Conditions() const {
    std::vector<std::string> folders;
    for (const auto& [folder, paths] : paths_by_folder_) folders.push_back(folder);
    for (const std::string& folder : used_) {
      if (IsRepositoryFolder(folder)) folders.push_back(folder);
    }
    std::vector<FolderCondition> conditions = ProbeFolders(folders);
    if (!conditions.empty() || request_.roots.empty()) return conditions;
    return ProbeFolders({used_.empty() ? request_.roots.front() : *used_.begin()});
  }

  bool IsKnown(const std::string& folder) const { return request_.known.contains(folder) || learned_.contains(folder); }

  bool MayLearnMore() const { return request_.known.size() + learned_.size() < kMaxStorageFolders; }

  // Learns nothing when the folders above have changed since they were checked.
  void Learn(const FolderChain& folders) {
    const bool has_changed = std::ranges::any_of(folders, [&](const auto& each) {
      const auto known = request_.known.find(each.first);
      return known != request_.known.end() && !IsSameFolder(known->second, each.second);
    });
    if (has_changed) return;
    for (const auto& [folder, identity] : folders) {
      if (!IsKnown(folder) && MayLearnMore()) learned_.emplace(folder, identity);
    }
  }

  void LearnFromFiles(const FolderChainCheck& check) {
    for (const auto& [folder, paths] : paths_by_folder_) {
      const std::vector<std::string> all = FolderChainPaths(request_.roots, paths.front());
      if (std::ranges::all_of(all, [&](const std::string& each) { return IsKnown(each); })) continue;
      if (std::ranges::find(check.folders, folder) != check.folders.end()) continue;
      for (const std::string& path : paths) {
        const Result<FolderChainState> state = ReadFolderChainState(request_.roots, path);
        if (!state || state->folders.size() < all.size()) break;  // the same for all files in it
        if (!state->has_file) continue;
        Learn(state->folders);
        break;
      }
    }
  }

  // Handles "<root>/<repository>", where new disks are created. It is in use while it exists. It is not learned here
  // when records refer to files in it: then only an existing file can show that it is the right folder.
  void HandleRepositoryFolders(const FolderChain& known, const FolderChainCheck& check) {
    if (request_.repository_id.empty()) return;
    for (const std::string& root : request_.roots) {
      const std::string inside = root + "/" + request_.repository_id + "/x";
      const std::vector<std::string> folders = FolderChainPaths(request_.roots, inside);
      if (folders.size() != 2 || used_.contains(folders.back())) continue;
      if (known.contains(folders.back())) {
        const bool is_gone = std::ranges::find(check.folders, folders.back()) != check.folders.end();
        if (!is_gone) used_.insert(folders.begin(), folders.end());
        continue;
      }
      const Result<FolderChainState> state = ReadFolderChainState(request_.roots, inside);
      if (!state || state->folders.size() != folders.size()) continue;
      used_.insert(folders.begin(), folders.end());
      Learn(state->folders);
    }
  }

  const ProbeRequest& request_;
  std::set<std::string, std::less<>> used_;
  std::map<std::string, std::vector<std::string>> paths_by_folder_;
  FolderChain learned_;
};

}  // namespace

ProbeResult ProbeStorage(const ProbeRequest& request) { return StorageProbe(request).Run(); }

}  // namespace vexa::storage
