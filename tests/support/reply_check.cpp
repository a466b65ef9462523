// Fails the test when the data of a reply to a method for users is not as the API description has it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "host/api/user/schemas/user_schemas.h"
#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/http_client.h"

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

void Check(const std::string& path, const HttpReply& reply) {
  const api::MethodSchema* const method = reply.status == 200 ? FindMethod(path) : nullptr;
  if (!method) return;
  const Result<Json::Value> body = ParseJson(reply.body);
  ASSERT_TRUE(body) << path << ": " << reply.body;
  EXPECT_EQ(api::DescribeWrongReply(method->reply, json::Member(*body, "data")), "") << path << ": " << reply.body;
}

const bool is_set = (SetReplyCheck(Check), true);

}  // namespace
}  // namespace vexa::test
