// Looks up users and groups in the machine's name service (nsswitch.conf(5)).
//
// Errors of all functions: kNotFound when there is no such entry; kUnavailable when the name service fails.
// Threads: any, at the same time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/base/result.h"

namespace vexa::accounts {

struct NssUser {
  std::string name;  // as the name service writes it
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

// Whether the name service can have the name: 1 to 256 bytes of UTF-8 without control characters. Directories have
// names that IsValidAccountName refuses, such as "DOMAIN\domain users".
bool IsSystemName(std::string_view name);

Result<NssUser> NssFindUser(const std::string& name);
Result<NssUser> NssFindUserByUid(std::uint32_t uid);
Result<Group> NssFindGroup(const std::string& name);
Result<Group> NssFindGroupByGid(std::uint32_t gid);

// The stamp of the user's password (account_shadow.h). Reads the shadow file as well when the name service has no
// entry, because a service behind it in nsswitch.conf(5) hides that the file could not be read.
Result<std::string> NssPasswordStamp(const std::string& name, const std::string& shadow_file);

// All groups of the user, the primary group first, without duplicates. Groups without a name are left out, because
// rights are granted to names, and a number used as a name could be the name of another group.
Result<std::vector<Group>> NssGroupsOf(const NssUser& user);

}  // namespace vexa::accounts
