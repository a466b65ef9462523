// What an account file of older versions holds: its text as a value, checked wholly.
//
//   {"version": 1, "next_id": 1900000003,
//    "groups": [{"name": "administrators", "gid": 1900000000}, {"name": "users", "gid": 1900000001}],
//    "users":  [{"name": "alice", "uid": 1900000002, "gid": 1900000001, "password": "$y$…",
//                "groups": ["administrators"]}]}
// Passwords are yescrypt hashes (crypt(5)); "" and "!…" disable login. "gid" names the primary group, "groups" the
// others. Names that differ only in case are different names here. "next_id" may be missing; all ids of the range that
// hosts give out and that are below it were given to somebody. Any other member is refused.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/base/result.h"

namespace vexa::base {

struct AccountRecord {
  std::string name;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::string password;             // a hash, or "" or "!…"
  std::vector<std::string> groups;  // beside the primary one
};

struct AccountDocument {
  std::uint32_t next_id = 0;
  std::vector<Group> groups;
  std::vector<AccountRecord> users;
};

// kCorrupt, with a sentence that says what is wrong, unless all of it is understood and refers to nothing missing:
// known members only, names and ids unique and possible, groups that exist.
Result<AccountDocument> ParseAccounts(std::string_view text);

}  // namespace vexa::base
