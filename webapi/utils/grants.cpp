#include <memory>
#include <string>
#include <vector>

#include "json/readers.h"
#include "webapi/platform/base.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

constexpr int kFailed = -1;

// Get() returns this for a missing record, and List() for a category that was never created.
constexpr int kAbsent = 2;

constexpr int kInitialGroupCapacity = 1024;

// Not the id of any group.
constexpr unsigned int kInvalidGroupId = 0xFFFFFFFF;

struct ListFree {
  void operator()(PSZLIST list) const { HLIBCSzListFree(list); }
};
struct HashFree {
  void operator()(PSZHASH hash) const { HLIBCSzHashFree(hash); }
};
using List = std::unique_ptr<HLIBCSzList, ListFree>;
using Hash = std::unique_ptr<HLIBCSzHash, HashFree>;

// Whether the record of a user or group makes them advanced. A missing record does not.
enum class AdvancedStatus { kAdvanced, kNotAdvanced, kUnreadable };

// The type of an account, from the form of its name. A domain account ("DOMAIN\user") may contain an "@".
int AuthTypeOf(const std::string& user) {
  if (user.find('\\') != std::string::npos) return 2;
  return user.find('@') != std::string::npos ? 8 : 1;
}

bool IsAdvanced(const Json::Value& record) { return json::String(json::Member(record, key::authlevel)) == "advanced"; }

AdvancedStatus ReadAdvancedStatus(const std::string& identifier) {
  Json::Value record;
  const int result = Dashboard(DashCate::GuestAdmin, identifier).Get(record, key::object);
  if (result == 0) return IsAdvanced(record) ? AdvancedStatus::kAdvanced : AdvancedStatus::kNotAdvanced;
  if (result == kAbsent) return AdvancedStatus::kNotAdvanced;
  VEXA_LOG("utils", "Failed to get guest admin object of [%s]", identifier.c_str());
  return AdvancedStatus::kUnreadable;
}

// The identifier of a user's or group's record; "", with one line logged, when there is no such user or group.
std::string IdentifierOf(const std::string& user, const std::string& kind, unsigned int numeric_id) {
  std::string identifier = VexaCCC::gaUUIDGet(AuthTypeOf(user), kind, numeric_id);
  if (identifier.empty()) VEXA_LOG("utils", "Failed to get user id [%s], [%u]", user.c_str(), numeric_id);
  return identifier;
}

int Grant(const std::string& identifier, const std::string& guest_id) {
  const std::vector<VexaCCC::Rule> rules = {{key::guest, guest_id, true}};
  const int result = VexaCCC::gaUserSet(identifier, "", rules);
  if (result == 0) return 0;
  VEXA_LOG("utils", "gaUserSet failed [%d]", result);
  return kFailed;
}

// Returns kInvalidGroupId unless the text is a decimal group id; never 0 by mistake.
unsigned int ParseGroupId(const char* text) {
  if (!text || *text == '\0') return kInvalidGroupId;
  unsigned long long numeric_id = 0;
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return kInvalidGroupId;
    numeric_id = numeric_id * 10 + static_cast<unsigned int>(*text - '0');
    if (numeric_id >= kInvalidGroupId) return kInvalidGroupId;
  }
  return static_cast<unsigned int>(numeric_id);
}

bool ListGroups(const std::string& user, PSZLIST groups) {
  const Hash hash(HLIBGroupInfoHashGet(user.c_str(), 0, 0));
  if (!hash) {
    VEXA_LOG("utils", "HLIBGroupInfoHashGet failed [0x%04X %s:%d]", HLIBCErrGet(), HLIBCErrorGetFile(),
             HLIBCErrorGetLine());
    return false;
  }
  if (HLIBCSzHashEnumKey(hash.get(), groups) < 0) {
    VEXA_LOG("utils", "HLIBCSzHashEnumKey failed [0x%04X %s:%d]", HLIBCErrGet(), HLIBCErrorGetFile(),
             HLIBCErrorGetLine());
    return false;
  }
  return true;
}

int GrantToFirstAdvancedGroup(const std::string& user, PSZLIST groups, const std::string& guest_id) {
  const int count = HLIBCSzListCount(groups);
  for (int i = 0; i < count; ++i) {
    const std::string identifier = IdentifierOf(user, "groups", ParseGroupId(HLIBCSzListGet(groups, i)));
    if (identifier.empty()) return kFailed;
    const AdvancedStatus status = ReadAdvancedStatus(identifier);
    if (status == AdvancedStatus::kUnreadable) return kFailed;
    if (status == AdvancedStatus::kAdvanced) return Grant(identifier, guest_id);
  }
  VEXA_LOG("utils", "Cannot find valid user/group for guest [%s]", guest_id.c_str());
  return kFailed;
}

}  // namespace

int AdvancedUserAddGuest(const std::string& user, const std::string& guest_id) {
  const List groups(HLIBCSzListAlloc(kInitialGroupCapacity));
  if (!groups) {
    VEXA_LOG("utils", "Failed to alloc list");
    return kFailed;
  }
  uid_t uid = 0;
  gid_t gid = 0;
  if (VEXAUserGetUGID(user.c_str(), &uid, &gid) < 0) {
    VEXA_LOG("utils", "Failed to get System ugid of user[%s]", user.c_str());
    return kFailed;
  }
  const std::string identifier = IdentifierOf(user, "users", uid);
  if (identifier.empty()) return kFailed;
  const AdvancedStatus status = ReadAdvancedStatus(identifier);
  if (status == AdvancedStatus::kUnreadable) return kFailed;
  if (status == AdvancedStatus::kAdvanced) return Grant(identifier, guest_id);
  if (!ListGroups(user, groups.get())) return kFailed;
  return GrantToFirstAdvancedGroup(user, groups.get(), guest_id);
}

int GetGuestAdvUserCount(const std::string& guest_id) {
  std::vector<std::string> identifiers;
  const int listed = DashCate::GuestAdmin.List(identifiers);
  if (listed != 0 && listed != kAbsent) {
    VEXA_LOG("utils", "List GuestAdmin failed [%d]", listed);
    return kFailed;
  }
  int count = 0;
  for (const std::string& identifier : identifiers) {
    Json::Value record;
    // Unlike above, a missing record is a failure: it has just been listed.
    if (Dashboard(DashCate::GuestAdmin, identifier).Get(record, key::object) != 0) {
      VEXA_LOG("utils", "Failed to get object of GuestAdmin[%s]", identifier.c_str());
      return kFailed;
    }
    if (IsAdvanced(record) && json::FindMember(json::Member(record, key::guests), guest_id)) ++count;
  }
  return count;
}

}  // namespace VexaVirtualization
