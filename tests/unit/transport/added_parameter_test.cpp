// Parameters that a request gets in addition to those of the library.
#include "host/transport/added_parameter.h"

#include <gtest/gtest.h>

#include <thread>

namespace vexa::transport {
namespace {

VexaDRCore::Request NewRequest(const char* api, const char* method) {
  VexaDRCore::Request request;
  request.setAPI(api);
  request.setMethod(method);
  request.setTimeout(7);
  return request;
}

bool IsAdded(const char* api, const char* method) {
  const VexaDRCore::Request request = WithAddedParameter(NewRequest(api, method));
  EXPECT_EQ(request.timeout_s(), 7);
  return request.parameters()["apply"] == "now";
}

TEST(AddedParameter, Request_ForItsMethodOnItsThread_HasIt) {
  EXPECT_FALSE(IsAdded("A", "set"));
  {
    const AddedParameter added("A", "set", "apply", "now");
    EXPECT_TRUE(IsAdded("A", "set"));
    EXPECT_FALSE(IsAdded("A", "get"));
    EXPECT_FALSE(IsAdded("B", "set"));
    bool is_added_elsewhere = true;
    std::thread([&] { is_added_elsewhere = IsAdded("A", "set"); }).join();
    EXPECT_FALSE(is_added_elsewhere);
  }
  EXPECT_FALSE(IsAdded("A", "set"));
}

}  // namespace
}  // namespace vexa::transport
