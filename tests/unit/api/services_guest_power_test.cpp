// The rows by which other hosts start, stop and delete this host's guests.
#include <gtest/gtest.h>

#include <string>

#include "host/api/peer/rows.h"
#include "tests/support/matchers.h"
#include "tests/support/scripted_guests.h"
#include "tests/support/test_host.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using test::Answer;
using ::testing::ElementsAre;

constexpr char kGuest[] = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
const std::string kParameters = std::string(R"({"guest_id":")") + kGuest + "\"}";

class GuestPowerRowsTest : public ::testing::Test {
 protected:
  GuestPowerRowsTest() : table_(Rows(&guests_)), without_(Rows(nullptr)) {}

  static std::vector<ApiRow> Rows(guests::GuestControl* guests) {
    ServiceParts parts;
    parts.guests = guests;
    return GuestPowerRows(parts);
  }
  Answer Call(const char* method, const std::string& parameters = kParameters) {
    return CallTable(table_, "VEXA.CCC.Guest", method, parameters);
  }

  test::TestHost host_;
  test::ScriptedGuests guests_;
  ApiTable table_;
  ApiTable without_;
};

TEST_F(GuestPowerRowsTest, EachMethod_CallsItsGuestControlFunction) {
  const char* const methods[] = {"poweron", "shutdown", "poweroff", "reboot",        "suspend", "resume",
                                 "save",    "restore",  "delete",   "discard_saved", "release"};
  for (const char* method : methods) EXPECT_EQ(Call(method).code, 0);
  const std::string by = std::string(" ") + kGuest + " /h/";
  EXPECT_THAT(guests_.asked(), ElementsAre("poweron" + by, "shutdown" + by, "poweroff" + by, "reboot" + by,
                                           "suspend" + by, "resume" + by, "save" + by, "restore" + by, "delete" + by,
                                           "discard_saved" + by, "release" + by));
}

TEST_F(GuestPowerRowsTest, PowerOffForHighAvailability_Fences) {
  const std::string id = std::string(R"({"guest_id":")") + kGuest + "\",\"reason\":";
  EXPECT_EQ(Call("poweroff", id + "20}").code, 0);
  EXPECT_EQ(Call("poweroff", id + "19}").code, 0);
  EXPECT_EQ(Call("poweroff", id + "\"20\"}").code, 401);
  EXPECT_EQ(Call("poweroff", id + "null}").code, 401);
  EXPECT_THAT(guests_.asked(),
              ElementsAre(std::string("fence ") + kGuest + " //", std::string("poweroff ") + kGuest + " /h/"));
}

// The action could not be stored. High availability must be able to end a guest anyway.
TEST_F(GuestPowerRowsTest, Power_DatabaseLost_OnlyFencingIsPermitted) {
  ServiceParts parts;
  parts.guests = &guests_;
  parts.store = records::CurrentEnvironment()->store;
  const std::vector<ApiRow> rows = GuestPowerRows(parts);
  host_.store().ReportHealth(store::Health::kInaccessible);
  const Json::Value parameters = Parsed(std::string(R"({"host_id":"x","guest_id":")") + kGuest + "\"}");
  for (const ApiRow& row : rows) {
    const Answer answer = CallRow(row, parameters);
    EXPECT_EQ(answer.code, 949) << row.method;
    EXPECT_EQ(answer.data, Json::Value(kDatabaseLost)) << row.method;
  }
  EXPECT_THAT(guests_.asked(), ElementsAre());
  const std::string fence = std::string(R"({"reason":20,"guest_id":")") + kGuest + "\"}";
  EXPECT_EQ(CallTable(ApiTable(rows), "VEXA.CCC.Guest", "poweroff", fence).code, 0);
  EXPECT_THAT(guests_.asked(), ElementsAre(std::string("fence ") + kGuest + " //"));
  host_.store().ReportHealth(store::Health::kReadOnly);
  EXPECT_EQ(CallRow(rows.front(), parameters).code, 0) << "the store itself refuses what it cannot write";
}

TEST_F(GuestPowerRowsTest, HostSet_NoHost_IsRefused) {
  const std::string id = std::string(R"({"guest_id":")") + kGuest + "\"";
  EXPECT_EQ(Call("hostset", id + R"(,"host_id":"host-2"})").code, 0);
  EXPECT_EQ(Call("hostset", id + "}").code, 401);
  EXPECT_EQ(Call("hostset", id + R"(,"host_id":""})").code, 401);
  EXPECT_EQ(Call("hostset", id + R"(,"host_id":7})").code, 401);
  EXPECT_THAT(guests_.asked(), ElementsAre(std::string("hostset host-2 ") + kGuest + " //"));
}

TEST_F(GuestPowerRowsTest, Power_InvalidGuestId_IsRefusedBeforeAnyCall) {
  for (const char* id : {R"("")", R"("../../etc")", R"("8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\u0000")", R"("a/b")", "7",
                         "null", R"("%2e%2e")", R"(["8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01"])"}) {
    for (const ApiRow& row : table_.rows()) {
      const Answer answer = CallRow(row, Parsed(std::string(R"({"host_id":"host-2","guest_id":)") + id + "}"));
      EXPECT_EQ(answer.code, 401) << row.method << " " << id;
    }
  }
  EXPECT_THAT(guests_.asked(), ElementsAre());
}

TEST_F(GuestPowerRowsTest, Refusal_HasItsCodeAndReason) {
  guests_.refused = Refusal{915, "It has been busy with 'poweron' for alice since 2026-01-02T03:04:05Z"};
  for (const ApiRow& row : table_.rows()) {
    VEXA::APIRequest request(Parsed(std::string(R"({"host_id":"x","guest_id":")") + kGuest + "\"}"), "",
                             VEXA::APIRequest::Privilege::kOrdinary);
    VEXA::APIResponse response;
    Caller caller;
    caller.kind = Caller::Kind::kHost;
    row.handler({&request, &response, caller, nullptr});
    EXPECT_EQ(response.ErrorCode(), 915) << row.method;
    EXPECT_EQ(response.Data(), Json::Value(guests_.refused->reason)) << row.method;
  }
}

TEST_F(GuestPowerRowsTest, Power_ActingUser_IsForwarded) {
  VEXA::APIRequest request(Parsed(kParameters), "", VEXA::APIRequest::Privilege::kOrdinary);
  VEXA::APIResponse response;
  Caller caller;
  caller.kind = Caller::Kind::kHost;
  caller.host_id = "nas-2";
  caller.acts_for = "alice";
  table_.Find("VEXA.CCC.Guest", "reboot", 1)->handler({&request, &response, caller, nullptr});
  EXPECT_THAT(guests_.asked(), ElementsAre(std::string("reboot ") + kGuest + " alice/nas-2/"));
}

TEST_F(GuestPowerRowsTest, Power_NoHypervisor_IsUnavailable) {
  for (const ApiRow& row : without_.rows()) {
    const Answer answer = CallRow(row, Parsed(std::string(R"({"host_id":"x","guest_id":")") + kGuest + "\"}"));
    EXPECT_EQ(answer.code, 949) << row.method;
  }
}

TEST_F(GuestPowerRowsTest, Rows_Each_UsesLongLaneAndIsForHosts) {
  EXPECT_EQ(table_.rows().size(), 12u);
  for (const ApiRow& row : table_.rows()) {
    EXPECT_EQ(row.access.value, Access::kHost) << row.method;
    EXPECT_EQ(row.lane.value, LaneKind::kLong) << row.method;
  }
}

}  // namespace
}  // namespace vexa::api
