#include "host/api/api_table.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

#include "host/api/openapi.h"
#include "host/api/user/guest_api.h"
#include "host/base/error_table.h"
#include "host/base/guest_settings.h"
#include "host/base/refusal.h"
#include "tests/support/test_host.h"
#include "webapi/error_codes.h"

namespace {

using namespace vexa::api;

// A row that leaves out access or lane does not compile: the two members cannot be made from nothing.
static_assert(!std::is_default_constructible_v<Required<Access>>);
static_assert(!std::is_default_constructible_v<Required<LaneKind>>);
static_assert(!std::is_default_constructible_v<ApiRow>);

ApiRow Row(std::string_view api, std::string_view method, int version) {
  return {.api = api,
          .method = method,
          .version = version,
          .access = Access::kUser,
          .lane = LaneKind::kQuick,
          .handler = {},
          .summary = "A method.",
          .parameters = {{"guest_id", ParameterType::kString, Necessity::kRequired, "An id."},
                         {"list", ParameterType::kArray, Necessity::kOptional, "A list."}},
          .errors = {401, 409}};
}

TEST(ApiTable, Find_MatchesApiMethodAndVersionExactly) {
  const ApiTable table({Row("B", "get", 2), Row("A", "set", 1), Row("B", "get", 1), Row("A", "get", 1)});
  ASSERT_NE(table.Find("B", "get", 2), nullptr);
  EXPECT_EQ(table.Find("B", "get", 2)->version, 2);
  EXPECT_EQ(table.Find("B", "get", 1)->version, 1);
  EXPECT_EQ(table.Find("B", "get", 3), nullptr);
  EXPECT_EQ(table.Find("B", "set", 1), nullptr);
  EXPECT_EQ(table.Find("b", "get", 1), nullptr);
  EXPECT_EQ(table.Find("", "", 1), nullptr);
  EXPECT_EQ(table.rows().size(), 4u);
}

TEST(ApiTable, Table_DuplicateRow_IsProgrammingError) {
  EXPECT_THROW(ApiTable({Row("A", "get", 1), Row("A", "get", 1)}), std::logic_error);
}

TEST(ApiTable, BodiesWithManyValues_Rows_AreForAdministratorsAndHosts) {
  ApiRow row = Row("A", "get", 1);
  EXPECT_EQ(row.body_values, kDefaultBodyValues);
  row.body_values = kDefaultBodyValues + 1;
  for (const Access access : {Access::kUser, Access::kAnyone}) {
    row.access = access;
    EXPECT_THROW(ApiTable({row}), std::logic_error);
  }
  for (const Access access : {Access::kAdministrator, Access::kHost}) {
    row.access = access;
    row.body_values = kMaxBodyValues;
    row.errors.clear();
    EXPECT_NO_THROW(ApiTable({row}));
    row.body_values = kMaxBodyValues + 1;
    EXPECT_THROW(ApiTable({row}), std::logic_error);
  }
}

TEST(ApiTable, LongBodies_Rows_AreForAdministratorsOnly) {
  ApiRow row = Row("A", "get", 1);
  EXPECT_EQ(row.body_bytes, 1024u * 1024u);
  row.body_bytes = kDefaultBodyBytes + 1;
  EXPECT_THROW(ApiTable({row}), std::logic_error);
  row.access = Access::kAdministrator;
  EXPECT_NO_THROW(ApiTable({row}));
  row.body_bytes = kMaxBodyBytes + 1;
  EXPECT_THROW(ApiTable({row}), std::logic_error);
}

// The daemon's own table is made in daemon_api_test and every other test that starts a daemon.
TEST(ApiTable, Table_CodeWithoutSentence_IsProgrammingError) {
  ApiRow row = Row("A", "get", 1);
  row.errors = {401, 99999};
  EXPECT_THROW(ApiTable({row}), std::logic_error);
  row.errors = {401, 1001};
  EXPECT_NO_THROW(ApiTable({row}));
  row.access = Access::kHost;
  EXPECT_THROW(ApiTable({row}), std::logic_error) << "1001 means nothing between hosts";
  row.errors = {401, 945};
  EXPECT_NO_THROW(ApiTable({row}));
}

// The host does what it should: the guest is off.
TEST(ErrorTable, Code911_GuestIsOff_IsNotServerError) {
  for (const int code : {903, 904, 905, 911}) EXPECT_EQ(vexa::FindError(code)->http_status, 409) << code;
}

TEST(ErrorTable, EachRow_LookedUp_HasStatusAndSentence) {
  for (const vexa::ErrorRow& row : vexa::ErrorTable()) {
    EXPECT_EQ(vexa::FindError(row.code), &row);
    EXPECT_GE(row.http_status, 400) << row.code;
    EXPECT_LT(row.http_status, 600) << row.code;
    EXPECT_TRUE(row.sentence.ends_with('.')) << row.code;
  }
  EXPECT_EQ(vexa::FindError(0), nullptr);
  EXPECT_EQ(vexa::FindError(-1), nullptr);
  EXPECT_EQ(vexa::FindError(99999), nullptr);
}

// A line about a host's reply had the sentence that users get for the same number.
TEST(ErrorTable, Sentences_CodesBetweenHosts_AreTheirOwn) {
  for (const vexa::ErrorRow& row : vexa::HostErrorTable()) {
    EXPECT_EQ(vexa::FindError(row.code, vexa::Audience::kHosts), &row);
    EXPECT_NE(vexa::FindError(row.code), &row);
    EXPECT_GE(row.http_status, 400) << row.code;
    EXPECT_TRUE(row.sentence.ends_with('.')) << row.code;
  }
  for (const int code : {901, 902, 903, 904, 910, 912, 915, 932, 944}) {
    ASSERT_NE(vexa::FindError(code, vexa::Audience::kHosts), nullptr) << code;
    EXPECT_NE(vexa::FindError(code, vexa::Audience::kHosts)->sentence, vexa::FindError(code)->sentence) << code;
  }
  EXPECT_EQ(vexa::FindError(507, vexa::Audience::kHosts), vexa::FindError(507))
      << "the same between hosts as for users";
  EXPECT_EQ(vexa::FindError(99999, vexa::Audience::kHosts), nullptr);
  EXPECT_EQ(AudienceOf(Access::kHost), vexa::Audience::kHosts);
  for (const Access access : {Access::kAnyone, Access::kUser, Access::kAdministrator}) {
    EXPECT_EQ(AudienceOf(access), vexa::Audience::kUsers);
  }
}

TEST(ErrorTable, HandlerCodes_HaveTheirStatus) {
  const std::pair<int, int> rows[] = {{401, 400}, {403, 404}, {406, 409}, {407, 409}, {409, 403},
                                      {413, 500}, {415, 409}, {507, 404}, {901, 409}, {902, 409},
                                      {905, 409}, {909, 409}, {912, 409}, {959, 503}};
  for (const auto& [code, status] : rows) {
    ASSERT_NE(vexa::FindError(code), nullptr) << code;
    EXPECT_EQ(vexa::FindError(code)->http_status, status) << code;
  }
}

TEST(ErrorTable, Rows_RefusalsOfHosts_AreAllThere) {
  for (const int code : {vexa::host_error::kNotFoundOrUnreadable,
                         vexa::host_error::kFailed,
                         vexa::host_error::kAlreadyRunning,
                         vexa::host_error::kNotRunning,
                         vexa::host_error::kOnOtherHost,
                         vexa::host_error::kBusy,
                         vexa::host_error::kNoNetwork,
                         vexa::host_error::kTooManyVcpus,
                         vexa::host_error::kNoMemory,
                         vexa::host_error::kRemoteNotVirtio,
                         vexa::host_error::kNoCpuThreads,
                         vexa::host_error::kRemoteEfi,
                         vexa::host_error::kUnavailable,
                         vexa::host_error::kIncompatibleCpu,
                         vexa::kBadEdit,
                         vexa::host_error::kTooManyDisks,
                         vexa::host_error::kNameTaken,
                         vexa::host_error::kBadNic,
                         vexa::host_error::kBadDisk,
                         vexa::host_error::kNoImage,
                         vexa::host_error::kBadUsb,
                         vexa::host_error::kNoUsbPort,
                         vexa::host_error::kSuspended,
                         vexa::kNotPinned}) {
    EXPECT_NE(vexa::FindError(code), nullptr) << code;
    const vexa::ErrorRow* const row = vexa::FindError(code, vexa::Audience::kHosts);
    ASSERT_NE(row, nullptr) << code;
    EXPECT_NE(row, vexa::FindError(code)) << code << " has no sentence for hosts";
  }
}

TEST(GuestRows, PowerAndDelete_Rows_UseLongLaneAndAreForUsers) {
  const ApiTable table(vexa::api::GuestRows());
  const std::pair<const char*, const char*> rows[] = {{"VEXA.Virtualization.Guest", "delete"},
                                                      {"VEXA.Virtualization.Guest.Action", "pwr_ctl"}};
  for (const auto& [api, method] : rows) {
    const ApiRow* row = table.Find(api, method, 1);
    ASSERT_NE(row, nullptr) << api;
    EXPECT_EQ(row->access.value, Access::kUser);
    EXPECT_EQ(row->lane.value, LaneKind::kLong);
    EXPECT_EQ(row->parameters.at(0).name, "guest_id");
  }
  EXPECT_EQ(table.Find("VEXA.Virtualization.Guest", "delete", 1)->errors, (std::vector<int>{401, 403, 407, 409, 901}));
  EXPECT_EQ(table.Find("VEXA.Virtualization.Guest.Action", "pwr_ctl", 1)->errors,
            (std::vector<int>{401, 403, 407, 409, 415, 620, 902, 903, 904, 905, 912, 914,
                              915, 927, 928, 932, 933, 939, 944, 947, 954, 959, 965}));
}

TEST(GuestRows, Set_Row_UsesLongLaneAndAcceptsEachSetting) {
  const ApiTable table(vexa::api::GuestRows());
  const ApiRow* row = table.Find("VEXA.Virtualization.Guest", "set", 1);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->access.value, Access::kUser);
  EXPECT_EQ(row->lane.value, LaneKind::kLong);
  std::vector<std::string> parameters;
  for (const auto& parameter : row->parameters) {
    EXPECT_EQ(parameter.necessity == Necessity::kRequired, parameter.name == "guest_id") << parameter.name;
    EXPECT_FALSE(parameter.description.empty());
    parameters.emplace_back(parameter.name);
  }
  std::vector<std::string> expected{"guest_id"};
  for (const vexa::GuestSetting& setting : vexa::kGuestSettings) expected.emplace_back(setting.name);
  expected.emplace_back("apply");
  EXPECT_EQ(parameters, expected);
  EXPECT_EQ(row->errors, (std::vector<int>{401, 403, 406, 407, 409, 411, 413, 909, 910,  919,
                                           920, 926, 930, 934, 935, 937, 943, 946, 1001, 1600}));
}

