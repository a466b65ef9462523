#include "host/accounts/account_nss.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <unordered_set>
#include <utility>

#include "host/base/json_parse.h"

namespace vexa::base {
namespace {

constexpr std::size_t kFirstBuffer = 1024;
constexpr std::size_t kLastBuffer = std::size_t{4} << 20;  // a group's entry lists all its members
constexpr std::size_t kMaxGroups = 65536;                  // NGROUPS_MAX of the kernel

// Calls one of the get…_r functions with a buffer that grows until the answer fits. `take` copies from the entry while
// the buffer is alive. `call` returns an error number, which is 0 also when there is no entry.
template <class Entry, class Call, class Take>
auto Lookup(const std::string& what, const Call& call, const Take& take) -> Result<decltype(take(Entry{}))> {
  for (std::size_t size = kFirstBuffer; size <= kLastBuffer; size *= 4) {
    std::vector<char> buffer(size);
    Entry entry{};
    Entry* found = nullptr;
    int error_number = call(&entry, buffer.data(), buffer.size(), &found);
    while (error_number == EINTR) error_number = call(&entry, buffer.data(), buffer.size(), &found);
    if (error_number == ERANGE) continue;
    if (error_number == 0 && found != nullptr) return take(*found);
    if (error_number == 0 || error_number == ENOENT || error_number == ESRCH) {
      return Error(ErrorCode::kNotFound, "There is no " + what);
    }
    return SystemError(ErrorCode::kUnavailable, "The name service cannot look up the " + what, error_number);
  }
  return SystemError(ErrorCode::kUnavailable, "The name service's answer is too long about the " + what, ERANGE);
}

NssUser TakeUser(const passwd& entry) { return {entry.pw_name, entry.pw_uid, entry.pw_gid}; }
Group TakeGroup(const group& entry) { return {entry.gr_name, entry.gr_gid}; }

}  // namespace

bool IsSystemName(std::string_view name) {
  constexpr std::size_t kMaxBytes = 256;
  const bool is_plain = std::ranges::none_of(name, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
  return !name.empty() && name.size() <= kMaxBytes && is_plain && IsValidUtf8(name);
}

Result<NssUser> NssFindUser(const std::string& name) {
  if (!IsSystemName(name)) return Error(ErrorCode::kNotFound, "The user name is invalid");
  return Lookup<passwd>(
      "user '" + name + "'",
      [&](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return ::getpwnam_r(name.c_str(), entry, buffer, size, found);
      },
      TakeUser);
}

Result<NssUser> NssFindUserByUid(std::uint32_t uid) {
  return Lookup<passwd>(
      "user with the uid " + std::to_string(uid),
      [&](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return ::getpwuid_r(uid, entry, buffer, size, found);
      },
      TakeUser);
}

Result<Group> NssFindGroup(const std::string& name) {
  if (!IsSystemName(name)) return Error(ErrorCode::kNotFound, "The group name is invalid");
  return Lookup<group>(
      "group '" + name + "'",
      [&](group* entry, char* buffer, std::size_t size, group** found) {
        return ::getgrnam_r(name.c_str(), entry, buffer, size, found);
      },
      TakeGroup);
}

Result<Group> NssFindGroupByGid(std::uint32_t gid) {
  return Lookup<group>(
      "group with the gid " + std::to_string(gid),
      [&](group* entry, char* buffer, std::size_t size, group** found) {
        return ::getgrgid_r(gid, entry, buffer, size, found);
      },
      TakeGroup);
}

Result<std::vector<Group>> NssGroupsOf(const NssUser& user) {
  std::vector<gid_t> gids(64);
  int count = static_cast<int>(gids.size());
  // When they do not fit, the call reports how many there are. There may be more by the next call.
  while (::getgrouplist(user.name.c_str(), user.gid, gids.data(), &count) < 0) {
    if (gids.size() >= kMaxGroups) {
      return Error(ErrorCode::kUnavailable, "The user '" + user.name + "' is in too many groups");
    }
    gids.resize(std::min(kMaxGroups, std::max(gids.size() * 2, static_cast<std::size_t>(std::max(count, 0)))));
    count = static_cast<int>(gids.size());
  }
  gids.resize(static_cast<std::size_t>(count));
  // The manual page promises no order.
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

}  // namespace vexa::base
