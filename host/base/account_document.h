// What the account file holds: its text as a value, checked wholly.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/accounts.h"
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

  AccountRecord* FindUser(std::string_view name);
  const Group* FindGroup(std::string_view name) const;
  const Group* FindGroupByGid(std::uint32_t gid) const;
  bool HasUid(std::uint32_t uid) const;

  // An id of ours that no user or group has or had. kNoSpace when all are used up.
  Result<std::uint32_t> TakeId();
  // Remembers that `id` is given, if it is one of ours.
  void NoteId(std::uint32_t id);
  // The group of that name, created when missing: with the machine's id for it when it has one that is free here.
  // kNoSpace; kUnavailable when the name service cannot tell.
  Result<Group> GroupFor(const std::string& name);
};

// kCorrupt, with a sentence that says what is wrong, unless all of it is understood and refers to nothing missing:
// known members only, names and ids unique and possible, groups that exist.
Result<AccountDocument> ParseAccounts(std::string_view text);
std::string RenderAccounts(const AccountDocument& document);

}  // namespace vexa::base
