// The user, and the host, that requested an operation on a guest.
#pragma once

#include <string>

namespace vexa::guests {

struct Requester {
  std::string user;     // "" when unknown
  std::string host_id;  // the host that sent the request
  std::string request_id;
};

}  // namespace vexa::guests
