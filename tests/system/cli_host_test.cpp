// vexa host and vexa guest info against servers that answer well and badly.
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

constexpr const char* kHost = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";

const std::string kHosts = R"({"success":true,"data":{"hosts":[
  {"host_id":"8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8","name":"one","state":"running","version_state":"version_matched",
   "certificate":"ok"},
  {"host_id":"h2","name":"tw\u001b[31mo","state":"inaccessible","version_state":"upgrade_required",
   "certificate":"expiring"},
  {"host_id":"h3","name":"twin","state":"running"},{"host_id":"h4","name":"twin","state":"running"}, 7, null]}})";

const std::string kOne = R"({"success":true,"data":{"host_id":"8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8","name":"one",
  "state":"running","version":"1.0","addresses":["192.0.2.1","2001:db8::1"],"cpu_cores":4,"cpu_clock_speed":2400.5,
  "ram_size":16000000,"system":{"version":"A system","model":"","cpu":{"model":"A processor"},"uptime":273906},
  "utilization":{"cpu":{"user_load":3,"system_load":2}},
  "interfaces":[{"ifname":"eth0","type":"ethernet","ip":"192.0.2.1","mac":"02:00:00:00:00:01","speed":10000,
  "status":"connected"}]}})";

class Host : public CliTest {};

TEST_F(Host, List_HostileTexts_AreSafeForTerminal) {
  const ScriptedServer server({HttpReplyOf(200, kHosts)});
  const auto result = RunOn(server, {"host", "list"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output,
              AllOf(StartsWith("NAME "), HasSubstr("\none          running       version_matched   ok\n"),
                    HasSubstr("\ntw\\x1b[31mo  inaccessible  upgrade_required  expiring\n"), Not(HasSubstr("\x1b"))));
}

TEST_F(Host, Show_Name_RequestsIdOfThatHost) {
  const ScriptedServer server({HttpReplyOf(200, kHosts), HttpReplyOf(200, kOne)});
  const auto result = RunOn(server, {"host", "show", "one"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, R"(Host               8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8
Name               one
State              running
Version            1.0
Addresses          192.0.2.1, 2001:db8::1
System             A system
Processor          A processor
Cores              4
Clock              2400.5 MHz
Memory             16000000 KiB
Uptime             3 d 04:05:06
CPU load (user)    3 %
CPU load (system)  2 %

Network interfaces
INTERFACE  TYPE      ADDRESS    MAC                SPEED  STATUS
eth0       ethernet  192.0.2.1  02:00:00:00:00:01  10000  connected
)");
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_THAT(server.requests()[1], AllOf(StartsWith("POST /webapi/VEXA.Virtualization.Host/get "),
                                          HasSubstr(std::string("{\"host_id\":\"") + kHost + "\"}")));
}

TEST_F(Host, Show_Numbers_HaveThreeDecimalsAtMost) {
  for (const auto& [number, shown] :
       {std::pair("2596.1239999999998", "2596.124"), std::pair("2400.0", "2400"), std::pair("2400", "2400"),
        std::pair("100.0", "100"), std::pair("0.5", "0.5"), std::pair("1.9996", "2"), std::pair("0.0004", "0"),
        std::pair("-0.0004", "0"), std::pair("-12.50", "-12.5"), std::pair("1e300", "1e+300"),
        std::pair("18446744073709551615", "18446744073709551615"), std::pair("\"7.2500\"", "7.2500")}) {
    const ScriptedServer server({HttpReplyOf(
        200, std::string(R"({"success":true,"data":{"cpu_cores":)") + number + R"(,"cpu_clock_speed":)" + number +
                 R"(,"resources":{"free_cpu_ghz":)" + number + R"(},"interfaces":[{"speed":)" + number + "}]}}")});
    const auto result = RunOn(server, {"host", "show"});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    const std::string text = shown;
    EXPECT_THAT(result.output, AllOf(HasSubstr("Cores     " + text + "\n"), HasSubstr("Clock     " + text + " MHz\n"),
                                     HasSubstr("Free CPU  " + text + " GHz\n"), HasSubstr(" " + text + " ")));
  }
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"cpu_clock_speed":2596.1239999999998}})")});
  EXPECT_THAT(RunOn(server, {"host", "show", "--json"}).output, HasSubstr("2596.1239999999998"));
}

TEST_F(Host, Show_Id_MakesOneCall) {
  const ScriptedServer server({HttpReplyOf(200, kOne)});
  const auto result = RunOn(server, {"host", "show", kHost, "--json"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("\"cpu_clock_speed\" : 2400.5"));
  EXPECT_THAT(server.requests(), SizeIs(1));
}

TEST_F(Host, Host_UnknownOrAmbiguousName_IsReported) {
  for (const auto& [name, sentence] : {std::pair("nobody", "There is no host called 'nobody'"),
                                       std::pair("twin", "Several hosts are called 'twin'")}) {
    const ScriptedServer server({HttpReplyOf(200, kHosts)});
    const auto result = RunOn(server, {"host", "show", name});
    ExpectFailed(result, sentence);
  }
}

TEST_F(Host, Reply_UnexpectedTypes_IsAnErrorOrEmptyNotACrash) {
  for (const char* data : {"null", "7", "[]", R"({"hosts":7})"}) {
    const ScriptedServer server({HttpReplyOf(200, std::string(R"({"success":true,"data":)") + data + "}")});
    const auto result = RunOn(server, {"host", "list"});
    EXPECT_EQ(result.exit_code, 1) << data;
    EXPECT_THAT(result.errors, HasSubstr("contains no hosts"));
  }
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"addresses":{},"system":7,"utilization":[],
      "interfaces":"x","ram_size":[]}})")});
  const auto result = RunOn(server, {"host", "show"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "\nNetwork interfaces\nnone\n");
}

TEST_F(Host, GuestInfo_HostReplied_IsShown) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"answered":true,"ip":["192.0.2.7"],
      "uptime":"77","has_agent":false}})")});
  const auto result = RunOn(server, {"guest", "info", kHost});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output,
            std::string("Guest          ") + kHost +
                "\nHost answered  yes\nAddresses      192.0.2.7\nUptime         00:01:17\nAgent          no\n");
  const ScriptedServer silent({HttpReplyOf(200, R"({"success":true,"data":{"answered":false,"uptime":"0"}})")});
  EXPECT_THAT(RunOn(silent, {"guest", "info", kHost}).output, Not(HasSubstr("Uptime")));
  EXPECT_EQ(RunOn(silent, {"guest", "info", ""}).exit_code, 2);
}

}  // namespace
}  // namespace vexa::test
