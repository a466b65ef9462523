#include "host/accounts/account_nss.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <unordered_set>
#include <utility>

#include "host/accounts/account_shadow.h"
#include "host/base/json_parse.h"

namespace vexa::accounts {
namespace {

constexpr std::size_t kInitialBufferBytes = 1024;
constexpr std::size_t kMaxBufferBytes = std::size_t{4} << 20;  // a group's entry lists all its members
constexpr std::size_t kMaxGroups = 65536;                      // NGROUPS_MAX of the kernel

// Calls `get`, one of the get…_r functions, with a buffer that grows until the entry fits. `copy` copies the entry,
// which refers to the buffer. `get` returns an error number, which is also 0 if there is no entry. `what` is for
// messages. `if_forbidden` is the error when this process may not read the entry.
template <class Entry, class Key, class Copy>
auto Lookup(const std::string& what, int (*get)(Key, Entry*, char*, std::size_t, Entry**), Key key, const Copy& copy,
            ErrorCode if_forbidden = ErrorCode::kUnavailable) -> Result<decltype(copy(Entry{}))> {
  for (std::size_t size = kInitialBufferBytes; size <= kMaxBufferBytes; size *= 4) {
    std::vector<char> buffer(size);
    Entry entry{};
    Entry* found = nullptr;
    int error_number = get(key, &entry, buffer.data(), buffer.size(), &found);
    while (error_number == EINTR) error_number = get(key, &entry, buffer.data(), buffer.size(), &found);
    if (error_number == ERANGE) continue;
    if (error_number == 0 && found != nullptr) return copy(*found);
    if (error_number == 0 || error_number == ENOENT || error_number == ESRCH) {
      return Error(ErrorCode::kNotFound, fmt::format("There is no {}", what));
    }
    const bool is_forbidden = error_number == EACCES || error_number == EPERM;
    return SystemError(is_forbidden ? if_forbidden : ErrorCode::kUnavailable,
                       fmt::format("The name service cannot look up the {}", what), error_number);
  }
  return SystemError(ErrorCode::kUnavailable, fmt::format("The name service entry of the {} is too large", what),
                     ERANGE);
}

NssUser CopyUser(const passwd& entry) { return {entry.pw_name, entry.pw_uid, entry.pw_gid}; }
Group CopyGroup(const group& entry) { return {entry.gr_name, entry.gr_gid}; }

}  // namespace

bool IsSystemName(std::string_view name) {
  constexpr std::size_t kMaxBytes = 256;
  const bool is_plain = std::ranges::none_of(name, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
  return !name.empty() && name.size() <= kMaxBytes && is_plain && IsValidUtf8(name);
}

Result<NssUser> NssFindUser(const std::string& name) {
  if (!IsSystemName(name)) return Error(ErrorCode::kNotFound, "The user name is invalid");
  return Lookup(fmt::format("user '{}'", name), &::getpwnam_r, name.c_str(), CopyUser);
}

Result<NssUser> NssFindUserByUid(std::uint32_t uid) {
  return Lookup(fmt::format("user with the uid {}", uid), &::getpwuid_r, uid, CopyUser);
}

Result<Group> NssFindGroup(const std::string& name) {
  if (!IsSystemName(name)) return Error(ErrorCode::kNotFound, "The group name is invalid");
  return Lookup(fmt::format("group '{}'", name), &::getgrnam_r, name.c_str(), CopyGroup);
}

Result<Group> NssFindGroupByGid(std::uint32_t gid) {
  return Lookup(fmt::format("group with the gid {}", gid), &::getgrgid_r, gid, CopyGroup);
}

Result<std::string> NssPasswordStamp(const std::string& name, const std::string& shadow_file) {
  const auto stamp = [](const spwd& entry) { return StampOfDay(entry.sp_lstchg); };
  auto found = Lookup(fmt::format("shadow entry of the user '{}'", name), &::getspnam_r, name.c_str(), stamp,
                      ErrorCode::kNotFound);
  const bool is_missing = !found.ok() && found.error().code() == ErrorCode::kNotFound;
  return is_missing ? ReadPasswordStamp(shadow_file, name) : found;
}

Result<std::vector<Group>> NssGroupsOf(const NssUser& user) {
  std::vector<gid_t> gids(64);
  int count = static_cast<int>(gids.size());
  // If the groups do not fit, the call sets `count` to their number, which may have grown by the next call.
  while (::getgrouplist(user.name.c_str(), user.gid, gids.data(), &count) < 0) {
    if (gids.size() >= kMaxGroups) {
      return Error(ErrorCode::kUnavailable, fmt::format("The user '{}' is in too many groups", user.name));
    }
    gids.resize(std::min(kMaxGroups, std::max(gids.size() * 2, static_cast<std::size_t>(std::max(count, 0)))));
    count = static_cast<int>(gids.size());
  }
  gids.resize(static_cast<std::size_t>(count));
  // getgrouplist(3) does not promise an order, so the primary group is put first. Duplicates are skipped below.
  gids.insert(gids.begin(), user.gid);
  std::vector<Group> groups;
  std::unordered_set<gid_t> seen;
  for (const gid_t gid : gids) {
    if (!seen.insert(gid).second) continue;
    auto group = NssFindGroupByGid(gid);
    if (group.ok()) {
      groups.push_back(std::move(group).value());
    } else if (group.error().code() != ErrorCode::kNotFound) {
      return group.error();
    }
  }
  return groups;
}

}  // namespace vexa::accounts
