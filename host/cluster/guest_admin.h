// Guest-admin records: who is advanced, and which guests somebody may use.
//
// One record per user or group in the dashboard category "guest_admin", under its identifier:
//   {"authlevel": "advanced", "guests": {"<guest id>": true}}
// "authlevel" is "advanced" or anything else; the member names of "guests" are the granted guests.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vexa::cluster {

inline constexpr std::string_view kUsersKind = "users";
inline constexpr std::string_view kGroupsKind = "groups";
inline constexpr std::string_view kAdvancedLevel = "advanced";

// The identifier of a user (kind "users") or group (kind "groups") with this numeric id: "users-1026".
std::string GuestAdminIdentifier(std::string_view kind, std::uint32_t numeric_id);

// The store's key of that record.
std::string GuestAdminKey(std::string_view identifier);

}  // namespace vexa::cluster
