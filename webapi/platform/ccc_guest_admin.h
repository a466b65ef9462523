// Cluster control: which users and groups may access which guests. The dashboard category GuestAdmin has one record per
// user or group.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace VexaCCC {

// One grant in a record.
struct Rule {
  std::string category;  // the kind of object: DB::_k::guest
  std::string id;
  bool allow = false;
};

// The identifier of the record of a user (kind "users") or group (kind "groups") with this numeric id; "" when there is
// no such user or group. `auth_type` is 1 for a local account, 2 for a domain account ("DOMAIN\name"), 8 for a
// directory account ("name@directory").
std::string gaUUIDGet(int auth_type, const std::string& kind, unsigned int numeric_id);

// Applies the rules to a record, which is created if missing: rules with `allow` are granted, the others are revoked.
// Returns 0 on success; otherwise nothing changes. Pass "" as the second argument.
int gaUserSet(const std::string& identifier, const std::string& empty, const std::vector<Rule>& rules);

// The right of one user or group on a guest.
struct tagGuestAdminRule {
  std::string kind;               // "users" or "groups"
  std::string type;               // ignored
  std::string name;               // the name of the user or group, for messages
  std::string extra;              // empty
  std::uint32_t id = UINT32_MAX;  // UINT32_MAX: none
  bool allow = false;
};

// Changes which users and groups may access a guest: rules with `allow` grant access, the others revoke it. Users and
// groups without a rule are unaffected. Returns 0 when all rules are applied. Otherwise returns a negative number, and
// `failed_users` lists, once each, the users and groups that failed (by name, or by id without one): they do not exist,
// or their record is damaged. The rules of the others are applied unless the database fails; then all are listed.
int gaGuestSet(const std::string& guest_id, const std::vector<tagGuestAdminRule>& rules,
               std::vector<std::string>& failed_users);

// Removes a guest from every record. Returns 0, also when no record has it, or a negative number when a record could
// not be read or changed; the guest is still removed from the other records where possible.
int gaGuestDelete(const std::string& guest_id);

}  // namespace VexaCCC

#pragma GCC visibility pop
