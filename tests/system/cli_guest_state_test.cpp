// vexa guest list and vexa guest status against servers that answer well and badly.
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

const std::string kGuests = R"({"success":true,"data":{"guests":[
  {"guest_id":"8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8","guest_name":"web","host_id":"h1","status":"running",
   "status_type":"healthy"},
  {"guest_id":"g2","guest_name":"tw\u001b[31min","host_id":"","status":"shutdown","status_type":"error"},
  {"guest_id":"g3","guest_name":"twin"},{"guest_id":"g4","guest_name":"twin"}, 7, null]}})";

const std::string kOne = R"({"success":true,"data":{"guest_id":"8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8",
  "guest_name":"web","host_id":"h1","status":"shutdown","status_type":"warning","status_reason":"shutdown_repo_full",
  "ha":{"status":"warning","status_type":"warning","status_reason":"ha_warn_host_short_ram","hosts":[
    {"host_id":"h1","host_name":"one","ha_host_status_type":"warning"}]}}})";

class GuestState : public CliTest {
 protected:
  ProcessResult RunInUtc(const ScriptedServer& server, std::vector<std::string> arguments) {
    SaveLogin(server.url());
    ProcessOptions options = Program(std::move(arguments));
    options.environment["TZ"] = "UTC";
    return RunProcess(options);
  }
};

TEST_F(GuestState, List_HostileTexts_AreSafeForTerminal) {
  const ScriptedServer server({HttpReplyOf(200, kGuests)});
  const auto result = RunOn(server, {"guest", "list"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(StartsWith("NAME "), HasSubstr("\nweb           running   healthy   h1\n"),
                                   HasSubstr("\ntw\\x1b[31min  shutdown  error"), Not(HasSubstr("\x1b"))));
  EXPECT_THAT(RunOn(server, {"guest", "list", "--ids"}).output,
              AllOf(StartsWith("GUEST "), HasSubstr("8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8  web")));
}

TEST_F(GuestState, List_HostGone_ShowsTimeAndAges) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"guests":[
    {"guest_id":"g1","guest_name":"web","host_id":"h1","status":"running","status_type":"healthy","age_s":3},
    {"guest_id":"g2","guest_name":"db","host_id":"h2","status":"inaccessible","status_type":"error","age_s":7300,
     "inaccessible_since":1000000000},
    {"guest_id":"g3","guest_name":"off","host_id":"h2","status":"shutdown","status_type":"healthy","age_s":200,
     "inaccessible_since":1000000000}]}})")});
  const auto result = RunInUtc(server, {"guest", "list"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("\nweb   running  "));
  EXPECT_THAT(result.output, HasSubstr("  healthy   h1    3 s\n"));
  EXPECT_THAT(result.output, HasSubstr("inaccessible since 2001-09-09 01:46:40  "));
  EXPECT_THAT(result.output, HasSubstr("h2    2 h\n"));
  EXPECT_THAT(result.output,
              HasSubstr("shutdown (host inaccessible since 2001-09-09 01:46:40)  healthy   h2    3 min\n"));
  const ScriptedServer status({HttpReplyOf(200, R"({"success":true,"data":{"guest_id":"g2","guest_name":"db",
    "host_id":"h2","status":"inaccessible","status_type":"error","age_s":7300,"inaccessible_since":1000000000}})")});
  const auto one = RunInUtc(status, {"guest", "status", "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"});
  EXPECT_THAT(one.output, HasSubstr("State     inaccessible since 2001-09-09 01:46:40\n"));
  EXPECT_THAT(one.output, HasSubstr("As of     2 h ago\n"));
}

TEST_F(GuestState, Status_SomethingWaits_PrintsBothValuesOrWhyUnknown) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"guest_id":"g1","guest_name":"web",
    "host_id":"h1","status":"running","status_type":"healthy",
    "pending":[{"property":"vcpu_num","running":2,"recorded":4}]}})")});
  const auto waits = RunInUtc(server, {"guest", "status", "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"});
  EXPECT_THAT(waits.output, HasSubstr("\nWaiting for the next start\nPROPERTY  ID  NOW  NEXT\nvcpu_num      2    4\n"));
  const ScriptedServer silent({HttpReplyOf(200, R"({"success":true,"data":{"guest_id":"g1","guest_name":"web",
    "host_id":"h1","status":"running","status_type":"healthy","pending_reason":"no\u001bbody answers"}})")});
  const auto unknown = RunInUtc(silent, {"guest", "status", "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"});
  EXPECT_THAT(unknown.output, HasSubstr("\nWaiting for the next start\nunknown: no\\x1bbody answers\n"));
}

