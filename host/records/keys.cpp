#include "host/records/keys.h"

#include "host/store/key.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {

std::string GuestObjectKey(const std::string& guest_id) {
  return store::MakeKey({"dash", VexaCCC::DB::DashCate::Guest.name(), guest_id, VexaCCC::DB::_k::object});
}

}  // namespace vexa::guests
