// The row by which other hosts change this host's guests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "host/api/peer/guest_set_api.h"
#include "host/api/peer/rows.h"
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

class GuestLiveRowTest : public GuestSetRowTest {
 protected:
  Answer Ask(const std::string& method, const std::string& more = "", bool has_guests = true) {
    ServiceParts parts;
    parts.guests = has_guests ? &guests_ : nullptr;
    return CallTable(ApiTable(GuestLiveRows(parts)), "VEXA.CCC.Guest", method,
                     R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01")" + more + "}");
  }
};

TEST_F(GuestLiveRowTest, Pending_Differences_HaveBothValues) {
  EXPECT_EQ(Ask("pending").data, Parsed(R"({"pending":[]})"));
  guests_.pending = {{"vdisks", "d1", Json::Value(), Parsed(R"({"path":"/a"})")}};
  EXPECT_EQ(Ask("pending").data,
            Parsed(R"({"pending":[{"property":"vdisks","id":"d1","running":null,"recorded":{"path":"/a"}}]})"));
  guests_.refused = Refusal{901, "no machine"};
  EXPECT_EQ(Ask("pending").code, 901);
  EXPECT_EQ(Ask("pending").data, Json::Value("no machine"));
  EXPECT_EQ(Ask("pending", "", false).code, 949);
}

TEST_F(GuestLiveRowTest, Apply_Succeeds_ReturnsPendingChanges) {
  guests_.pending = {{"vcpu_num", "", 1, 2}};
  EXPECT_EQ(Ask("apply").data, Parsed(R"({"pending":[{"property":"vcpu_num","running":1,"recorded":2}]})"));
  EXPECT_TRUE(guests_.asked().front().starts_with("apply 8f14e45f"));
  EXPECT_EQ(Ask("apply", R"(,"force_eject":true)").code, 0);
  EXPECT_EQ(std::ranges::count_if(guests_.asked(), [](const auto& it) { return it.starts_with("apply forced "); }), 1);
  EXPECT_EQ(guests_.applied_except.size(), 0U);
  EXPECT_EQ(Ask("apply", R"(,"except":[{"property":"vnics","id":"n","running":1,"recorded":null},{"id":"x"},7])").code,
            0);
  EXPECT_EQ(guests_.applied_except,
            (std::vector<domain_xml::Difference>{{"vnics", "n", Json::Value(1), Json::Value()}}));
  EXPECT_EQ(Ask("apply", R"(,"force_eject":1)").code, 401);
  guests_.refused = Refusal{911, "off"};
  EXPECT_EQ(Ask("apply").code, 911);
  EXPECT_EQ(Ask("apply", "", false).code, 949);
}

TEST_F(GuestSetRowTest, GuestSet_NoGuestIdOrNoGuests_IsRefused) {
  EXPECT_EQ(Call("{}").code, 401);
  EXPECT_EQ(Call(R"({"guest_id":"web"})").code, 401);
  EXPECT_TRUE(guests_.asked().empty());
  EXPECT_EQ(CallTable(ApiTable(Rows(nullptr)), "VEXA.CCC.Guest", "set", kParameters).code, 949);
}

}  // namespace
}  // namespace vexa::api
