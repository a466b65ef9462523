#include "host/api/api_table.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

#include "host/api/openapi.h"
#include "host/api/user/account_api.h"
#include "host/api/user/grant_api.h"
#include "host/api/user/guest_api.h"
#include "host/api/user/image_api.h"
#include "host/api/user/import_api.h"
#include "host/api/user/log_api.h"
#include "host/api/user/repository_api.h"
#include "host/base/error_table.h"
#include "host/base/refusal.h"
#include "tests/support/test_host.h"

namespace {

using namespace vexa::webapi;

// A row that leaves out access or lane does not compile: the two members cannot be made from nothing.
static_assert(!std::is_default_constructible_v<Declared<Access>>);
static_assert(!std::is_default_constructible_v<Declared<LaneKind>>);
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

TEST(ApiTable, SameRowTwice_IsAProgrammingError) {
  EXPECT_THROW(ApiTable({Row("A", "get", 1), Row("A", "get", 1)}), std::logic_error);
}

TEST(ApiTable, LongBodies_AreForAdministratorsOnly) {
  ApiRow row = Row("A", "get", 1);
  EXPECT_EQ(row.body_bytes, 1024u * 1024u);
  row.body_bytes = kBodyBytes + 1;
  EXPECT_THROW(ApiTable({row}), std::logic_error);
  row.access = Access::kAdministrator;
  EXPECT_NO_THROW(ApiTable({row}));
  row.body_bytes = kMostBodyBytes + 1;
  EXPECT_THROW(ApiTable({row}), std::logic_error);
}

// The host does what it should: the guest is off.
TEST(ErrorTable, StoppingAGuestThatIsOff_IsNotAnErrorOfTheServer) {
  for (const int code : {903, 904, 905, 911}) EXPECT_EQ(FindError(code)->http_status, 409) << code;
}

TEST(ErrorTable, EveryRow_IsFoundAndHasAStatusAndASentence) {
  for (const ErrorRow& row : ErrorTable()) {
    EXPECT_EQ(FindError(row.code), &row);
    EXPECT_GE(row.http_status, 400) << row.code;
    EXPECT_LT(row.http_status, 600) << row.code;
    EXPECT_TRUE(row.sentence.ends_with('.')) << row.code;
  }
  EXPECT_EQ(FindError(0), nullptr);
  EXPECT_EQ(FindError(-1), nullptr);
  EXPECT_EQ(FindError(99999), nullptr);
}

// A line about a host's reply had the sentence that users get for the same number.
TEST(ErrorTable, CodesBetweenHosts_HaveTheirOwnSentences) {
  for (const ErrorRow& row : HostErrorTable()) {
    EXPECT_EQ(FindError(row.code, Audience::kHosts), &row);
    EXPECT_NE(FindError(row.code), &row);
    EXPECT_GE(row.http_status, 400) << row.code;
    EXPECT_TRUE(row.sentence.ends_with('.')) << row.code;
  }
  for (const int code : {901, 902, 903, 904, 910, 912, 915, 932, 944}) {
    ASSERT_NE(FindError(code, Audience::kHosts), nullptr) << code;
    EXPECT_NE(FindError(code, Audience::kHosts)->sentence, FindError(code)->sentence) << code;
  }
  EXPECT_EQ(FindError(507, Audience::kHosts), FindError(507)) << "the same between hosts as for users";
  EXPECT_EQ(FindError(99999, Audience::kHosts), nullptr);
  EXPECT_EQ(AudienceOf(Access::kHost), Audience::kHosts);
  for (const Access access : {Access::kAnyone, Access::kUser, Access::kAdministrator}) {
    EXPECT_EQ(AudienceOf(access), Audience::kUsers);
  }
}

TEST(ErrorTable, HandlerCodes_HaveTheirStatus) {
  const std::pair<int, int> rows[] = {{401, 400}, {403, 404}, {406, 409}, {407, 409}, {409, 403}, {413, 500},
                                      {415, 409}, {507, 404}, {901, 500}, {902, 500}, {912, 409}, {959, 503}};
  for (const auto& [code, status] : rows) {
    ASSERT_NE(FindError(code), nullptr) << code;
    EXPECT_EQ(FindError(code)->http_status, status) << code;
  }
}

TEST(ErrorTable, CodesOfTheRows_AreAllThere) {
  std::vector<ApiRow> rows = vexa::daemon::GuestRows();
  for (const auto& part :
       {vexa::services::LogRows(), vexa::services::ImageRows(nullptr, {}), vexa::services::RepositoryRows(nullptr),
        vexa::services::ImportRows(nullptr), vexa::services::AccountRows({}), vexa::services::GrantRows({})}) {
    rows.insert(rows.end(), part.begin(), part.end());
  }
  for (const ApiRow& row : rows) {
    for (const int code : row.errors)
      EXPECT_NE(FindError(code), nullptr) << row.api << " " << row.method << " " << code;
  }
}

TEST(ErrorTable, RefusalsOfHosts_AreAllThere) {
  using namespace vexa::guests;  // NOLINT: all of its codes
  for (const int code : {kUnreadable,  kFailed,          kRunsAlready, kNotRunning,      kElsewhere,    kBusy,
                         kNoNetwork,   kNoVcpu,          kNoMemory,    kRemoteNotVirtio, kNoCpuThreads, kRemoteEfi,
                         kUnavailable, kIncompatibleCpu, kBadEdit,     kTooManyDisks,    kNameTaken,    kBadNic,
                         kBadDisk,     kNoImage,         kBadUsb,      kNoUsbPort,       kSuspended,    kNotPinned}) {
    EXPECT_NE(FindError(code), nullptr) << code;
    const ErrorRow* const row = FindError(code, Audience::kHosts);
    ASSERT_NE(row, nullptr) << code;
    EXPECT_NE(row, FindError(code)) << code << " has no sentence for hosts";
  }
}

TEST(GuestRows, PowerAndDeletion_WaitOnTheLongLaneAndAreForUsers) {
  const ApiTable table(vexa::daemon::GuestRows());
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

TEST(GuestRows, Editing_WaitsOnTheLongLaneAndTakes26Parameters) {
  const ApiTable table(vexa::daemon::GuestRows());
  const ApiRow* row = table.Find("VEXA.Virtualization.Guest", "set", 1);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->access.value, Access::kUser);
  EXPECT_EQ(row->lane.value, LaneKind::kLong);
  std::string parameters;
  for (const auto& parameter : row->parameters) {
    EXPECT_EQ(parameter.necessity == Necessity::kRequired, parameter.name == "guest_id") << parameter.name;
    EXPECT_FALSE(parameter.description.empty());
    parameters += std::string(parameter.name) + ":" + std::to_string(static_cast<int>(parameter.type)) + " ";
  }
  EXPECT_EQ(parameters,
            "guest_id:0 name:0 vcpu_num:1 vram_size:1 video_card:0 repo_id:0 desc:0 cpu_passthru:2 autorun:1 "
            "boot_from:0 use_ovmf:2 vnics_add:3 vnics_del:3 vnics_edit:3 vdisks_add:3 vdisks_del:3 vdisks_edit:3 "
            "vdisks_order:3 guest_privilege:3 iso_images:3 usb_version:1 usbs:3 hyperv_enlighten:2 kb_layout:0 "
            "cpu_pin_num:1 cpu_weight:1 ");
  EXPECT_EQ(row->errors, (std::vector<int>{401, 403, 406, 407, 409, 411, 413, 909, 910,  919,
                                           920, 926, 930, 934, 935, 937, 943, 946, 1001, 1600}));
}

TEST(ErrorTable, WhatTheServerRefuses_HasARowOfTheSameStatus) {
  for (const int status : {400, 408, 413, 414, 417, 431, 500, 501, 503, 505}) {
    EXPECT_EQ(ErrorOfHttpStatus(status).http_status, status);
  }
  EXPECT_EQ(ErrorOfHttpStatus(418).code, kErrorInternal);
}

TEST(OpenApi, EveryRow_IsDescribedWithAccessParametersAndErrors) {
  const ApiTable table({Row("VEXA.A", "get", 1)});
  const Json::Value document = vexa::test::Parsed(vexa::daemon::MakeOpenApi(table));
  EXPECT_EQ(document["openapi"], "3.0.3");
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
  }
}

}  // namespace
