// Requests, replies, and what the library reads from a whole reply.
#include "tests/unit/webapi/host_fixture.h"
#include "webapi/platform/dr.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaDRCore::Request;
using VexaDRCore::Response;

TEST(Request, New_IsVersionOneWithoutParametersAndTimeout) {
  const Request request;
  EXPECT_EQ(request.version(), 1);
  EXPECT_EQ(request.timeout_s(), 0);
  EXPECT_EQ(Text(request.parameters()), "{}");
  EXPECT_EQ(Text(request.toJson()), R"({"api":"","method":"","version":1})");
}

TEST(Request, Parameters_AreMergedAndLaterOnesWin) {
  Request request;
  request.setAPI("A");
  request.setMethod("m");
  request.setVersion(3);
  request.setTimeout(7);
  request.addParam(Parsed(R"({"x":1,"y":[2]})"));
  request.addParam("x", "one");
  request.addParam(Parsed(R"({"z":null})"));
  EXPECT_EQ(Text(request.toJson()), R"({"api":"A","method":"m","version":3,"x":"one","y":[2],"z":null})");
  EXPECT_EQ(request.timeout_s(), 7);
}

TEST(Request, Request_ParametersNotObject_AddNothing) {
  Request request;
  for (const char* value : {"null", "true", "5", "2.5", R"("x")", "[]", "[1,2]"}) request.addParam(Parsed(value));
  EXPECT_EQ(Text(request.parameters()), "{}");
}

TEST(Request, Request_ParameterNamedLikeField_DoesNotReplaceIt) {
  Request request;
  request.setAPI("A");
  request.setMethod("m");
  request.addParam(Parsed(R"({"api":"B","method":"n","version":9})"));
  EXPECT_EQ(Text(request.toJson()), R"({"api":"A","method":"m","version":1})");
  EXPECT_EQ(request.api(), "A");
}

TEST(Request, Clear_DropsTheTimeoutToo) {
  Request request;
  request.setAPI("A");
  request.setMethod("m");
  request.setVersion(2);
  request.setTimeout(7);
  request.addParam("x", 1);
  request.clear();
  EXPECT_EQ(request.timeout_s(), 0);
  EXPECT_EQ(Text(request.toJson()), R"({"api":"","method":"","version":1})");
}

TEST(Response, Response_New_IsNotSuccess) {
  const Response response;
  EXPECT_FALSE(response.isSuccess());
  EXPECT_FALSE(response.hasData());
  EXPECT_FALSE(response.hasDataField("x"));
  EXPECT_FALSE(response.hasField("x"));
  EXPECT_EQ(response.getErrCode(), 100);
  EXPECT_TRUE(response.toJson().isNull());
}

TEST(Response, Success_NotJsonTrue_IsFalse) {
  EXPECT_TRUE(Response(Parsed(R"({"success":true})")).isSuccess());
  for (const char* reply : {"null", "true", "[]", "[true]", "{}", R"({"success":1})", R"({"success":"true"})",
                            R"({"success":null})", R"({"success":false})", R"({"success":{"success":true}})"}) {
    const Response response(Parsed(reply));
    EXPECT_FALSE(response.isSuccess()) << reply;
    EXPECT_EQ(response.getErrCode(), 100) << reply;
    EXPECT_EQ(Text(response.toJson()), Text(Parsed(reply)));
  }
}

TEST(Response, Response_NullAndAbsentFields_AreDistinguished) {
  EXPECT_FALSE(Response(Parsed(R"({"success":true,"data":null})")).hasData());
  const Response response(Parsed(R"({"success":true,"data":{"a":null,"b":2}})"));
  EXPECT_TRUE(response.hasData());
  EXPECT_TRUE(response.hasDataField("a"));
  EXPECT_FALSE(response.hasDataField("c"));
  EXPECT_EQ(response.getDataField("b"), 2);
  EXPECT_TRUE(response.getDataField("c").isNull());
  for (const char* data : {"true", "5", R"("b")", "[]", R"(["b"])"}) {
    const Response other(Success(data));
    EXPECT_TRUE(other.hasData()) << data;
    EXPECT_FALSE(other.hasDataField("b")) << data;
    EXPECT_TRUE(other.getDataField("b").isNull()) << data;
  }
}

TEST(Response, ErrorCode_NotNumber_IsNotRead) {
  EXPECT_EQ(Response(Success("1")).getErrCode(), 0);
  const std::pair<const char*, int> rows[] = {
      {"507", 507},  {"507.0", 507}, {"-3", -3},  {"0", 100},  {"507.5", 100},       {R"("507")", 100},
      {"true", 100}, {"null", 100},  {"[]", 100}, {"{}", 100}, {"99999999999", 100},
  };
  for (const auto& [code, expected] : rows) {
    const std::string reply = std::string(R"({"success":false,"error":{"code":)") + code + "}}";
    EXPECT_EQ(Response(Parsed(reply)).getErrCode(), expected) << code;
  }
  EXPECT_EQ(Response(Parsed(R"({"success":false,"error":507})")).getErrCode(), 100);
}

TEST(Response, ErrorMessage_IsTheDetailsOrTheMessage) {
  const auto message = [](const char* error) {
    return Text(Response(Parsed(std::string(R"({"success":false,"error":)") + error + "}")).getErrMsg());
  };
  EXPECT_EQ(message(R"({"message":"m"})"), R"("m")");
  EXPECT_EQ(message(R"({"message":"m","details":{"a":1}})"), R"({"a":1})");
  EXPECT_EQ(message(R"({"message":"m","details":null})"), R"("m")");
  EXPECT_EQ(message("{}"), "null");
  EXPECT_EQ(message("[]"), "null");
}

TEST(Response, Clear_LeavesNoReply) {
  Response response(Success("1"));
  response.clear();
  EXPECT_FALSE(response.isSuccess());
  EXPECT_TRUE(response.toJson().isNull());
}

TEST(HasFail, HasFail_TopLevelField_IsReadAsBoolean) {
  const std::pair<const char*, bool> rows[] = {
      {R"({"has_fail":true})", true},
      {R"({"has_fail":false})", false},
      {R"({"has_fail":1})", true},
      {R"({"has_fail":null})", false},
      {R"({"has_fail":"x"})", false},
      {R"({"has_fail":[true]})", false},
      {R"({"has_fail":{"a":1}})", false},
      {"{}", false},
      {"[]", false},
      {R"({"data":{"has_fail":true}})", false},
  };
  for (const auto& [reply, expected] : rows) {
    EXPECT_EQ(VexaVirtualization::HasFail(Response(Parsed(reply))), expected) << reply;
  }
}

TEST(WritableValue, AnyValue_Converted_LeavesInputUnchanged) {
  namespace json = VexaVirtualization::json;
  for (const char* text : {"null", "true", "5", "2.5", R"("x")", "[1]", R"({"a":1})"}) {
    Json::Value object = Parsed(text);
    Json::Value array = Parsed(text);
    EXPECT_EQ(&json::EnsureObject(object), &object);
    EXPECT_EQ(&json::EnsureArray(array), &array);
    EXPECT_EQ(Text(object), Parsed(text).isObject() ? text : "{}");
    EXPECT_EQ(Text(array), Parsed(text).isArray() ? text : "[]");
  }
}

}  // namespace
}  // namespace vexa::test
