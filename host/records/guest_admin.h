// Guest-admin records: which guests a principal (a user or a group) may use, and whether it has the level "advanced".
//
// One record per user or group in the dashboard category "guest_admin", under its identifier:
//   {"authlevel": "advanced", "guests": {"<guest id>": true}, "consoles": {"<guest id>": true}, "name": "alice"}
// Any "authlevel" other than "advanced" is the ordinary level. The member names of "guests" are the ids of the granted
// guests; those of "consoles" the guests whose consoles were granted as well, which counts only together with the guest
// itself, from this record or another one. "name" is the principal's name when the grants were made: on a host where
// the id belongs to another name, the record grants nothing. Records of older versions have no name until their next
// change.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::records {

inline constexpr std::string_view kUsersKind = "users";
inline constexpr std::string_view kGroupsKind = "groups";
inline constexpr std::string_view kAdvancedLevel = "advanced";
inline constexpr char kConsoles[] = "consoles";

// The identifier of a user (kind "users") or group (kind "groups") with this numeric id: "users-1026".
std::string GuestAdminIdentifier(std::string_view kind, std::uint32_t numeric_id);

// The principal that an identifier stands for.
struct GuestAdminPrincipal {
  std::string_view kind;  // kUsersKind or kGroupsKind
  std::uint32_t id = 0;
};

// Parses a result of GuestAdminIdentifier. Not set for any other string.
std::optional<GuestAdminPrincipal> ParseGuestAdminIdentifier(std::string_view text);

// The store's key of the record with this identifier.
std::string GuestAdminKey(std::string_view identifier);

// Adds operations to `transaction` that remove the guest from every guest-admin record, with a compare for each changed
// record. Damaged records are left unchanged; `damage` receives an error for each. Errors: those of the store.
Status AddGrantRemovals(const store::Snapshot& snapshot, const std::string& guest_id, store::Transaction& transaction,
                        std::vector<Error>& damage);

}  // namespace vexa::records
