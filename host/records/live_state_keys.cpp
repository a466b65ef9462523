// The keys of live states, apart from live_state.cpp for programs that do not observe guests.
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {

std::string LiveStateKey(const std::string& guest_id) {
  return MemberKey(VexaCCC::DB::DashCate::Guest.name(), guest_id, VexaCCC::DB::_k::state);
}

std::string LiveRecordKey(const std::string& guest_id) { return store::MakeKey({"live", guest_id}); }

void AddLiveStateRemoval(store::Transaction& transaction, const std::string& guest_id) {
  transaction.operations.push_back({LiveStateKey(guest_id), std::nullopt});
  transaction.operations.push_back({LiveRecordKey(guest_id), std::nullopt});
}

}  // namespace vexa::records
