// If a flag of a disk was read from the key of another flag, no test failed, because all flags had the same value.
#include <gtest/gtest.h>

#include "tests/support/test_host.h"
#include "webapi/guest/guest.h"

namespace {

constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
constexpr const char* kFlags[] = {"is_dummy", "unmap", "is_meta_disk"};

TEST(GuestGetDisk, OneFlagStored_OnlyThatFlagIsReplied) {
  vexa::test::TestHost host;
  host.PutText("guest", kGuest, R"({"vdisks":["d"]})");
  for (const char* stored : kFlags) {
    host.PutText("vdisk", "d", std::string(R"({"format":2,"type":1,")") + stored + R"(":true})");
    VEXA::APIRequest request =
        vexa::test::AdministratorRequest(vexa::test::Parsed(std::string(R"({"guest_id":")") + kGuest + R"("})"));
    VEXA::APIResponse response;
    VexaVirtualization::Guest::Get(&request, &response);
    ASSERT_TRUE(response.IsSuccess());
    const Json::Value disk = response.Data()["vdisks"][0];
    for (const char* flag : kFlags) EXPECT_EQ(disk[flag], flag == std::string(stored)) << flag << " of " << stored;
  }
}

}  // namespace
