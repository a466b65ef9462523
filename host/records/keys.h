// The keys of records in the store.
#pragma once

#include <string>
#include <string_view>

#include "webapi/platform/ccc.h"

namespace vexa {

// The names of the members of records.
namespace keys = VexaCCC::DB::_k;

}  // namespace vexa

namespace vexa::records {

// The member of a guest's record with the path of the file that holds its UEFI variables.
inline constexpr char kNvramMember[] = "nvram";

std::string GuestObjectKey(const std::string& guest_id);

// All records of a dashboard category lie below this key; its children are the ids.
std::string CategoryKey(std::string_view category);

// All keys of one record lie below this key; its children are the members that have a key of their own, and "object".
std::string RecordKey(std::string_view category, std::string_view id);

// A member of a record that has a key of its own.
std::string MemberKey(std::string_view category, std::string_view id, std::string_view member);

// The record itself.
std::string ObjectKey(std::string_view category, std::string_view id);

// The reservations of all MAC addresses with the same last octet as `mac` lie below this key. `mac` is
// "xx:xx:xx:xx:xx:xx" in lower case.
std::string MacReservationsPrefix(std::string_view mac);
std::string MacReservationKey(std::string_view mac);

// The key that holds the id of the record with this name; see named_record.h.
std::string NameKey(std::string_view category, std::string_view name);

}  // namespace vexa::records
