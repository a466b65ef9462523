// The interface to user accounts: finds users and groups and checks passwords.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::accounts {

struct Group {
  std::string name;
  std::uint32_t gid = 0;
};

struct User {
  std::string name;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;      // the primary group
  std::vector<Group> groups;  // all groups, the primary one first, without duplicates
  bool is_administrator = false;
  // Differs from before once the password has been changed or the account created again, as far as the accounts show
  // it; never reveals the password or its hash. "" where the accounts do not show it at all. A user whose stamp cannot
  // be read now is not found: kUnavailable.
  std::string stamp = {};
};

// Changes by others, such as an administrator's command, are visible to the next call. Those of the machine's user
// database are visible within a few seconds, and later while it does not answer (account_cache.h).
// Threads: any, at the same time.
class AccountProvider {
 public:
  virtual ~AccountProvider() = default;

  // kNotFound when there is no such user or group; kUnavailable when that cannot be determined now.
  virtual Result<User> FindUser(const std::string& name) const = 0;
  virtual Result<User> FindUserByUid(std::uint32_t uid) const = 0;
  virtual Result<Group> FindGroupByGid(std::uint32_t gid) const = 0;

  // Returns the user when the password is right. kDenied when there is no such user or the password is wrong; neither
  // the error nor the time distinguishes these two. kUnavailable when the password cannot be checked. Intentional:
  // takes tens of milliseconds, to slow down guessing.
  virtual Result<User> VerifyPassword(const std::string& name, const std::string& password) const = 0;
};

// The first and the last id that hosts assign to users and groups. They are in a range that systemd's UIDS-GIDS
// document leaves unused, 1879048192 to 2147483647.
inline constexpr std::uint32_t kFirstAssignedId = 1'900'000'000;
inline constexpr std::uint32_t kLastAssignedId = 2'147'483'646;

inline constexpr std::string_view kAdministratorsGroup = "administrators";
inline constexpr std::string_view kUsersGroup = "users";  // every user's primary group

// Whether `name` is valid for a user or group: 1 to 64 bytes of letters, digits and . _ - @ \ , starting with a letter,
// a digit or an underscore.
bool IsValidAccountName(std::string_view name);

// `name` with its ASCII letters in lower case, independent of the locale. Account names are ASCII.
std::string LowerCaseName(std::string_view name);

}  // namespace vexa::accounts
