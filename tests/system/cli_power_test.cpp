// vexa guest start, stop, kill and restart against servers that answer well and badly.
#include <signal.h>

#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;

constexpr const char* kUuid = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";

const std::string kGuests = R"({"guests":[
  {"guest_id":"g1","guest_name":"web-1","host_id":"h1"},{"guest_id":"g2","guest_name":"web-2","host_id":"h2"},
  {"guest_id":"g3","guest_name":"web-3","host_id":""},{"guest_id":"g4","guest_name":"twin"},
  {"guest_id":"g5","guest_name":"twin"},{"guest_id":"g6","guest_name":"b\u001b[31md\n","host_id":"h1"},
  {"guest_id":"g7"}, 7, null]})";
const std::string kHosts = R"({"hosts":[{"host_id":"h1","name":"nas-1"},{"host_id":"h2","name":"na\u001bs"}, 7]})";

std::string Name(const Json::Value& parameters, const char* member) {
  return VexaVirtualization::json::String(VexaVirtualization::json::Member(parameters, member));
}

class Power : public CliTest {
 protected:
  // Lists as above, and `power` for the rest.
  static ApiHost::Answer With(ApiHost::Answer power) {
    return [power = std::move(power), lists = 0](
               const std::string& method, const Json::Value& parameters) mutable -> std::optional<ApiHost::Reply> {
      // The first list is the guests', the second, of `start`, the hosts'.
      if (method == "list") return ApiHost::Success(++lists == 2 ? kHosts : kGuests);
      return power(method, parameters);
    };
  }
  static ApiHost::Answer SucceedAlways() {
    return With([](const auto&, const auto&) { return ApiHost::Success(); });
  }
  ProcessOptions ProgramOn(const std::string& url, std::vector<std::string> arguments) {
    SaveLogin(url);
    return Program(std::move(arguments));
  }
};

TEST_F(Power, Start_SeveralGuests_PrintsOneLineEachWithHost) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, {"guest", "start", "web-2", "g1", "g7"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "web-2: started on na\\x1bs\nweb-1: started on nas-1\ng7: started\n");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(host.calls(), ::testing::IsSupersetOf({R"(pwr_ctl {"action":"poweron","guest_id":"g2"})",
                                                     R"(pwr_ctl {"action":"poweron","guest_id":"g1"})"}));
}

TEST_F(Power, Start_GuestWithoutHost_ShowsAssignedHost) {
  bool started = false;
  const ApiHost host([&](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
    if (method != "list") started = true;
    return ApiHost::Success(started ? R"({"guests":[{"guest_id":"g3","guest_name":"web-3","host_id":"h1"}],"hosts":[]})"
                                    : R"({"guests":[{"guest_id":"g3","guest_name":"web-3","host_id":""}],)" +
                                          kHosts.substr(1));
  });
  EXPECT_EQ(RunOn(host, {"guest", "start", "web-3"}).output, "web-3: started on nas-1\n");
}

struct Verb {
  const char* word;
  const char* action;
  const char* expected;
};

