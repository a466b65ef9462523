// The certificates of hosts: who gets one signed, and how they are listed.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>

#include "host/api/peer/rows.h"
#include "host/api/user/host_list_api.h"
#include "host/records/run_record.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using std::chrono::system_clock;
using test::Answer;
using test::CallTable;

class HostCertificates : public testing::Test {
 protected:
  Answer Sign(const std::string& parameters, system_clock::time_point issued = system_clock::now()) {
    Caller caller = test::HostCaller();
    caller.certificate_issued = issued;
    ServiceParts parts;
    if (has_key_) parts.sign_certificate = [this](const SigningCall& call) { return Signed(call); };
    return CallTable(ApiTable(CertificateRows(parts)), "VEXA.CCC.Cluster.Member", "certificate_sign", parameters,
                     caller);
  }
  Result<std::string> Signed(const SigningCall& call) {
    if (failure_) return *failure_;
    return call.host_id + " " + call.request;
  }

  test::TestHost host_;
  bool has_key_ = true;
  std::optional<Error> failure_;
};

TEST_F(HostCertificates, Sign_IsForTheCallersOwnId) {
  const Answer answer = Sign(R"({"request":"r","host_id":"other"})");
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data["certificate"], Json::Value("h r"));
}

TEST_F(HostCertificates, Sign_Refusals) {
  EXPECT_EQ(Sign("{}").code, 401);
  EXPECT_EQ(Sign(R"({"request":""})").code, 401);
  EXPECT_EQ(Sign(R"({"request":7})").code, 401);
  EXPECT_EQ(Sign(R"({"request":")" + std::string(9'000, 'x') + "\"}").code, 401);
  EXPECT_EQ(Sign(R"({"request":"r"})", {}).code, 403) << "a call of the host to itself";
  failure_ = Error(ErrorCode::kInvalid, "bad");
  EXPECT_EQ(Sign(R"({"request":"r"})").code, 401);
  failure_ = Error(ErrorCode::kDenied, "not a member");
  const Answer denied = Sign(R"({"request":"r"})");
  EXPECT_EQ(denied.code, 901);
  EXPECT_EQ(test::ReasonOf(denied), "not a member");
  has_key_ = false;
  EXPECT_EQ(Sign(R"({"request":"r"})").code, 403);
}

TEST_F(HostCertificates, List_ShowsTheirState) {
  const ApiTable table(HostListRows());
  constexpr std::int64_t kDay = 86'400;
  const std::int64_t now = system_clock::to_time_t(system_clock::now());
  const auto state = [&](int age_in_days, int lifetime_in_days) {
    const std::int64_t issued = now - age_in_days * kDay;
    const std::int64_t expires = issued + lifetime_in_days * kDay;
    host_.PutText("host", "h1",
                  fmt::format(R"({{"name":"one","certificate":{{"issued":{},"expires":{}}}}})", issued, expires));
    const Json::Value host = CallTable(table, "VEXA.Virtualization.Host", "list", "{}").data["hosts"][0];
    EXPECT_EQ(json::Int64(host["certificate_expires"]), expires);
    return json::String(host["certificate"]);
  };
  EXPECT_EQ(state(20, 30), "ok");
  EXPECT_EQ(state(22, 30), "expiring");
  EXPECT_EQ(state(31, 30), "expired");
  EXPECT_EQ(state(340, 365), "ok");
  EXPECT_EQ(state(352, 365), "expiring");
  ASSERT_TRUE(host_.store().Commit({{}, {{"/revoked/h1", fmt::format(R"({{"before":{}}})", now - kDay)}}}).ok());
  EXPECT_EQ(state(2, 30), "revoked");
  EXPECT_EQ(state(0, 30), "ok");
  host_.PutText("host", "h1", R"({"name":"one","certificate":{"issued":"x","expires":"y"}})");
  EXPECT_FALSE(CallTable(table, "VEXA.Virtualization.Host", "list", "{}").data["hosts"][0].isMember("certificate"));
}

}  // namespace
}  // namespace vexa::api
