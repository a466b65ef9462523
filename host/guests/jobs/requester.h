// Who asked this host to do something with a guest.
#pragma once

#include <string>

namespace vexa::guests {

struct Requester {
  std::string user;     // "" when it is not known
  std::string host_id;  // the host that sent the request
  std::string request_id;
};

}  // namespace vexa::guests