TEST_F(Power, Command_SendsMatchingApiAction) {
  for (const Verb& verb :
       {Verb{"start", "poweron", "web-1: started on nas-1\n"}, Verb{"stop", "shutdown", "web-1: asked to shut down\n"},
        Verb{"kill", "poweroff", "web-1: powered off\n"}, Verb{"restart", "reboot", "web-1: rebooting\n"}}) {
    const ApiHost host(SucceedAlways());
    const auto result = RunOn(host, {"guest", verb.word, "web-1"});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(result.output, verb.expected);
    EXPECT_EQ(host.calls().back(), std::string(R"(pwr_ctl {"action":")") + verb.action + R"(","guest_id":"g1"})");
  }
}

TEST_F(Power, SuspendAndSave_CallTheirMethods) {
  for (const Verb& verb :
       {Verb{"suspend", "suspend", "web-1: suspended\n"}, Verb{"resume", "resume", "web-1: resumed\n"},
        Verb{"save", "save", "web-1: saved\n"}, Verb{"restore", "restore", "web-1: restored\n"}}) {
    const ApiHost host(SucceedAlways());
    const auto result = RunOn(host, {"guest", verb.word, "web-1"});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(result.output, verb.expected);
    EXPECT_EQ(host.calls().back(), std::string(verb.action) + R"( {"guest_id":"g1"})");
  }
}

TEST_F(Power, Power_Failures_ShowMessageCodeAndReason) {
  const ApiHost host(With([](const auto&, const Json::Value& parameters) {
    if (Name(parameters, "guest_id") != "g2") return ApiHost::Success();
    return ApiHost::Failure(912, "The guest is b\\u001b[1musy.", R"(,"details":"since \u001b[1mnoon")");
  }));
  const auto result = RunOn(host, {"guest", "stop", "web-1", "web-2", "web-3"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.output, "web-1: asked to shut down\nweb-3: asked to shut down\n");
  EXPECT_EQ(result.errors,
            "vexa: web-2: The guest is b\\x1b[1musy (912).\n"
            "  Details: \"since \\u001b[1mnoon\"\n");
}

TEST_F(Power, Power_UnknownOrAmbiguousNames_SendNothing) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, {"guest", "kill", "web-1", "twin", "nobody"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("Several guests are called 'twin'. Use one of the ids g4, g5"),
                                   HasSubstr("There is no guest called 'nobody'; see 'vexa guest list'")));
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_EQ(host.Count("pwr_ctl"), 0);
  EXPECT_EQ(RunOn(host, {"guest", "kill", ""}).exit_code, 2);
  EXPECT_EQ(RunOn(host, {"guest", "kill", "\xff"}).exit_code, 2);
  EXPECT_EQ(RunOn(host, {"guest", "kill"}).exit_code, 2);
  EXPECT_EQ(host.Count("pwr_ctl"), 0);
}

TEST_F(Power, Power_GuestNamedTwice_IsSentOnce) {
  const ApiHost host(SucceedAlways());
  EXPECT_EQ(RunOn(host, {"guest", "stop", "web-1", "g1", "web-1"}).output, "web-1: asked to shut down\n");
  EXPECT_EQ(host.Count("pwr_ctl"), 1);
}

TEST_F(Power, Power_UnlistedId_IsSentToServer) {
  const ApiHost host(With([](const auto&, const auto&) { return ApiHost::Failure(409, "You may not."); }));
  const auto result = RunOn(host, {"guest", "stop", kUuid});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, StartsWith(std::string("vexa: ") + kUuid + ": You may not (409)."));
}

TEST_F(Power, Power_ControlCharactersInNames_AreEscaped) {
  const ApiHost host(SucceedAlways());
  EXPECT_EQ(RunOn(host, {"guest", "stop", "g6"}).output, "b\\x1b[31md\\n: asked to shut down\n");
}

