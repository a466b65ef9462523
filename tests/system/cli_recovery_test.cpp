// vexa guest recover, vexa host forget and vexa host revoke: names are resolved to ids, and only explicit confirmations
// are sent.
#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kDown[] = "0a0a0a0a-0000-4000-8000-000000000001";
// Both lists in one: each command reads its own.
constexpr char kLists[] = R"({"guests":[{"guest_id":"g1","guest_name":"web-1"},{"guest_id":"g2","guest_name":"db"}],
    "hosts":[{"host_id":"0a0a0a0a-0000-4000-8000-000000000001","name":"nas-1"},
             {"host_id":"0a0a0a0a-0000-4000-8000-000000000002","name":"nas-2"}]})";

class Recovery : public CliTest {
 protected:
  static ApiHost::Answer Answers() {
    return [](const std::string& method, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
      if (method == "list") return ApiHost::Success(kLists);
      if (json::String(json::Member(parameters, "guest_id")) == "g2") {
        return ApiHost::Failure(972, "The machine may still run");
      }
      return ApiHost::Success();
    };
  }
  ProcessOptions ProgramOn(const ApiHost& host, std::vector<std::string> arguments) {
    SaveLogin(host.url());
    return Program(std::move(arguments));
  }
};

TEST_F(Recovery, Recover_GuestName_SendsItsId) {
  const ApiHost host(Answers());
  const auto result = RunProcess(ProgramOn(host, {"guest", "recover", "web-1"}));
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("'web-1'"));
  EXPECT_THAT(host.calls(), Contains(R"(recover {"discard_saved":false,"guest_id":"g1","machine_is_off":false})"));
}

TEST_F(Recovery, Recover_ConfirmationAndHostGiven_SendsBoth) {
  const ApiHost host(Answers());
  const auto result = RunProcess(
      ProgramOn(host, {"guest", "recover", "web-1", "db", "--to", "nas-1", "--machine-is-off", "--discard-saved"}));
  EXPECT_EQ(result.exit_code, 1) << "one was refused";
  EXPECT_THAT(result.errors, HasSubstr("The machine may still run"));
  EXPECT_THAT(host.calls(), Contains(std::string(R"(recover {"discard_saved":true,"guest_id":"g1","host_id":")") +
                                     kDown + R"(","machine_is_off":true})"));
  EXPECT_EQ(host.Count("recover"), 2) << "a refusal does not keep the others";
}

TEST_F(Recovery, Recover_UnknownGuest_SendsNothing) {
  const ApiHost host(Answers());
  const auto result = RunProcess(ProgramOn(host, {"guest", "recover", "mail"}));
  EXPECT_NE(result.exit_code, 0);
  EXPECT_THAT(result.errors, HasSubstr("mail"));
  EXPECT_EQ(host.Count("recover"), 0);
}

TEST_F(Recovery, Revoke_HostName_SendsItsId) {
  const ApiHost host(Answers());
  const auto result = RunProcess(ProgramOn(host, {"host", "revoke", "nas-1"}));
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("refuse the certificates of the host 'nas-1'"));
  EXPECT_THAT(host.calls(), Contains(std::string(R"(revoke {"host_id":")") + kDown + "\"}"));
  EXPECT_NE(RunProcess(ProgramOn(host, {"host", "revoke", "nas-9"})).exit_code, 0);
  EXPECT_EQ(host.Count("revoke"), 1);
}

TEST_F(Recovery, Forget_HostName_SendsItsId) {
  const ApiHost host(Answers());
  const auto result = RunProcess(ProgramOn(host, {"host", "forget", "nas-1", "--machine-is-off"}));
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(host.calls(), Contains(std::string(R"(forget {"host_id":")") + kDown +
                                     R"(","machine_is_off":true,"recover_guests":false})"));
}

}  // namespace
}  // namespace vexa::test
