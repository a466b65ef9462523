// Cluster control: who may use which guest. The records are in the dashboard category GuestAdmin, one per user or
// group.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace VexaCCC {

// One grant in a record.
struct Rule {
  std::string category;  // the kind of object, the text of DB::_k::guest
  std::string id;
  bool allow = false;
};

// The identifier of the record of a user (kind "users") or group ("groups") with this numeric id; "" when there is no
// such user or group. `auth_type`: 1 a local account, 2 one of a domain ("DOMAIN\name"), 8 one of a directory
// ("name@directory").
std::string gaUUIDGet(int auth_type, const std::string& kind, unsigned int numeric_id);

// Adds the rules to a record, which is created when there is none: rules that allow are granted, the others revoked. 0
// on success; nothing is changed otherwise. The second argument is empty.
int gaUserSet(const std::string& identifier, const std::string& empty, const std::vector<Rule>& rules);

// The right of one user or group on a guest.
struct tagGuestAdminRule {
  std::string kind;               // "users" or "groups"
  std::string type;               // not looked at here
  std::string name;               // what the user or group is called in messages
  std::string extra;              // empty
  std::uint32_t id = UINT32_MAX;  // all bits set: none
  bool allow = false;
};

// Changes who may use a guest: rules that allow grant it, the others take it back, and who is not named keeps what they
// have. No rules change nothing. 0 when all are set. Negative: `failed_users` has who could not be set (no such user or
// group, a record that cannot be understood), each once, by name or else by id; the others are set all the same, unless
// nobody could be.
int gaGuestSet(const std::string& guest_id, const std::vector<tagGuestAdminRule>& rules,
               std::vector<std::string>& failed_users);

// Takes a guest out of every record. 0, also when no record has it. Negative when one could not be read or changed: it
// is taken out of the others where possible.
int gaGuestDelete(const std::string& guest_id);

}  // namespace VexaCCC

#pragma GCC visibility pop
