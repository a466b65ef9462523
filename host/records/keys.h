// The keys of records in the store.
#pragma once

#include <string>

namespace vexa::guests {

// The member of a guest's record with the path of the file that holds its UEFI variables.
inline constexpr char kNvramMember[] = "nvram";

std::string GuestObjectKey(const std::string& guest_id);

}  // namespace vexa::guests
