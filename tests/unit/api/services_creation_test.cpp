// The rows by which other hosts create guests, and import them with copies, in this host's repositories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/api/peer/rows.h"
#include "tests/support/scripted_guests.h"
#include "tests/support/test_host.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using test::Answer;

constexpr char kParameters[] = R"({"name":"web-2","repository_id":"r","vdisks_add":[{"vdisk_size":1024}],"desc":7})";

class GuestCreationRowTest : public ::testing::Test {
 protected:
  Answer Call(ServiceParts parts) {
    return CallTable(ApiTable(GuestCreationRows(parts)), "VEXA.CCC.Guest", "create", kParameters);
  }
  Answer Call() {
    ServiceParts parts;
    parts.guests = &guests_;
    return Call(parts);
  }

  test::TestHost host_;
  test::ScriptedGuests guests_;
};

TEST_F(GuestCreationRowTest, Create_Parameters_AreForwardedUnchanged) {
  guests_.created = Parsed(R"({"guest_id":"g","name":"web-2","host_id":"h"})");
  const Answer answer = Call();
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data, guests_.created);
  EXPECT_EQ(guests_.last_creation, Parsed(kParameters));
}

TEST_F(GuestCreationRowTest, Create_Refused_HasCodeAndReason) {
  guests_.refused = Refusal{902, "Another guest has the name 'web-2'"};
  EXPECT_EQ(Call().code, 902);
  EXPECT_EQ(Call().data, Json::Value("Another guest has the name 'web-2'"));
}

TEST_F(GuestCreationRowTest, Create_DatabaseLostOrNoGuests_IsRefused) {
  EXPECT_EQ(CallTable(ApiTable(GuestCreationRows({})), "VEXA.CCC.Guest", "create", R"({"name":"web-2"})").code, 401);
  EXPECT_EQ(Call(ServiceParts()).code, 949);
  ServiceParts parts;
  parts.guests = &guests_;
  parts.store = records::CurrentEnvironment()->store;
  host_.store().ReportHealth(store::Health::kInaccessible);
  const Answer answer = Call(parts);
  EXPECT_EQ(answer.code, 949);
  EXPECT_EQ(answer.data, Json::Value(kDatabaseLost));
  EXPECT_TRUE(guests_.asked().empty());
}

class GuestImportRowTest : public GuestCreationRowTest {
 protected:
  Answer Import(const std::string& parameters, bool runs_guests = true) {
    ServiceParts parts;
    if (runs_guests) parts.guests = &guests_;
    return CallTable(ApiTable(GuestImportRows(parts)), "VEXA.CCC.Guest", "import", parameters);
  }
};

constexpr char kImport[] = R"({"guest":{"xml":"<domain/>"})";

TEST_F(GuestImportRowTest, Import_Done_HasGuestAndRecords) {
  guests_.imported.id = "g";
  guests_.imported.name = "one";
  guests_.imported.records["guest"]["name"] = "one";
  const Answer answer = Import(std::string(kImport) + "}");
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data, Parsed(R"({"guest_id":"g","name":"one","records":{"guest":{"name":"one"}}})"));
  EXPECT_EQ(Import(std::string(kImport) + R"(,"dry_run":true})").code, 0);
  ASSERT_EQ(guests_.asked().size(), 2u);
  EXPECT_THAT(guests_.asked()[0], testing::StartsWith("import <domain/> "));
  EXPECT_THAT(guests_.asked()[1], testing::StartsWith("check import <domain/> "));
}

TEST_F(GuestImportRowTest, Import_Refused_HasCodeReasonAndName) {
  guests_.imported.name = "one";
  guests_.refused = Refusal{902, "The name 'one' belongs to the guest 'g'"};
  const Answer answer = Import(std::string(kImport) + "}");
  EXPECT_EQ(answer.code, 902);
  EXPECT_EQ(answer.data, Parsed(R"({"guest_id":"","name":"one","reason":"The name 'one' belongs to the guest 'g'"})"));
}

TEST_F(GuestImportRowTest, Import_BadParametersOrNoGuests_IsRefused) {
  for (const char* parameters : {R"({"guest":{}})", R"({"guest":7})", R"({"guest":{"xml":"x"},"dry_run":1})"}) {
    EXPECT_EQ(Import(parameters).code, 401) << parameters;
  }
  EXPECT_EQ(Import(std::string(kImport) + "}", false).code, 949);
  EXPECT_TRUE(guests_.asked().empty());
}

}  // namespace
}  // namespace vexa::api
