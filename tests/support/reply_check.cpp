// Fails the test when a reply to a method for users is not as the API description has it: the data of a success, or the
// code, the status and the sentences of a failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "host/api/user/schemas/user_schemas.h"
#include "host/base/error_table.h"
#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/http_client.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

const api::MethodSchema* FindMethod(std::string_view path) {
  constexpr std::string_view kPrefix = "/webapi/";
  if (!path.starts_with(kPrefix)) return nullptr;
  path.remove_prefix(kPrefix.size());
  path = path.substr(0, path.find('?'));
  const std::size_t slash = path.find('/');
  if (slash == std::string_view::npos) return nullptr;
  const auto is_called = [&](const api::MethodSchema& each) {
    return each.api == path.substr(0, slash) && each.method == path.substr(slash + 1);
  };
  const auto found = std::ranges::find_if(api::UserSchemas(), is_called);
  return found == api::UserSchemas().end() ? nullptr : &*found;
}

void CheckFailure(const HttpReply& reply, const Json::Value& error) {
  const auto code = json::Member(error, "code");
  const ErrorRow* const row = code.isInt() ? FindError(code.asInt()) : nullptr;
  ASSERT_TRUE(row) << "No documented code";
  if (row->code != user_error::kInternal) {
    EXPECT_EQ(reply.status, row->http_status);
  }
  EXPECT_EQ(json::StringMember(error, "message"), row->sentence);
  EXPECT_NE(json::StringMember(error, "reason"), "");
  EXPECT_NE(json::StringMember(error, "hint"), "");
}

void Check(const std::string& path, const HttpReply& reply) {
  const api::MethodSchema* const method = FindMethod(path);
  const bool is_preflight = reply.status != 200 && reply.body.empty();
  if (!method || is_preflight) return;
  const testing::ScopedTrace trace(__FILE__, __LINE__, path + ": " + reply.body);
  const Result<Json::Value> body = ParseJson(reply.body);
  ASSERT_TRUE(body);
  EXPECT_EQ(json::Member(*body, "success"), Json::Value(reply.status == 200));
  EXPECT_NE(json::StringMember(*body, "request_id"), "");
  if (reply.status != 200) return CheckFailure(reply, json::Member(*body, "error"));
  EXPECT_EQ(api::DescribeWrongReply(method->reply, json::Member(*body, "data")), "");
}

const bool is_set = (SetReplyCheck(Check), true);

}  // namespace
}  // namespace vexa::test
