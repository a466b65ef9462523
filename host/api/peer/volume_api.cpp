// The size of a volume of this host.
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "host/api/peer/rows.h"

namespace vexa::api {
namespace {

bool IsBelow(std::string_view path, std::string_view folder) {
  if (folder == "/") return true;
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

// An absolute path without "..", shorter than PATH_MAX and without NUL.
bool IsVolumePath(const std::string& path) {
  if (path.empty() || path.front() != '/' || path.size() >= PATH_MAX || path.find('\0') != std::string::npos) {
    return false;
  }
  for (std::size_t at = 0; at != std::string::npos; at = path.find('/', at + 1)) {
    if (path.compare(at, 3, "/..") == 0 && (at + 3 == path.size() || path[at + 3] == '/')) return false;
  }
  return true;
}

// Resolves symbolic links, because one must not lead out of the roots. Not set: there is no such folder below a root.
std::optional<std::string> Resolve(const std::vector<std::string>& roots, const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), ::free);
  if (!real) return std::nullopt;
  const std::string resolved = real.get();
  struct stat info {};
  if (::stat(resolved.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return std::nullopt;
  const bool allowed = std::ranges::any_of(roots, [&](const std::string& root) { return IsBelow(resolved, root); });
  return allowed ? std::optional(resolved) : std::nullopt;
}

// The kernel escapes blanks and backslashes as \040 and the like.
std::string Unescape(std::string_view text) {
  std::string result;
  const auto octal = [&](std::size_t at) { return text[at] >= '0' && text[at] <= '7'; };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
      result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

// The type of the file system that contains `path`: that of the deepest mount point, or the last one mounted there. ""
// when unknown.
std::string FileSystemOf(const machine::Machine& machine, const std::string& path) {
  std::string type;
  std::size_t deepest = 0;
  const std::string text = machine.Read("/proc/self/mountinfo").value_or("");
  machine::ForEachLine(text, [&](std::string_view line) {
    // id parent device root mount-point options [tags…] - type source options
    const std::vector<std::string_view> fields = machine::Fields(line);
    const auto dash = std::ranges::find(fields, "-");
    if (fields.size() < 7 || dash == fields.end() || dash + 1 == fields.end()) return true;
    const std::string point = Unescape(fields[4]);
    if (point.size() >= deepest && IsBelow(path, point)) {
      deepest = point.size();
      type = machine::CleanText(*(dash + 1));
    }
    return true;
  });
  return type;
}

Json::UInt64 Bytes(std::uint64_t blocks, std::uint64_t block_bytes) {
  std::uint64_t bytes = 0;
  return __builtin_mul_overflow(blocks, block_bytes, &bytes) ? std::numeric_limits<Json::UInt64>::max() : bytes;
}

void VolumeGet(const machine::Machine& machine, const std::vector<std::string>& roots, const Call& call) {
  const auto path = call.request->GetAndCheckString("volume_path", kRequired, IsVolumePath);
  if (path.IsInvalid()) return Fail(call, host_error::kBadParameter);
  const std::optional<std::string> folder = Resolve(roots, path.Get());
  struct statvfs stats {};
  if (!folder || ::statvfs(folder->c_str(), &stats) != 0) return Fail(call, host_error::kNotFoundOrUnreadable);
  Json::Value data(Json::objectValue);
  Json::Value& volume = data["volume"];
  volume["size_total_byte"] = Bytes(stats.f_blocks, stats.f_frsize);
  volume["size_free_byte"] = Bytes(stats.f_bavail, stats.f_frsize);
  volume["fs_type"] = FileSystemOf(machine, *folder);
  volume["status"] = "normal";
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> VolumeRows(const ServiceParts& parts) {
  // The long lane: a file system that has lost its server does not respond.
  return {HostRow(
      "VEXA.Core.Storage.Volume", "get", LaneKind::kLong,
      [machine = parts.machine, roots = parts.volume_roots](const Call& call) { VolumeGet(machine, roots, call); },
      "The size in bytes and the file system of the volume that a folder is on.",
      {Text("volume_path", "An absolute path of a folder.")},
      {host_error::kBadParameter, host_error::kNotFoundOrUnreadable})};
}

}  // namespace vexa::api
