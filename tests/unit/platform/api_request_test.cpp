#include <gtest/gtest.h>

#include "tests/support/test_host.h"
#include "webapi/platform/webapi.h"

namespace {

using vexa::test::Parsed;

// How each getter reads a value of each type: 's' set, 'i' invalid.
struct TypeRow {
  const char* value;
  char as_string, as_int, as_bool, as_array;
};

const TypeRow kTypes[] = {
    {"null", 'i', 'i', 'i', 'i'},
    {"\"\"", 's', 'i', 'i', 'i'},
    {"\"12\"", 's', 'i', 'i', 'i'},
    {"12", 'i', 's', 'i', 'i'},
    {"-2147483648", 'i', 's', 'i', 'i'},
    {"2147483647", 'i', 's', 'i', 'i'},
    {"2147483648", 'i', 'i', 'i', 'i'},
    {"-2147483649", 'i', 'i', 'i', 'i'},
    {"12.0", 'i', 'i', 'i', 'i'},
    {"12.5", 'i', 'i', 'i', 'i'},
    {"18446744073709551615", 'i', 'i', 'i', 'i'},
    {"true", 'i', 'i', 's', 'i'},
    {"false", 'i', 'i', 's', 'i'},
    {"[]", 'i', 'i', 'i', 's'},
    {"[1]", 'i', 'i', 'i', 's'},
    {"{}", 'i', 'i', 'i', 'i'},
};

class StrictGetters : public testing::TestWithParam<TypeRow> {};

template <class T>
char StateOf(const VEXA::APIParameter<T>& parameter) {
  EXPECT_FALSE(parameter.IsSet() && parameter.IsInvalid());
  if (parameter.IsSet()) return 's';
  EXPECT_EQ(parameter.Get(), T()) << "an unset parameter holds the default";
  return parameter.IsInvalid() ? 'i' : 'a';
}

TEST_P(StrictGetters, Getter_AnyValue_IsSetOnlyIfTypeMatches) {
  const TypeRow& row = GetParam();
  const auto request = vexa::test::AdministratorRequest(Parsed(std::string("{\"p\":") + row.value + "}"));
  for (const int necessity : {0, 1}) {
    EXPECT_EQ(StateOf(request.GetAndCheckString("p", necessity)), row.as_string) << row.value;
    EXPECT_EQ(StateOf(request.GetAndCheckInt("p", necessity)), row.as_int) << row.value;
    EXPECT_EQ(StateOf(request.GetAndCheckBool("p", necessity)), row.as_bool) << row.value;
    EXPECT_EQ(StateOf(request.GetAndCheckArray("p", necessity)), row.as_array) << row.value;
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, StrictGetters, testing::ValuesIn(kTypes));

TEST(APIRequest, AbsentParameter_IsInvalidOnlyWhenRequired) {
  const auto request = vexa::test::AdministratorRequest(Parsed("{}"));
  EXPECT_EQ(StateOf(request.GetAndCheckString("p", 0)), 'i');
  EXPECT_EQ(StateOf(request.GetAndCheckString("p", 1)), 'a');
  EXPECT_EQ(StateOf(request.GetAndCheckInt("p", 0)), 'i');
  EXPECT_EQ(StateOf(request.GetAndCheckInt("p", 1)), 'a');
  EXPECT_EQ(StateOf(request.GetAndCheckBool("p", 0)), 'i');
  EXPECT_EQ(StateOf(request.GetAndCheckBool("p", 1)), 'a');
  EXPECT_EQ(StateOf(request.GetAndCheckArray("p", 0)), 'i');
  EXPECT_EQ(StateOf(request.GetAndCheckArray("p", 1)), 'a');
}

TEST(APIRequest, ApiRequest_Values_AreNotConverted) {
  const auto request = vexa::test::AdministratorRequest(Parsed(R"({"s":"x","i":-5,"b":true,"a":[1,"2"]})"));
  EXPECT_EQ(request.GetAndCheckString("s", 0).Get(), "x");
  EXPECT_EQ(request.GetAndCheckInt("i", 0).Get(), -5);
  EXPECT_TRUE(request.GetAndCheckBool("b", 0).Get());
  EXPECT_EQ(request.GetAndCheckArray("a", 0).Get(), Parsed(R"([1,"2"])"));
}

TEST(APIRequest, Validator_ValueOfRightType_MayRefuseIt) {
  const auto request = vexa::test::AdministratorRequest(Parsed(R"({"s":"x","i":5})"));
  const auto is_y = [](const std::string& text) { return text == "y"; };
  const auto never = [](const std::string&) {
    ADD_FAILURE() << "called for another type";
    return true;
  };
  EXPECT_TRUE(request.GetAndCheckString("s", 1, is_y).IsInvalid());
  EXPECT_TRUE(request.GetAndCheckString("i", 1, never).IsInvalid());
  EXPECT_TRUE(request.GetAndCheckInt("i", 0, [](const int& number) { return number == 5; }).IsSet());
}

TEST(APIRequest, GetParam_EachForm_ReturnsValueFallbackOrObject) {
  const Json::Value parameters = Parsed(R"({"a":null,"b":[1]})");
  const auto request = vexa::test::AdministratorRequest(parameters);
  EXPECT_EQ(request.GetParam("", Json::Value()), parameters);
  EXPECT_EQ(request.GetParam("b", Json::Value()), Parsed("[1]"));
  EXPECT_EQ(request.GetParam("c", "fallback"), Json::Value("fallback"));
  EXPECT_TRUE(request.GetParam("a", "fallback").isNull()) << "a present null is not absent";
  EXPECT_TRUE(request.HasParam("a"));
  EXPECT_FALSE(request.HasParam("c"));
}

TEST(APIRequest, ApiRequest_ParametersNotObject_AreEmpty) {
  for (const char* text : {"[1]", "5", "\"guest_id\"", "null"}) {
    const auto request = vexa::test::AdministratorRequest(Parsed(text));
    EXPECT_EQ(request.GetParam("", Json::Value()), Json::Value(Json::objectValue)) << text;
    EXPECT_TRUE(request.GetAndCheckString("guest_id", 0).IsInvalid());
  }
}

TEST(APIRequest, ApiRequest_Caller_IsReturnedAsGiven) {
  EXPECT_TRUE(vexa::test::AdministratorRequest(Json::Value()).IsAdmin());
  const auto request = vexa::test::UserRequest(Json::Value(), "alice");
  EXPECT_FALSE(request.IsAdmin());
  EXPECT_EQ(request.GetLoginUserName(), "alice");
}

TEST(APIResponse, LastSetter_Wins) {
  VEXA::APIResponse response;
  EXPECT_FALSE(response.IsSet());
  EXPECT_EQ(response.ErrorCode(), 0);
  response.SetError(403, "details");
  EXPECT_TRUE(response.IsSet());
  EXPECT_FALSE(response.IsSuccess());
  EXPECT_EQ(response.Data(), "details");
  response.SetSuccess(5);
  EXPECT_TRUE(response.IsSuccess());
  EXPECT_EQ(response.ErrorCode(), 0);
  EXPECT_EQ(response.Data(), 5);
  response.SetError(413, Json::Value());
  EXPECT_FALSE(response.IsSuccess());
  EXPECT_EQ(response.ErrorCode(), 413);
  EXPECT_TRUE(response.Data().isNull());
}

}  // namespace
