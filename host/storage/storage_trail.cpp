#include "host/storage/storage_trail.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "host/base/log_text.h"
#include "host/disks/disk_files.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

constexpr std::string_view kInode = "ino=";
constexpr std::string_view kFileSystem = " fsid=";
constexpr std::string_view kBorn = " born=";
constexpr std::size_t kNanosecondDigits = 9;

bool IsRoot(std::string_view folder) { return folder.ends_with('/'); }

// O_PATH: search permission is enough, and O_DIRECTORY makes automount(8) mount what it passes.
Descriptor OpenRoot(const std::string& root) {
  return Descriptor(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}
Descriptor OpenFolder(const Descriptor& folder, const std::string& name) {
  return Descriptor(::openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Not set: errno(3) has the reason.
std::optional<FolderIdentity> Identify(const Descriptor& folder) {
  struct statx info {};
  const int flags = AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT;
  if (::statx(folder.get(), "", flags, STATX_INO | STATX_BTIME, &info) != 0) return std::nullopt;
  struct statfs file_system {};
  if (::fstatfs(folder.get(), &file_system) != 0) return std::nullopt;
  FolderIdentity identity;
  identity.inode = info.stx_ino;
  static_assert(sizeof file_system.f_fsid == sizeof identity.file_system);
  std::memcpy(&identity.file_system, &file_system.f_fsid, sizeof identity.file_system);
  // A file system that supports the birth time but did not store it returns 1970.
  const bool is_born =
      (info.stx_mask & STATX_BTIME) != 0 && (info.stx_btime.tv_sec != 0 || info.stx_btime.tv_nsec != 0);
  if (is_born) {
    const std::string nanoseconds = std::to_string(info.stx_btime.tv_nsec);
    const std::size_t zeros = kNanosecondDigits - std::min(nanoseconds.size(), kNanosecondDigits);
    identity.born = std::to_string(info.stx_btime.tv_sec) + "." + std::string(zeros, '0') + nanoseconds;
  }
  return identity;
}

// Removes the number at the start of `text`.
bool TakeNumber(std::string_view& text, int base, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

bool TakeWord(std::string_view& text, std::string_view word) {
  if (!text.starts_with(word)) return false;
  text.remove_prefix(word.size());
  return true;
}

// A time before 1970 has a sign.
bool IsTime(std::string_view text) {
  if (text.starts_with('-')) text.remove_prefix(1);
  const std::size_t point = text.find('.');
  if (point == std::string_view::npos || point == 0 || text.size() - point - 1 != kNanosecondDigits) return false;
  return std::ranges::all_of(text.substr(0, point), [](char c) { return c >= '0' && c <= '9'; }) &&
         std::ranges::all_of(text.substr(point + 1), [](char c) { return c >= '0' && c <= '9'; });
}

// The root with its slash. Not set: it is not the path of a folder.
std::optional<std::string> NormalRoot(const std::string& root) {
  std::optional<std::string> below = root.starts_with('/') ? NormalPath(root + "/x") : std::nullopt;
  if (below) below->pop_back();
  return below;
}

// The root of a folder in a trail, and the names that lead from there to it. A folder whose root is not in the trail
// has none.
struct Way {
  std::string root;
  std::vector<std::string> names;
};
std::optional<Way> WayTo(const Trail& trail, const std::string& folder) {
  if (IsRoot(folder)) return NormalRoot(folder) == folder ? std::optional(Way{folder, {}}) : std::nullopt;
  if (NormalPath(folder) != folder) return std::nullopt;
  Way way;
  std::string parent = folder;
  do {
    const std::size_t slash = parent.rfind('/');
    way.names.insert(way.names.begin(), parent.substr(slash + 1));
    way.root = parent.substr(0, slash + 1);
    parent.resize(slash);
    if (trail.contains(way.root)) return way;
  } while (!parent.empty());
  return std::nullopt;
}

bool HasParent(const Trail& trail, const std::string& folder) {
  if (IsRoot(folder)) return false;
  const std::string parent = folder.substr(0, folder.rfind('/'));
  return trail.contains(parent + "/") || trail.contains(parent);
}

struct FolderLook {
  enum class Is { kThere, kMissing, kUnknown };
  Is is = Is::kThere;
  std::string identity;
  std::string reason;  // of the missing folder
  int error_number = 0;
};

FolderLook NotThere(const std::string& folder, int error_number) {
  if (error_number == ENOENT)
    return {FolderLook::Is::kMissing, "", "there is no folder " + cluster::QuotedPath(folder), ENOENT};
  // A symbolic link in place of a folder causes one of these.
  if (error_number == ENOTDIR || error_number == ELOOP) {
    return {FolderLook::Is::kUnknown, "", cluster::QuotedPath(folder) + " is not a folder", error_number};
  }
  const Error error = SystemError(ErrorCode::kInternal,
                                  "the folder " + cluster::QuotedPath(folder) + " cannot be looked at", error_number);
  return {FolderLook::Is::kUnknown, "", error.ToString(), error_number};
}

FolderLook LookAt(const std::string& folder, const Way& way) {
  Descriptor at = OpenRoot(way.root);
  for (const std::string& name : way.names) {
    if (at.get() < 0) break;
    struct statfs file_system {};
    const bool is_automount = ::fstatfs(at.get(), &file_system) == 0 && file_system.f_type == AUTOFS_SUPER_MAGIC;
    at = OpenFolder(at, name);
    if (at.get() < 0 && errno == ENOENT && is_automount) {
      return {FolderLook::Is::kUnknown, "",
              "there is no folder " + cluster::QuotedPath(folder) + ", which is mounted on demand", ENOENT};
    }
  }
  if (at.get() < 0) return NotThere(folder, errno);
  const std::optional<FolderIdentity> identity = Identify(at);
  if (!identity) return NotThere(folder, errno);
  return {FolderLook::Is::kThere, IdentityText(*identity), "", 0};
}

}  // namespace

std::string IdentityText(const FolderIdentity& identity) {
  char hex[17];
  const auto end = std::to_chars(std::begin(hex), std::end(hex), identity.file_system, 16).ptr;
  std::string text = std::string(kInode) + std::to_string(identity.inode) + std::string(kFileSystem);
  text.append(hex, end);
  if (identity.born) text += std::string(kBorn) + *identity.born;
  return text;
}

std::optional<FolderIdentity> ParseIdentity(std::string_view text) {
  FolderIdentity identity;
  if (!TakeWord(text, kInode) || !TakeNumber(text, 10, identity.inode)) return std::nullopt;
  if (!TakeWord(text, kFileSystem) || !TakeNumber(text, 16, identity.file_system)) return std::nullopt;
  if (text.empty()) return identity;
  if (!TakeWord(text, kBorn) || !IsTime(text)) return std::nullopt;
  identity.born = std::string(text);
  return identity;
}

bool IsSameFolder(const FolderIdentity& one, const FolderIdentity& other) {
  if (one.inode != other.inode) return false;
  if (one.born && other.born) return *one.born == *other.born;
  return one.file_system == other.file_system;
}

bool IsSameFolder(std::string_view one, std::string_view other) {
  const std::optional<FolderIdentity> first = ParseIdentity(one);
  const std::optional<FolderIdentity> second = ParseIdentity(other);
  return first && second && IsSameFolder(*first, *second);
}

Json::Value TrailJson(const Trail& trail) {
  Json::Value value(Json::objectValue);
  for (const auto& [folder, identity] : trail) value[folder] = identity;
  return value;
}

Trail TrailFromJson(const Json::Value& value) {
  Trail trail;
  for (const std::string& folder : json::MemberNames(value)) {
    const Json::Value& identity = json::Member(value, folder);
    trail.emplace(folder, identity.isString() ? json::String(identity) : std::string());
  }
  return trail;
}

std::vector<std::string> TrailFolders(const std::vector<std::string>& roots, std::string_view path) {
  const std::optional<std::string> normal = NormalPath(path);
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

Trail PartOf(const Trail& known, const std::vector<std::string>& roots, std::string_view path) {
  Trail part;
  for (const std::string& folder : TrailFolders(roots, path)) {
    if (const auto found = known.find(folder); found != known.end()) part.insert(*found);
  }
  return part;
}

Result<TrailLook> LookAlong(const std::vector<std::string>& roots, const std::string& path) {
  const std::vector<std::string> folders = TrailFolders(roots, path);
  if (folders.empty())
    return Error(ErrorCode::kInvalid, cluster::QuotedPath(path) + " lies outside of the folders of images");
  TrailLook look;
  Descriptor at(-1);
  for (const std::string& folder : folders) {
    at = IsRoot(folder) ? OpenRoot(folder) : OpenFolder(at, folder.substr(folder.rfind('/') + 1));
    const std::optional<FolderIdentity> identity = at.get() >= 0 ? Identify(at) : std::nullopt;
    if (identity) {
      look.folders.emplace(folder, IdentityText(*identity));
      continue;
    }
    if (errno == ENOENT) return look;
    const bool is_invalid = errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    return Error(is_invalid ? ErrorCode::kInvalid : ErrorCode::kInternal, NotThere(folder, errno).reason);
  }
  struct stat info {};
  const std::string name = NormalPath(path)->substr(NormalPath(path)->rfind('/') + 1);
  look.has_file = ::fstatat(at.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
  return look;
}

Result<Trail> TrailOf(const std::vector<std::string>& roots, const std::string& path) {
  Result<TrailLook> look = LookAlong(roots, path);
  if (!look) return look.error();
  return std::move(look->folders);
}

Result<Trail> TrailOfAll(const std::vector<std::string>& roots, const std::vector<std::string>& paths) {
  Trail all;
  for (const std::string& path : paths) {
    Result<Trail> trail = TrailOf(roots, path);
    if (!trail && trail.error().code() != ErrorCode::kInvalid) return trail.error();
    if (trail) all.merge(*trail);
  }
  return all;
}

TrailCheck CheckTrail(const Trail& trail) {
  using Is = FolderLook::Is;
  using Outcome = TrailCheck::Outcome;
  TrailCheck gone;
  for (const auto& [folder, identity] : trail) {
    const std::optional<Way> way = WayTo(trail, folder);
    if (!way)
      return {
          Outcome::kNotMounted, {folder}, cluster::QuotedPath(folder) + " is not the path of a folder that is known"};
    const FolderLook look = LookAt(folder, *way);
    if (look.is == Is::kThere && IsSameFolder(identity, look.identity)) continue;
    if (look.is == Is::kThere) {
      return {Outcome::kNotMounted,
              {folder},
              "the folder " + cluster::QuotedPath(folder) + " is not the folder that holds its disks"};
    }
    // Folders follow the folders that contain them, which are therefore unchanged, or missing themselves.
    if (look.is == Is::kUnknown || !HasParent(trail, folder)) {
      return {Outcome::kNotMounted, {folder}, look.reason, look.error_number};
    }
    if (gone.folders.empty()) gone = {Outcome::kFolderGone, {}, look.reason, look.error_number};
    gone.folders.push_back(folder);
  }
  return gone;
}

}  // namespace vexa::guests
