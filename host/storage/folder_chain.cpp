#include "host/storage/folder_chain.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "host/base/access_error.h"
#include "host/base/sanitize_for_log.h"
#include "host/disks/disk_files.h"
#include "json/readers.h"

namespace vexa::storage {
namespace {

constexpr std::string_view kInode = "ino=";
constexpr std::string_view kFileSystem = " fsid=";
constexpr std::string_view kBirthTime = " born=";
constexpr std::size_t kNanosecondDigits = 9;

bool IsRoot(std::string_view folder) { return folder.ends_with('/'); }

// O_PATH: search permission is enough, and O_DIRECTORY makes automount(8) mount what it passes.
Descriptor OpenRoot(const std::string& root) {
  return Descriptor(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}
Descriptor OpenFolder(const Descriptor& folder, const std::string& name) {
  return Descriptor(::openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Parses the number at the start of `text` and removes it.
bool ParseNumberPrefix(std::string_view& text, int base, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

bool SkipPrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

// "<seconds>.<nanoseconds>"; a time before 1970 has a sign.
bool IsBirthTime(std::string_view text) {
  if (text.starts_with('-')) text.remove_prefix(1);
  const std::size_t point = text.find('.');
  if (point == std::string_view::npos || point == 0 || text.size() - point - 1 != kNanosecondDigits) return false;
  return std::ranges::all_of(text.substr(0, point), [](char c) { return c >= '0' && c <= '9'; }) &&
         std::ranges::all_of(text.substr(point + 1), [](char c) { return c >= '0' && c <= '9'; });
}

// The normal path of the root, with a slash at its end. Not set: it is not the path of a folder.
std::optional<std::string> NormalRoot(const std::string& root) {
  std::optional<std::string> below = root.starts_with('/') ? disks::NormalPath(root + "/x") : std::nullopt;
  if (below) below->pop_back();
  return below;
}

// The root of a folder in a chain, and the names of the folders from there down to it. Not set for a folder whose root
// is not in the chain.
struct PathInChain {
  std::string root;
  std::vector<std::string> names;
};
std::optional<PathInChain> FindPath(const FolderChain& chain, const std::string& folder) {
  if (IsRoot(folder)) return NormalRoot(folder) == folder ? std::optional(PathInChain{folder, {}}) : std::nullopt;
  if (disks::NormalPath(folder) != folder) return std::nullopt;
  PathInChain path;
  std::string parent = folder;
  do {
    const std::size_t slash = parent.rfind('/');
    path.names.insert(path.names.begin(), parent.substr(slash + 1));
    path.root = parent.substr(0, slash + 1);
    parent.resize(slash);
    if (chain.contains(path.root)) return path;
  } while (!parent.empty());
  return std::nullopt;
}

bool HasParent(const FolderChain& chain, const std::string& folder) {
  if (IsRoot(folder)) return false;
  const std::string parent = folder.substr(0, folder.rfind('/'));
  return chain.contains(parent + "/") || chain.contains(parent);
}

enum class Existence { kExists, kMissing, kUnknown };

struct FolderState {
  Existence existence = Existence::kExists;
  std::string identity;
  std::string reason;  // a clause, unless the folder exists
  int error_number = 0;
};

FolderState FailedState(const std::string& folder, int error_number) {
  const std::string displayed = QuotedPath(folder);
  if (error_number == ENOENT) return {Existence::kMissing, "", fmt::format("there is no folder {}", displayed), ENOENT};
  // A symbolic link in place of a folder causes one of these.
  if (error_number == ENOTDIR || error_number == ELOOP) {
    return {Existence::kUnknown, "", fmt::format("{} is not a folder", displayed), error_number};
  }
  const Error error = AccessError(ErrorCode::kInternal, fmt::format("the folder {} cannot be examined", displayed),
                                  folder, AccessTo::kContent, error_number);
  return {Existence::kUnknown, "", error.ToString(), error_number};
}

FolderState ReadFolder(const std::string& folder, const PathInChain& path) {
  Descriptor at = OpenRoot(path.root);
  for (const std::string& name : path.names) {
    if (at.get() < 0) break;
    struct statfs file_system {};
    const bool is_automount = ::fstatfs(at.get(), &file_system) == 0 && file_system.f_type == AUTOFS_SUPER_MAGIC;
    at = OpenFolder(at, name);
    if (at.get() < 0 && errno == ENOENT && is_automount) {
      return {Existence::kUnknown, "",
              fmt::format("there is no folder {}, which is mounted on demand", QuotedPath(folder)), ENOENT};
    }
  }
  if (at.get() < 0) return FailedState(folder, errno);
  const std::optional<FolderIdentity> identity = ReadIdentity(at);
  if (!identity) return FailedState(folder, errno);
  return {Existence::kExists, IdentityString(*identity), "", 0};
}

}  // namespace

std::optional<FolderIdentity> ReadIdentity(const Descriptor& opened) {
  struct statx info {};
  const int flags = AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT;
  if (::statx(opened.get(), "", flags, STATX_INO | STATX_BTIME, &info) != 0) return std::nullopt;
  struct statfs file_system {};
  if (::fstatfs(opened.get(), &file_system) != 0) return std::nullopt;
  FolderIdentity identity;
  identity.inode = info.stx_ino;
  static_assert(sizeof file_system.f_fsid == sizeof identity.file_system);
  std::memcpy(&identity.file_system, &file_system.f_fsid, sizeof identity.file_system);
  // A file system that supports the birth time but did not store it returns 1970.
  const bool has_birth_time =
      (info.stx_mask & STATX_BTIME) != 0 && (info.stx_btime.tv_sec != 0 || info.stx_btime.tv_nsec != 0);
  if (has_birth_time) {
    identity.birth_time = fmt::format("{}.{:0{}}", info.stx_btime.tv_sec, info.stx_btime.tv_nsec, kNanosecondDigits);
  }
  return identity;
}

std::string IdentityString(const FolderIdentity& identity) {
  std::string text = fmt::format("{}{}{}{:x}", kInode, identity.inode, kFileSystem, identity.file_system);
  if (identity.birth_time) text += std::string(kBirthTime) + *identity.birth_time;
  return text;
}

std::optional<FolderIdentity> ParseIdentity(std::string_view text) {
  FolderIdentity identity;
  if (!SkipPrefix(text, kInode) || !ParseNumberPrefix(text, 10, identity.inode)) return std::nullopt;
  if (!SkipPrefix(text, kFileSystem) || !ParseNumberPrefix(text, 16, identity.file_system)) return std::nullopt;
  if (text.empty()) return identity;
  if (!SkipPrefix(text, kBirthTime) || !IsBirthTime(text)) return std::nullopt;
  identity.birth_time = std::string(text);
  return identity;
}

bool IsSameFolder(const FolderIdentity& one, const FolderIdentity& other) {
  if (one.inode != other.inode) return false;
  if (one.birth_time && other.birth_time) return *one.birth_time == *other.birth_time;
  return one.file_system == other.file_system;
}

bool IsSameFolder(std::string_view one, std::string_view other) {
  const std::optional<FolderIdentity> first = ParseIdentity(one);
  const std::optional<FolderIdentity> second = ParseIdentity(other);
  return first && second && IsSameFolder(*first, *second);
}

Json::Value FolderChainJson(const FolderChain& chain) {
  Json::Value value(Json::objectValue);
  for (const auto& [folder, identity] : chain) value[folder] = identity;
  return value;
}

FolderChain FolderChainFromJson(const Json::Value& value) {
  FolderChain chain;
  for (const std::string& folder : json::MemberNames(value)) {
    const Json::Value& identity = json::Member(value, folder);
    chain.emplace(folder, identity.isString() ? json::String(identity) : std::string());
  }
  return chain;
}

std::vector<std::string> FolderChainPaths(const std::vector<std::string>& roots, std::string_view path) {
  const std::optional<std::string> normal = disks::NormalPath(path);
  std::string best;
  for (const std::string& root : roots) {
    const std::optional<std::string> candidate = NormalRoot(root);
    const bool is_above = normal && candidate && normal->starts_with(*candidate);
    if (is_above && candidate->size() > best.size()) best = *candidate;
  }
  if (best.empty()) return {};
  std::vector<std::string> folders{best};
  for (std::size_t slash = normal->find('/', best.size()); slash != std::string::npos;
       slash = normal->find('/', slash + 1)) {
    folders.push_back(normal->substr(0, slash));
  }
  return folders;
}

FolderChain SubChain(const FolderChain& known, const std::vector<std::string>& roots, std::string_view path) {
  FolderChain part;
  for (const std::string& folder : FolderChainPaths(roots, path)) {
    if (const auto found = known.find(folder); found != known.end()) part.insert(*found);
  }
  return part;
}

Result<FolderChainState> ReadFolderChainState(const std::vector<std::string>& roots, const std::string& path) {
  const std::vector<std::string> folders = FolderChainPaths(roots, path);
  if (folders.empty()) {
    return Error(ErrorCode::kInvalid, fmt::format("{} is outside the image folders", QuotedPath(path)));
  }
  FolderChainState state;
  Descriptor at(-1);
  for (const std::string& folder : folders) {
    at = IsRoot(folder) ? OpenRoot(folder) : OpenFolder(at, folder.substr(folder.rfind('/') + 1));
    const std::optional<FolderIdentity> identity = at.get() >= 0 ? ReadIdentity(at) : std::nullopt;
    if (identity) {
      state.folders.emplace(folder, IdentityString(*identity));
      continue;
    }
    if (errno == ENOENT) return state;
    const bool is_invalid = errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    return Error(is_invalid ? ErrorCode::kInvalid : ErrorCode::kInternal, FailedState(folder, errno).reason);
  }
  struct stat info {};
  const std::string name = disks::NormalPath(path)->substr(disks::NormalPath(path)->rfind('/') + 1);
  state.has_file = ::fstatat(at.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
  return state;
}

Result<FolderChain> ReadFolderChain(const std::vector<std::string>& roots, const std::string& path) {
  Result<FolderChainState> state = ReadFolderChainState(roots, path);
  if (!state) return state.error();
  return std::move(state->folders);
}

Result<FolderChain> ReadFolderChains(const std::vector<std::string>& roots, const std::vector<std::string>& paths) {
  FolderChain all;
  for (const std::string& path : paths) {
    Result<FolderChain> chain = ReadFolderChain(roots, path);
    if (!chain && chain.error().code() != ErrorCode::kInvalid) return chain.error();
    if (chain) all.merge(*chain);
  }
  return all;
}

FolderChainCheck CheckFolderChain(const FolderChain& chain) {
  using Finding = FolderChainCheck::Finding;
  FolderChainCheck gone;
  for (const auto& [folder, identity] : chain) {
    const std::optional<PathInChain> path = FindPath(chain, folder);
    if (!path) {
      return {Finding::kNotMounted, {folder}, fmt::format("{} is not the path of a known folder", QuotedPath(folder))};
    }
    const FolderState state = ReadFolder(folder, *path);
    if (state.existence == Existence::kExists && IsSameFolder(identity, state.identity)) continue;
    if (state.existence == Existence::kExists) {
      return {Finding::kNotMounted,
              {folder},
              fmt::format("the folder {} is not the folder that holds its disks", QuotedPath(folder))};
    }
    // The chain is sorted by path: the folders above this one have been checked, and are unchanged or missing.
    if (state.existence == Existence::kUnknown || !HasParent(chain, folder)) {
      return {Finding::kNotMounted, {folder}, state.reason, state.error_number};
    }
    if (gone.folders.empty()) gone = {Finding::kFolderGone, {}, state.reason, state.error_number};
    gone.folders.push_back(folder);
  }
  return gone;
}

}  // namespace vexa::storage
