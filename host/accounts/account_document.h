// Parses the account file that older versions used.
//
//   {"version": 1, "next_id": 1900000003,
//    "groups": [{"name": "administrators", "gid": 1900000000}, {"name": "users", "gid": 1900000001}],
//    "users":  [{"name": "alice", "uid": 1900000002, "gid": 1900000001, "password": "$y$…",
//                "groups": ["administrators"]}]}
// Passwords are yescrypt hashes (crypt(5)); "" and "!…" disable login. A user's "gid" is the id of the primary group;
// "groups" are the names of the other groups. Names that differ only in case are different names here. "next_id" may be
// missing; every id below it, within the range that hosts assign, has been assigned before. Unknown members are errors.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/base/result.h"

namespace vexa::accounts {

struct AccountRecord {
  std::string name;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::string password;             // a hash, or "" or "!…"
  std::vector<std::string> groups;  // in addition to the primary one
};

struct AccountDocument {
  std::uint32_t next_id = 0;  // the next id to assign, above all ids in the file
  std::vector<Group> groups;
  std::vector<AccountRecord> users;
};

// Checks the whole text: only known members, valid and unique names and ids, only groups that exist. Errors: kCorrupt,
// with what is wrong.
Result<AccountDocument> ParseAccounts(std::string_view text);

}  // namespace vexa::accounts
