#include "host/records/keys.h"

#include "host/store/key.h"

namespace vexa::records {

std::string GuestObjectKey(const std::string& guest_id) {
  return ObjectKey(VexaCCC::DB::DashCate::Guest.name(), guest_id);
}

namespace {

constexpr std::string_view kDashboard = "dash";
constexpr std::string_view kMac = "mac";
constexpr std::size_t kLastOctetOffset = sizeof "02:00:00:00:00:" - 1;

}  // namespace

std::string CategoryKey(std::string_view category) { return store::MakeKey({kDashboard, category}); }

std::string RecordKey(std::string_view category, std::string_view id) {
  return store::MakeKey({kDashboard, category, id});
}

std::string MemberKey(std::string_view category, std::string_view id, std::string_view member) {
  return store::MakeKey({kDashboard, category, id, member});
}

std::string ObjectKey(std::string_view category, std::string_view id) {
  return MemberKey(category, id, VexaCCC::DB::_k::object);
}

std::string MacReservationsPrefix(std::string_view mac) { return store::MakeKey({kMac, mac.substr(kLastOctetOffset)}); }

std::string MacReservationKey(std::string_view mac) {
  return store::MakeKey({kMac, mac.substr(kLastOctetOffset), mac});
}

std::string NameKey(std::string_view category, std::string_view name) {
  return store::MakeKey({"name", category, name});
}

}  // namespace vexa::records
