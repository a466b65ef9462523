#include "host/cluster/host_claim_record.h"

#include "host/store/key.h"
#include "webapi/utils/json.h"

namespace vexa::cluster {

std::string HostClaimKey(const std::string& host_id) { return store::MakeKey({"host_claim", host_id}); }

bool IsForgotten(const Json::Value& claim) {
  namespace json = VexaVirtualization::json;
  return !json::Member(claim, "forgotten").isNull();
}

}  // namespace vexa::cluster
