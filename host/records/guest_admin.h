// Guest-admin records: who is advanced, and which guests a principal may use.
//
// One record per user or group in the dashboard category "guest_admin", under its identifier:
//   {"authlevel": "advanced", "guests": {"<guest id>": true}, "name": "alice"}
// "authlevel" is "advanced" or anything else; the member names of "guests" are the granted guests. "name" is the
// principal that the record was given to: on a host where the id belongs to another name, the record grants nothing.
// Records of older versions have no name until their next change.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

inline constexpr std::string_view kUsersKind = "users";
inline constexpr std::string_view kGroupsKind = "groups";
inline constexpr std::string_view kAdvancedLevel = "advanced";

// The identifier of a user (kind "users") or group (kind "groups") with this numeric id: "users-1026".
std::string GuestAdminIdentifier(std::string_view kind, std::uint32_t numeric_id);

// The store's key of that record.
std::string GuestAdminKey(std::string_view identifier);

// Adds operations to `transaction` that remove the guest from every guest-admin record, with a compare for each changed
// record. Damaged records are left unchanged; `damage` receives an error for each. Errors: those of the store.
Status AddGrantRemovals(const store::Snapshot& snapshot, const std::string& guest_id, store::Transaction& transaction,
                        std::vector<Error>& damage);

}  // namespace vexa::cluster
