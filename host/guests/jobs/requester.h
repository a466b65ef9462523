// Who requested an operation on a guest from this host.
#pragma once

#include <string>

namespace vexa::guests {

struct Requester {
  std::string user;     // "" when unknown
  std::string host_id;  // the host that sent the request
  std::string request_id;
};

}  // namespace vexa::guests
