#include <set>
#include <string>

#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {

bool IsAdminOrAdvancedUser(VEXA::APIRequest* request) {
  return request->IsAdmin() || VexaCCC::gaIsAdvancedUser(request->GetLoginUserName()) == 1;
}

bool IsGuestPermitted(VEXA::APIRequest* request, const std::string& guest_id) {
  // Administrators are checked first, which avoids a platform call.
  if (request->IsAdmin()) return true;
  std::set<std::string> permitted;
  if (VexaCCC::gaUserListAvail(request->GetLoginUserName(), VexaCCC::DB::_k::guest, permitted) != 0) return false;
  return permitted.contains(guest_id);
}

}  // namespace VexaVirtualization
