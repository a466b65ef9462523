// What the tests of deleting guests and of controlling their power have in common.
#pragma once

#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/unit/webapi/state_fixture.h"
#include "webapi/platform/webapi.h"

namespace vexa::test {

// A line of the cluster log: user, priority, text.
using ClusterLine = std::tuple<std::string, int, std::string>;

class GuestActions : public StateLibrary {
 protected:
  static VEXA::APIRequest AsAdministrator(const Json::Value& parameters) {
    return {parameters, "root", VEXA::APIRequest::Privilege::kAdministrator};
  }
  static VEXA::APIRequest AsUser(const Json::Value& parameters) {
    return {parameters, "eve", VEXA::APIRequest::Privilege::kOrdinary};
  }

  static void ExpectError(const VEXA::APIResponse& response, int code) {
    EXPECT_TRUE(response.IsSet());
    EXPECT_FALSE(response.IsSuccess());
    EXPECT_EQ(response.ErrorCode(), code);
    EXPECT_TRUE(response.Data().isNull());
  }
  static void ExpectNullSuccess(const VEXA::APIResponse& response) {
    EXPECT_TRUE(response.IsSuccess()) << response.ErrorCode();
    EXPECT_TRUE(response.Data().isNull());
  }

  static void ExpectClusterLog(const std::vector<ClusterLine>& expected) {
    std::vector<ClusterLine> lines;
    for (const auto& line : Platform().cluster_log) lines.emplace_back(line.user, line.priority, line.text);
    EXPECT_EQ(lines, expected);
  }
  static void ExpectCalls(const std::vector<std::string>& expected) { EXPECT_EQ(Platform().calls, expected); }

  // The line for the request that was sent as number `index`, and the host's failure.
  static std::string BadResponse(const std::string& unit, std::size_t index, const Json::Value& reply) {
    if (index >= Platform().sent.size()) return "was not sent";
    return unit + ": Bad response [" + Text(reply) + "]/ request [" + Text(Platform().sent[index].json) + "]";
  }
};

}  // namespace vexa::test
