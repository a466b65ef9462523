#include "host/api/user/own_rights_api.h"

#include <set>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/cluster/console_right.h"
#include "host/records/keys.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

// The guests that were granted to the caller or to a group of theirs. A grant may name a guest that no longer exists;
// it is left out.
Result<Json::Value> GrantedGuests(const store::Store& store, const Call& call) {
  std::set<std::string> ids;
  if (VexaCCC::gaUserListAvail(call.caller.user.name, keys::guest, ids) != 0) {
    return Error(ErrorCode::kUnavailable, "The caller's grants cannot be read");
  }
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  Json::Value guests(Json::arrayValue);
  for (const std::string& id : ids) {
    std::string name;
    if (!VexaVirtualization::GetGuestNameById(id, name)) continue;
    const Result<bool> console = cluster::MayOpenConsole(**snapshot, call.caller.user, id);
    if (!console) return console.error();
    Json::Value& guest = guests.append(Json::Value(Json::objectValue));
    guest["guest_id"] = id;
    guest["guest_name"] = name;
    guest["console"] = *console;
  }
  return guests;
}

void Rights(const store::Store& store, const Call& call) {
  const accounts::User& user = call.caller.user;
  Json::Value data(Json::objectValue);
  data["user"] = user.name;
  data["uid"] = user.uid;
  data["administrator"] = user.is_administrator;
  data["advanced"] = VexaCCC::gaIsAdvancedUser(user.name) == 1;
  data["all_guests"] = user.is_administrator;
  data["guests"] = Json::Value(Json::arrayValue);
  if (!user.is_administrator) {
    Result<Json::Value> guests = GrantedGuests(store, call);
    if (!guests) return Fail(call, user_error::kUnavailable, "The grants cannot be read. Ask an administrator.");
    data["guests"] = *std::move(guests);
  }
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> OwnRightsRows(const std::shared_ptr<store::Store>& store) {
  return {UserRow("VEXA.Core.Session", "rights", LaneKind::kLong, [store](const Call& call) { Rights(*store, call); },
                  "What the caller may do: the level, and the guests that were granted to the caller or to a group of "
                  "theirs, and whether with the console. Administrators may use all guests (\"all_guests\"), which are "
                  "not listed.",
                  {}, {user_error::kUnavailable})};
}

}  // namespace vexa::api
