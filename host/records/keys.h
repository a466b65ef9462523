// The keys of records in the store.
#pragma once

#include <string>
#include <string_view>

namespace vexa::guests {

// The member of a guest's record with the path of the file that holds its UEFI variables.
inline constexpr char kNvramMember[] = "nvram";

std::string GuestObjectKey(const std::string& guest_id);

}  // namespace vexa::guests

namespace vexa::cluster {

// The record of a dashboard category.
std::string ObjectKey(std::string_view category, std::string_view id);

// The key that holds the id of the record with this name; see named_record.h.
std::string NameKey(std::string_view category, std::string_view name);

}  // namespace vexa::cluster