TEST(ErrorTable, Rows_RefusalsOfServer_HaveSameStatus) {
  for (const int status : {400, 408, 413, 414, 417, 431, 500, 501, 503, 505}) {
    EXPECT_EQ(vexa::ErrorForHttpStatus(status).http_status, status);
  }
  EXPECT_EQ(vexa::ErrorForHttpStatus(418).code, vexa::user_error::kInternal);
}

TEST(OpenApi, Lists_WithALimit_HaveIt) {
  ApiRow row = Row("A", "get", 1);
  row.parameters[1].max_items = 3;
  const Json::Value document = vexa::test::Parsed(MakeOpenApi(ApiTable({row})));
  const Json::Value& schema =
      document["paths"]["/webapi/A/get"]["post"]["requestBody"]["content"]["application/json"]["schema"];
  EXPECT_EQ(schema["properties"]["list"]["maxItems"], 3);
  EXPECT_FALSE(schema["properties"]["guest_id"].isMember("maxItems"));
}

TEST(OpenApi, Description_EachRow_HasAccessParametersAndErrors) {
  const ApiTable table({Row("VEXA.A", "get", 1)});
  const Json::Value document = vexa::test::Parsed(vexa::api::MakeOpenApi(table));
  EXPECT_EQ(document["openapi"], "3.1.0");
  const Json::Value& operation = document["paths"]["/webapi/VEXA.A/get"]["post"];
  EXPECT_EQ(operation["x-vexa-access"], "user");
  EXPECT_EQ(operation["x-vexa-lane"], "quick");
  EXPECT_EQ(operation["summary"], "A method.");
  const Json::Value& schema = operation["requestBody"]["content"]["application/json"]["schema"];
  EXPECT_EQ(schema["properties"]["guest_id"]["type"], "string");
  EXPECT_EQ(schema["properties"]["list"]["type"], "array");
  EXPECT_EQ(schema["required"], vexa::test::Parsed(R"(["guest_id"])"));
  EXPECT_NE(operation["responses"]["403"]["description"].asString().find("409: You may not act on this guest."),
            std::string::npos);
  for (const char* status : {"200", "400", "401", "403", "405", "415", "500", "503"}) {
    EXPECT_TRUE(operation["responses"].isMember(status)) << status;
    EXPECT_EQ(operation["responses"][status]["headers"].isMember("Retry-After"), std::string(status) == "503")
        << status;
  }
  EXPECT_EQ(operation["responses"]["503"]["headers"]["Retry-After"]["schema"]["type"], "integer");
}

