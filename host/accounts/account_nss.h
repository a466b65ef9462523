// Users and groups as the machine's name service knows them (nsswitch.conf(5)).
//
// Errors of all: kNotFound when there is none; kUnavailable when the name service cannot tell now.
// Threads: any, at the same time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/base/result.h"

namespace vexa::base {

struct NssUser {
  std::string name;  // as the name service writes it
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

Result<NssUser> NssFindUser(const std::string& name);
Result<NssUser> NssFindUserByUid(std::uint32_t uid);
Result<Group> NssFindGroup(const std::string& name);
Result<Group> NssFindGroupByGid(std::uint32_t gid);

// All groups of the user, the primary one first, each once. Groups without a name are left out: rights are given to
// names, and a number in a name's place could be somebody else's name.
Result<std::vector<Group>> NssGroupsOf(const NssUser& user);

}  // namespace vexa::base