TEST_F(Power, Power_ManyGuests_EightConcurrentResultsInOrder) {
  std::string list;
  std::string expected;
  std::vector<std::string> arguments{"guest", "stop"};
  for (int i = 0; i < 12; ++i) {
    const std::string number = std::to_string(i);
    list += (i == 0 ? "" : ",") + std::string(R"({"guest_id":"i)") + number + R"(","guest_name":"n)" + number + "\"}";
    arguments.push_back("n" + number);
    expected += "n" + number + ": asked to shut down\n";
  }
  ApiHost host([&](const std::string& method, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
    if (method == "list") return ApiHost::Success("{\"guests\":[" + list + "]}");
    if (Name(parameters, "guest_id") > "i8") return ApiHost::Success();
    return std::nullopt;
  });
  Process program(ProgramOn(host.url(), arguments));
  ASSERT_TRUE(Eventually([&] { return host.held() == 8; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(host.Count("pwr_ctl"), 8) << "the others wait";
  while (!program.Wait(std::chrono::milliseconds(50))) host.Release();
  EXPECT_EQ(program.output(), expected);
}

TEST_F(Power, Power_Timeout_IsAsGiven) {
  ApiHost host(With([](const auto&, const auto&) { return std::nullopt; }));
  const auto result = RunOn(host, {"--timeout", "1", "guest", "stop", "web-1"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, StartsWith("vexa: web-1: No reply from "));
}

TEST_F(Power, Quiet_PrintsFailuresOnly) {
  const ApiHost host(With([](const auto&, const Json::Value& parameters) {
    return Name(parameters, "guest_id") == "g1" ? ApiHost::Success() : ApiHost::Failure(901, "No.");
  }));
  const auto result = RunOn(host, {"-q", "guest", "stop", "web-1", "web-2"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_THAT(result.errors, StartsWith("vexa: web-2: No (901)."));
}

TEST_F(Power, Json_HasEachGuest) {
  const ApiHost host(With([](const auto&, const Json::Value& parameters) {
    return Name(parameters, "guest_id") == "g1" ? ApiHost::Success() : ApiHost::Failure(912, "No.");
  }));
  const auto result = RunOn(host, {"--json", "guest", "stop", "web-1", "web-2"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(Parse(result.output), Parse(R"-([
      {"guest_id":"g1","guest_name":"web-1","success":true,"message":"asked to shut down"},
      {"guest_id":"g2","guest_name":"web-2","success":false,"code":912,
       "message":"No (912)."}])-"));
}

// Waiting.

TEST_F(Power, Wait_StateReached_Ends) {
  for (const auto& [word, state, expected] :
       {std::tuple("start", "running", "web-1: started on nas-1\n"),
        std::tuple("stop", "shutdown", "web-1: shut down\n"), std::tuple("kill", "shutdown", "web-1: powered off\n")}) {
    int asked = 0;
    const std::string wanted = state;
    const ApiHost host(With([&](const std::string& method, const auto&) -> std::optional<ApiHost::Reply> {
      if (method != "status") return ApiHost::Success();
      if (++asked == 1) return ApiHost::Success(R"({"status":"between"})");
      if (asked == 2) return ApiHost::Reply{503, "busy"};
      return ApiHost::Success(R"({"status":")" + wanted + "\"}");
    }));
    const auto result = RunOn(host, {"guest", word, "web-1", "--wait"});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(result.output, expected);
    EXPECT_EQ(host.Count("status"), 3);
  }
}

TEST_F(Power, Wait_Elapsed_Fails) {
  const ApiHost host(With([](const std::string& method, const auto&) {
    return ApiHost::Success(method == "status" ? R"({"status":"boot\u001bing"})" : "null");
  }));
  const auto result = RunOn(host, {"guest", "start", "web-1", "--wait", "--wait-timeout", "1"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "vexa: web-1: After 1 s it is not running, but boot\\x1bing\n");
  EXPECT_THAT(result.output, IsEmpty());
}

TEST_F(Power, Wait_StateUnreadable_Fails) {
  for (const auto& [data, why] : {std::pair("7", "The server's reply contains no guest"),
                                  std::pair("", "Its state cannot be read: Gone (403).")}) {
    const std::string text = data;
    const ApiHost host(With([&](const std::string& method, const auto&) {
      if (method != "status") return ApiHost::Success();
      return text.empty() ? ApiHost::Failure(403, "Gone.") : ApiHost::Success(text);
    }));
    const auto result = RunOn(host, {"guest", "stop", "web-1", "--wait"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, StartsWith(std::string("vexa: web-1: ") + why));
  }
}

TEST_F(Power, Power_OnTerminal_ShowsProgress) {
  int asked = 0;
  const ApiHost host(With([&](const std::string& method, const auto&) -> std::optional<ApiHost::Reply> {
    if (method != "status") return ApiHost::Success();
    return ApiHost::Success(++asked < 3 ? R"({"status":"shutting_down"})" : R"({"status":"shutdown"})");
  }));
  OnTerminal terminal(ProgramOn(host.url(), {"guest", "stop", "web-1", "--wait"}));
  EXPECT_TRUE(terminal.WaitFor("0 of 1 done; web-1: shutting_down"));
  EXPECT_TRUE(terminal.WaitFor("\x1b[Kweb-1: shut down")) << terminal.shown();
  const int status = terminal.Finish();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << terminal.shown();
}

// Servers that fail.

TEST_F(Power, Reply_UnexpectedForm_IsAnError) {
  for (const char* list : {"{}", R"({"guests":{}})", "[]", "null", "7"}) {
    const std::string data = list;
    const ApiHost host([&](const auto&, const auto&) { return ApiHost::Success(data); });
    const auto result = RunOn(host, {"guest", "stop", "web-1"});
    EXPECT_EQ(result.exit_code, 1) << list;
    EXPECT_THAT(result.errors, HasSubstr("The server's reply contains no guests"));
    EXPECT_EQ(host.Count("pwr_ctl"), 0);
  }
  for (const char* body : {R"({"success":"yes"})", "[1]", "nonsense", ""}) {
    const std::string text = body;
    const ApiHost host(With([&](const auto&, const auto&) { return ApiHost::Reply{200, text}; }));
    const auto result = RunOn(host, {"guest", "stop", "web-1"});
    EXPECT_EQ(result.exit_code, 1) << body;
    EXPECT_THAT(result.errors, HasSubstr("web-1: The server's reply (HTTP 200) cannot be understood"));
  }
}

TEST_F(Power, Power_ServerHangsUp_IsReportedForGuest) {
  const std::string list = R"({"success":true,"data":)" + kGuests + "}";
  const ScriptedServer server({HttpReplyOf(200, list), {"", ScriptedReply::Then::kReset}});
  SaveLogin(server.url());
  const auto result = Run({"guest", "stop", "web-1"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, StartsWith("vexa: web-1: No reply from "));
}

TEST_F(Power, Power_ServerMissing_IsUnreachable) {
  SaveLogin("http://127.0.0.1:" + std::to_string(UnusedPort()));
  EXPECT_EQ(Run({"guest", "stop", "web-1"}).exit_code, 3);
}

TEST_F(Power, Power_Interrupted_ShowsResultsAndEndsImmediately) {
  std::string list;
  std::vector<std::string> arguments{"guest", "stop"};
  for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"}) {
    list +=
        (list.empty() ? "" : ",") + std::string(R"({"guest_id":")") + name + R"(","guest_name":"vm-)" + name + "\"}";
    arguments.push_back(name);
  }
  ApiHost host([&](const std::string& method, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
    if (method == "list") return ApiHost::Success("{\"guests\":[" + list + "]}");
    if (Name(parameters, "guest_id") == "a") return ApiHost::Success();
    return std::nullopt;
  });
  Process program(ProgramOn(host.url(), arguments));
  ASSERT_TRUE(program.WaitForText("vm-a: asked to shut down", seconds(30))) << program.errors();
  ASSERT_TRUE(Eventually([&] { return host.held() == 8; }));
  program.Signal(SIGINT);
  const auto ended = program.Wait(seconds(30));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 130);
  EXPECT_EQ(program.errors(),
            "vexa: Interrupted. Answered: vm-a. Sent but not answered yet: vm-b, vm-c, vm-d, vm-e, vm-f, "
            "vm-g, vm-h, vm-i. Not sent: vm-j.\n");
  EXPECT_EQ(program.output(), "vm-a: asked to shut down\n");
}

TEST_F(Power, Help_ExplainsTimeoutsAndWaiting) {
  for (const char* word : {"start", "stop", "kill"}) {
    EXPECT_THAT(Run({"guest", word, "--help"}).output,
                AllOf(HasSubstr("--wait"), HasSubstr("default 300"), HasSubstr("3600 s"), HasSubstr("Ctrl-C")));
  }
  EXPECT_THAT(
      Run({"guest", "restart", "--help"}).output,
      AllOf(HasSubstr("There is no --wait, because a guest that reboots keeps running."), Not(HasSubstr("--wait "))));
}

}  // namespace
}  // namespace vexa::test