TEST_F(GuestState, Status_Notes_ArePrinted) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"guest_id":"g1","guest_name":"web",
    "host_id":"h1","status":"running","status_type":"healthy","notes":["It has\u001bno function","And no more"]}})")});
  const auto result = RunOn(server, {"guest", "status", "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("\nNotes\nIt has\\x1bno function\nAnd no more\n"));
}

TEST_F(GuestState, Status_Name_RequestsIdOfThatGuest) {
  const ScriptedServer server({HttpReplyOf(200, kGuests), HttpReplyOf(200, kOne)});
  const auto result = RunOn(server, {"guest", "status", "web"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, R"(Name               web
Host               h1
State              shutdown
Severity           warning (shutdown_repo_full)
High availability  warning
HA severity        warning (ha_warn_host_short_ram)

Hosts of its group
NAME  STATE
one   warning
)");
  ASSERT_EQ(server.requests().size(), 3u);  // the last one is for the host's name
  EXPECT_THAT(server.requests()[1], HasSubstr(R"({"guest_id":"8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"})"));
}

TEST_F(GuestState, Status_GuestOff_ShowsDisksAndReason) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{
    "guest_id":"8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8","guest_name":"web","host_id":"h1","status":"shutdown",
    "status_type":"healthy","status_reason":"","shutdown":{"reason":"powered_off","forced":true},"disks":[
      {"vdisk_id":"d1","name":"boot","status":"online","status_type":"healthy"},
      {"vdisk_id":"d2","name":"","status":"missing","status_type":"error"}]}})")});
  const auto result = RunOn(server, {"guest", "status", "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, R"(Name         web
Host         h1
State        shutdown
Severity     healthy
Off because  powered_off

Disks
DISK  NAME  STATE    SEVERITY
d1    boot  online   healthy
d2          missing  error
)");
}

TEST_F(GuestState, Status_NameLooksLikeAnId_IsFound) {
  const std::string name = "11111111-2222-4333-8444-555555555555";
  const ScriptedServer server(
      {HttpReplyOf(404, R"({"success":false,"error":{"code":403,"message":"No such guest"}})"),
       HttpReplyOf(200, R"({"success":true,"data":{"guests":[{"guest_id":"g7","guest_name":")" + name + R"("}]}})"),
       HttpReplyOf(200, kOne)});
  const auto result = RunOn(server, {"guest", "status", name, "--json"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  ASSERT_EQ(server.requests().size(), 3u);
  EXPECT_THAT(server.requests()[0], HasSubstr(R"({"guest_id":")" + name));
  EXPECT_THAT(server.requests()[2], HasSubstr(R"({"guest_id":"g7"})"));
}

TEST_F(GuestState, Status_Id_MakesOneCall) {
  const ScriptedServer server({HttpReplyOf(200, kOne)});
  const auto result = RunOn(server, {"guest", "status", "8D24e9b0-17f5-4c6a-b3de-0f9a6c5271e8", "--json"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("\"shutdown_repo_full\""));
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(GuestState, Status_UnknownOrAmbiguousName_IsRefused) {
  for (const auto& [name, message] : {std::pair("nobody", "There is no guest called 'nobody'; see 'vexa guest list'"),
                                      std::pair("twin", "Several guests are called 'twin'. Use one of the ids")}) {
    const ScriptedServer server({HttpReplyOf(200, kGuests)});
    const auto result = RunOn(server, {"guest", "status", name});
    ExpectFailed(result, message);
  }
}

TEST_F(GuestState, Reply_UnexpectedForm_IsAnError) {
  for (const char* reply : {R"({"success":true,"data":{}})", R"({"success":true,"data":{"guests":{}}})",
                            R"({"success":true,"data":[]})", R"({"success":true,"data":null})"}) {
    const ScriptedServer server({HttpReplyOf(200, reply)});
    const auto result = RunOn(server, {"guest", "list"});
    EXPECT_EQ(result.exit_code, 1) << reply;
    EXPECT_THAT(result.errors, HasSubstr("The server's reply contains no guests"));
  }
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":7})")});
  const auto result = RunOn(server, {"guest", "status", "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("The server's reply contains no guest"));
}

TEST_F(GuestState, Status_Refusals_ShowTheirCode) {
  const ScriptedServer server({HttpReplyOf(403, R"({"success":false,"error":{"code":409}})")});
  const auto result = RunOn(server, {"guest", "status", "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("409"));
}

}  // namespace
}  // namespace vexa::test
