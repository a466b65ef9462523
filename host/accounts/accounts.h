// Users and groups: who somebody is, and whether a password is theirs.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::base {

struct Group {
  std::string name;
  std::uint32_t gid = 0;
};

struct User {
  std::string name;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;      // the primary group
  std::vector<Group> groups;  // all of them, the primary one first, each once
  bool is_administrator = false;
};

// Threads: any, at the same time. Changes made by others (an administrator's command, the system's user database) are
// seen by the next call.
class AccountProvider {
 public:
  virtual ~AccountProvider() = default;

  // kNotFound when there is no such user; kUnavailable when that cannot be told now.
  virtual Result<User> FindUser(const std::string& name) const = 0;
  virtual Result<User> FindUserByUid(std::uint32_t uid) const = 0;
  virtual Result<Group> FindGroupByGid(std::uint32_t gid) const = 0;

  // The user when the password is theirs; kDenied when there is no such user or it is not (not told apart, and taking
  // the same time); kUnavailable when it cannot be checked. Takes tens of milliseconds on purpose.
  virtual Result<User> VerifyPassword(const std::string& name, const std::string& password) const = 0;
};

// The first and the last id of those that are given to users and groups: systemd's UIDS-GIDS document leaves 1879048192
// to 2147483647 unused.
inline constexpr std::uint32_t kFirstOwnId = 1'900'000'000;
inline constexpr std::uint32_t kLastOwnId = 2'147'483'646;

inline constexpr std::string_view kAdministratorsGroup = "administrators";
inline constexpr std::string_view kUsersGroup = "users";  // everybody's primary group

// Whether `name` may be a user's or group's name: 1 to 64 bytes of letters, digits and . _ - @ \ , starting with a
// letter, a digit or an underscore.
bool IsValidAccountName(std::string_view name);

// `name` with its ASCII letters in lower case. Names are ASCII, and the locale has no part in it.
std::string FoldedName(std::string_view name);

}  // namespace vexa::base