TEST(OpenApi, Console_HasParametersAnswersAndWaysToIdentify) {
  const Json::Value document = vexa::test::Parsed(vexa::api::MakeOpenApi(ApiTable({})));
  const Json::Value& operation = document["paths"]["/console/{guest_id}"]["get"];
  std::map<std::string, std::string> places;
  for (const Json::Value& parameter : operation["parameters"]) {
    places[parameter["name"].asString()] = parameter["in"].asString();
    EXPECT_EQ(parameter["required"].asBool(), parameter["name"] != "ticket") << parameter["name"].asString();
  }
  const std::map<std::string, std::string> expected = {
      {"guest_id", "path"}, {"type", "query"}, {"ticket", "query"}, {"Upgrade", "header"}};
  EXPECT_EQ(places, expected);
  for (const char* status : {"101", "400", "401", "403", "404", "405", "409", "500", "502", "503"}) {
    EXPECT_TRUE(operation["responses"].isMember(status)) << status;
  }
  EXPECT_NE(operation["responses"]["409"]["description"].asString().find("911: "), std::string::npos);
  EXPECT_EQ(operation["security"].size(), 3U);
  EXPECT_TRUE(operation["security"][2].empty()) << "a ticket";
}

TEST(OpenApi, Upload_HasParametersBodyAndAnswers) {
  const Json::Value document = vexa::test::Parsed(vexa::api::MakeOpenApi(ApiTable({})));
  const Json::Value& operation = document["paths"]["/upload/{upload_id}"]["put"];
  std::map<std::string, std::string> places;
  for (const Json::Value& parameter : operation["parameters"]) {
    places[parameter["name"].asString()] = parameter["in"].asString();
    EXPECT_EQ(parameter["required"].asBool(), parameter["name"] != "X-Vexa-CSRF") << parameter["name"].asString();
  }
  const std::map<std::string, std::string> expected = {
      {"upload_id", "path"}, {"Content-Range", "header"}, {"X-Vexa-CSRF", "header"}};
  EXPECT_EQ(places, expected);
  EXPECT_EQ(operation["x-vexa-access"], "admin");
  EXPECT_EQ(operation["summary"].asString().find("Send a piece of at most 8.0 MiB of an image"), 0U);
  EXPECT_EQ(operation["requestBody"]["content"]["application/octet-stream"]["schema"]["format"], "binary");
  const Json::Value& responses = operation["responses"];
  const std::map<std::string, std::vector<std::string>> codes = {{"200", {"received"}},
                                                                 {"400", {"401: "}},
                                                                 {"401", {"103: "}},
                                                                 {"403", {"104: ", "105: "}},
                                                                 {"404", {"109: ", "403: "}},
                                                                 {"405", {"110: "}},
                                                                 {"409", {"993: ", "received"}},
                                                                 {"413", {"112: "}},
                                                                 {"503", {"108: ", "949: "}},
                                                                 {"507", {"995: "}}};
  for (const auto& [status, texts] : codes) {
    for (const std::string& text : texts) {
      EXPECT_NE(responses[status]["description"].asString().find(text), std::string::npos) << status << " " << text;
    }
  }
  EXPECT_FALSE(operation.isMember("security")) << "that of the document: a token or a cookie";
}

}  // namespace
