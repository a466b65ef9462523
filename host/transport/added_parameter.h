// A parameter of a user's call that the library above does not know, for the host that the call leads to.
#pragma once

#include <string>

#include "webapi/platform/dr.h"

namespace vexa::transport {

// For as long as it lives, the calling thread's requests for the method have the parameter as well. One at a time.
class AddedParameter {
 public:
  AddedParameter(std::string api, std::string method, std::string name, std::string value);
  ~AddedParameter();
  AddedParameter(const AddedParameter&) = delete;
  AddedParameter& operator=(const AddedParameter&) = delete;
};

// `request` with the calling thread's added parameter, if it is for this method.
VexaDRCore::Request WithAddedParameter(const VexaDRCore::Request& request);

}  // namespace vexa::transport
