#include "host/records/keys.h"

#include "host/store/key.h"

namespace vexa::guests {

std::string GuestObjectKey(const std::string& guest_id) {
  return cluster::ObjectKey(VexaCCC::DB::DashCate::Guest.name(), guest_id);
}

}  // namespace vexa::guests

namespace vexa::cluster {
namespace {

constexpr std::string_view kDashboard = "dash";

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

std::string NameKey(std::string_view category, std::string_view name) {
  return store::MakeKey({"name", category, name});
}

}  // namespace vexa::cluster
