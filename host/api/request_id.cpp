#include "host/api/request_id.h"

#include "host/transport/origin.h"

namespace vexa::api {

// The transport keeps both, because requests to other hosts carry them.
RequestIdScope::RequestIdScope(std::string_view id, std::string_view user) { transport::SetOrigin({id, user}); }

RequestIdScope::~RequestIdScope() { transport::SetOrigin({}); }

void SetActingUser(std::string_view user) { transport::SetOrigin({CurrentRequestId(), user}); }

std::string_view CurrentRequestId() { return transport::CurrentOrigin().request_id; }

std::string_view CurrentActingUser() { return transport::CurrentOrigin().user; }

}  // namespace vexa::api
