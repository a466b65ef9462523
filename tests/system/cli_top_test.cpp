// vexa top.
#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

class Top : public CliTest {
 protected:
  static ApiHost::Answer Cluster() {
    return [](const std::string& method, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
      if (method == "list") {
        return ApiHost::Success(R"({"hosts":[{"host_id":"h1","name":"nas-1","state":"running"},
            {"host_id":"h2","name":"nas-2","state":"inaccessible"}],
          "guests":[{"guest_id":"g1","guest_name":"web","host_id":"h1","status":"running","status_type":"healthy"}]})");
      }
      if (parameters.isMember("guest_id")) return ApiHost::Success(R"({"vcpu_num":4,"vram_size":2097152})");
      if (parameters["host_id"] == "h2") return ApiHost::Failure(403, "No.");
      return ApiHost::Success(R"({"cpu_cores":8,"ram_size":16777216,
          "utilization":{"cpu":{"user_load":30,"system_load":7},"memory":{"avail_real":8388608}}})");
    };
  }
};

const std::string kShown =
    "HOST   STATE         CPU   CORES  FREE MEMORY  MEMORY\n"
    "nas-1  running       37 %  8      8.0 GiB      16.0 GiB\n"
    "nas-2  inaccessible  -     -      -            -\n\n"
    "GUEST  STATE    SEVERITY  HOST   CPUS  MEMORY\n"
    "web    running  healthy   nas-1  4     2.0 GiB\n";

TEST_F(Top, Once_HostsAndGuests_ArePrinted) {
  const ApiHost host(Cluster());
  EXPECT_EQ(RunOn(host, {"top", "--once"}).output, kShown);
  EXPECT_EQ(RunOn(host, {"top"}).output, kShown);  // not on a terminal
}

TEST_F(Top, OnTerminal_Q_Leaves) {
  const ApiHost host(Cluster());
  SaveLogin(host.url());
  ProcessOptions program = Program({"top"});
  program.environment["TERM"] = "dumb";
  OnTerminal top(program);
  ASSERT_TRUE(top.WaitFor("q leaves."));
  ASSERT_TRUE(top.WaitFor("q leaves."));  // refreshed
  top.Type("q");
  EXPECT_EQ(top.Finish(), 0);
  EXPECT_THAT(top.shown(), HasSubstr("37 %"));
}

TEST_F(Top, OnTerminal_CtrlC_SwitchesTheEchoOnAgain) {
  const ApiHost host(Cluster());
  SaveLogin(host.url());
  ProcessOptions program = Program({"top"});
  program.environment["TERM"] = "dumb";
  OnTerminal top(program);
  ASSERT_TRUE(top.WaitFor("q leaves."));
  EXPECT_FALSE(top.IsEchoOn());
  top.Type("\x03");
  const int status = top.Finish();
  EXPECT_TRUE(top.IsEchoOn());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130);
}

TEST_F(Top, Server_Unreachable_Fails) {
  const auto result = Run({"top", "--server", "http://127.0.0.1:1"});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(result.output, IsEmpty());
}

}  // namespace
}  // namespace vexa::test
