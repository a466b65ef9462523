// The row by which other hosts change this host's guests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/api/peer/guest_set_api.h"
#include "host/base/error_table.h"
#include "tests/support/scripted_guests.h"
#include "tests/support/test_host.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using test::Answer;
constexpr char kParameters[] = R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01","vcpu_num":4,"desc":7})";

class GuestSetRowTest : public ::testing::Test {
 protected:
  static std::vector<ApiRow> Rows(guests::GuestControl* guests) {
    ServiceParts parts;
    parts.guests = guests;
    return GuestSetRows(parts);
  }
  Answer Call(const std::string& parameters = kParameters) {
    return CallTable(ApiTable(Rows(&guests_)), "VEXA.CCC.Guest", "set", parameters);
  }

  test::TestHost host_;
  test::ScriptedGuests guests_;
};

TEST_F(GuestSetRowTest, GuestSet_Parameters_AreForwardedUnchanged) {
  const Answer answer = Call();
  EXPECT_EQ(answer.code, 0);
  EXPECT_TRUE(answer.data.isNull());
  EXPECT_EQ(guests_.last_edit, Parsed(kParameters));
}

TEST_F(GuestSetRowTest, GuestSet_Refused_HasReasonAndPinsObject) {
  guests_.refused = Refusal{903, "no network"};
  EXPECT_EQ(Call().code, 903);
  EXPECT_EQ(Call().data, Json::Value("no network"));
  guests_.refused = Refusal{2101, "no processors"};
  EXPECT_EQ(Call().code, 2101);
  EXPECT_EQ(Call().data, Parsed(R"({"pin_reserved":false})"));
}

TEST_F(GuestSetRowTest, GuestSet_DatabaseLost_IsRefusedWithReason) {
  ServiceParts parts;
  parts.guests = &guests_;
  parts.store = records::CurrentEnvironment()->store;
  host_.store().ReportHealth(store::Health::kInaccessible);
  const Answer answer = CallTable(ApiTable(GuestSetRows(parts)), "VEXA.CCC.Guest", "set", kParameters);
  EXPECT_EQ(answer.code, 949);
  EXPECT_EQ(answer.data, Json::Value(kDatabaseLost));
  EXPECT_TRUE(guests_.asked().empty());
}

TEST_F(GuestSetRowTest, GuestSet_NoGuestIdOrNoGuests_IsRefused) {
  EXPECT_EQ(Call("{}").code, 401);
  EXPECT_EQ(Call(R"({"guest_id":"web"})").code, 401);
  EXPECT_TRUE(guests_.asked().empty());
  EXPECT_EQ(CallTable(ApiTable(Rows(nullptr)), "VEXA.CCC.Guest", "set", kParameters).code, 949);
}

}  // namespace
}  // namespace vexa::api
