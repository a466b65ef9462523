// The client against servers that answer well, badly, or not at all.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/base/guest_settings.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

using Then = ScriptedReply::Then;

constexpr const char* kGuest = "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55";

const std::string kGuestReply = R"({"success":true,"data":{
  "name":"web \u001b[31mred\u0007\u009b2J\u202e\n","repo_id":"r-1","vcpu_num":4,"vram_size":4194304,"video_card":"vga",
  "cpu_passthru":false,"vdisks":[
    {"vdisk_id":"d-1","size":"10240","lun_type":"blun","vdisk_mode":1,"is_dummy":false,"unmap":true,"is_meta_disk":false},
    {"vdisk_id":"d-2-long","size":"100","lun_type":"alun","vdisk_mode":2,"is_dummy":true,"unmap":false,"is_meta_disk":true}],
  "vnics":[{"vnic_id":"n-1","network_id":"net","prefer_sriov":false,"mac":"02:11:32:00:00:01","vnic_type":1}],
  "autorun":0,"is_ha_enabled":false,"desc":"日本","boot_from":"disk","use_ovmf":true,"usb_version":2,
  "usbs":["unmounted","unmounted",null,"1-2"],"kb_layout":"Default","cpu_pin_num":0,"cpu_weight":256,
  "hyperv_enlighten":true}})";

class Reply : public CliTest {
 protected:
  ProcessResult GetGuest(const ScriptedReply& reply, std::vector<std::string> more = {}) {
    const ScriptedServer server({reply});
    SaveLogin(server.url());
    std::vector<std::string> arguments{"guest", "get", kGuest};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
  }
};

TEST(ReplyText, Guest_EachScalarSetting_IsShown) {
  for (const GuestSetting& setting : kGuestSettings) {
    if (!setting.IsScalar()) continue;
    EXPECT_THAT(kGuestReply, HasSubstr("\"" + std::string(setting.name) + "\":"));
  }
}

TEST_F(Reply, Guest_HostileTexts_AreAlignedAndEscaped) {
  const auto result = GetGuest(HttpReplyOf(200, kGuestReply));
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, R"(Guest              6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55
Name               web \x1b[31mred\x07\u{9b}2J\u{202e}\n
Description        日本
Repository         r-1
Virtual CPUs       4
Pinned CPUs        0
CPU weight         256
CPU passthrough    no
Hyper-V features   yes
Memory             4 GiB
Video card         vga
Keyboard           Default
Boots from         disk
UEFI firmware      yes
Autorun            0
High availability  no
USB version        2
USB devices        unmounted, unmounted, -, 1-2

Virtual disks
DISK      SIZE     TYPE  MODE  DUMMY  UNMAP  META
d-1       10 GiB   blun  1     no     yes    no
d-2-long  100 MiB  alun  2     yes    no     yes

Network interfaces
INTERFACE  NETWORK  MAC                TYPE  SR-IOV
n-1        net      02:11:32:00:00:01  1     no
)");
}

TEST_F(Reply, GuestAsJson_IsTheDataInAscii) {
  const auto result = GetGuest(HttpReplyOf(200, kGuestReply), {"--json"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, AllOf(StartsWith("{\n"), HasSubstr(R"("web \u001b[31mred\u0007\u009b2J\u202e\n")"),
                                   HasSubstr("\"vcpu_num\" : 4")));
  for (const char c : result.output) ASSERT_TRUE((c >= ' ' && c <= '~') || c == '\n');
}

TEST_F(Reply, GuestId_UnusualCharacters_IsSentAsOneString) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"guests":[
                                   {"guest_id":"../\"x\",\"y\":1","guest_name":"web"}]}})"),
                               HttpReplyOf(400, R"({"success":false,"error":{"code":401,"message":"Bad"}})")});
  SaveLogin(server.url());
  EXPECT_EQ(Run({"guest", "get", "../\"x\",\"y\":1"}).exit_code, 1);
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_THAT(server.requests()[1], AllOf(StartsWith("POST /webapi/VEXA.Virtualization.Guest/get HTTP/1.1\r\n"),
                                          HasSubstr("\r\n\r\n{\"guest_id\":\"../\\\"x\\\",\\\"y\\\":1\"}")));
  EXPECT_EQ(Run({"guest", "get", ""}).exit_code, 2);
  EXPECT_EQ(Run({"guest", "get", "\xff"}).exit_code, 2);
}

TEST_F(Reply, GuestByName_IsLookedUp) {
  const ScriptedServer server(
      {HttpReplyOf(200, std::string(R"({"success":true,"data":{"guests":[{"guest_name":"web","guest_id":")") + kGuest +
                            R"("}]}})"),
       HttpReplyOf(200, kGuestReply)});
  SaveLogin(server.url());
  const auto result = Run({"guest", "get", "web"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, StartsWith(std::string("Guest              ") + kGuest + "\n"));
  // The ones between them are for the names of the repository and the network, the last one for what waits for its next
  // start.
  ASSERT_THAT(server.requests(), SizeIs(5));
  for (const auto& [request, method] : {std::pair(1, "get"), std::pair(4, "status")}) {
    EXPECT_THAT(server.requests()[request],
                AllOf(StartsWith(std::string("POST /webapi/VEXA.Virtualization.Guest/") + method + " "),
                      HasSubstr(std::string("{\"guest_id\":\"") + kGuest + "\"}")));
  }
}

TEST_F(Reply, Guest_IdsOfOtherObjects_AreShownAsNames) {
  const std::string image = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
  const std::vector<ScriptedReply> replies{
      HttpReplyOf(200, R"({"success":true,"data":{"name":"web","repo_id":"r-1","iso_images":[")" + image +
                           R"(","unmounted"],"vdisks":[],"vnics":[{"vnic_id":"n-1","network_id":"net"},)"
                           R"({"vnic_id":"n-2","network_id":"","mac":"m2"},{"vnic_id":"n-3","mac":"m3"},7]}})"),
      HttpReplyOf(200, R"({"success":true,"data":{"repositories":[{"repository_id":"r-1","name":"pool"}]}})"),
      HttpReplyOf(200, R"({"success":true,"data":{"networks":[{"network_id":"net","name":"l\u001ban"}]}})"),
      HttpReplyOf(200, R"({"success":true,"data":{"images":[{"image_id":")" + image + R"(","name":"debian"}]}})")};
  const auto show = [&](std::vector<std::string> words) {
    const ScriptedServer server(replies);
    SaveLogin(server.url());
    words.insert(words.begin(), {"guest", "get", kGuest});
    return Run(std::move(words)).output;
  };
  EXPECT_THAT(show({}), AllOf(::testing::ContainsRegex("\nRepository +pool\n"), HasSubstr("  debian, unmounted\n"),
                              ::testing::ContainsRegex("\nn-1 +l\\\\x1ban"), ::testing::ContainsRegex("\nn-2 +m2"),
                              ::testing::ContainsRegex("\nn-3 +m3")));
  EXPECT_THAT(show({"--ids"}),
              AllOf(::testing::ContainsRegex("\nRepository +r-1\n"), HasSubstr("  " + image + ", unmounted\n"),
                    ::testing::ContainsRegex("\nn-1 +net")));
}

TEST_F(Reply, GuestByName_Unknown_IsReportedWithTheCommandThatListsThem) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"guests":[]}})")});
  SaveLogin(server.url());
  for (const char* command : {"get", "info"}) {
    const auto result = Run({"guest", command, "web"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, "vexa: There is no guest called 'web'; see 'vexa guest list'\n");
  }
}

TEST_F(Reply, Guest_WrongTypesEverywhere_AreShownAsEmpty) {
  for (const char* wrong :
       {"null", "[]", "{}", "-1", "1e300", "18446744073709551615", "\"\"", "[[{}]]", "true", "{\"a\":[]}"}) {
    std::string data = "{";
    const auto add = [&](const char* name) { data += std::string("\"") + name + "\":" + wrong + ","; };
    for (const GuestSetting& setting : kGuestSettings) add(setting.name);
    for (const char* name : {"vdisks", "vnics", "is_ha_enabled"}) add(name);
    data += std::string("\"is_general_vm\":") + wrong + "}";
    const auto whole = GetGuest(HttpReplyOf(200, R"({"success":true,"data":)" + data + "}"));
    EXPECT_EQ(whole.exit_code, 0) << wrong << whole.errors;
    const std::string lists = R"({"success":true,"data":{"vdisks":[)" + std::string(wrong) + ",{\"size\":" + wrong +
                              R"(}],"vnics":[)" + wrong + ",{\"mac\":" + wrong + "}]}}";
    EXPECT_EQ(GetGuest(HttpReplyOf(200, lists)).exit_code, 0) << wrong;
    const std::string no_guest = R"({"success":true,"data":)" + std::string(wrong) + "}";
    EXPECT_EQ(GetGuest(HttpReplyOf(200, no_guest)).exit_code, *wrong == '{' ? 0 : 1) << wrong;
    const std::string error = R"({"success":false,"request_id":)" + std::string(wrong) + R"(,"error":{"code":)" +
                              wrong + R"(,"message":)" + wrong + R"(,"details":)" + wrong + "}}";
    const auto failed = GetGuest(HttpReplyOf(500, error));
    EXPECT_EQ(failed.exit_code, 1) << wrong;
    EXPECT_THAT(failed.errors, StartsWith("vexa: ")) << wrong;
    EXPECT_EQ(GetGuest(HttpReplyOf(500, R"({"success":false,"error":)" + std::string(wrong) + "}")).exit_code, 1)
        << wrong;
  }
}

TEST_F(Reply, Guest_ThousandsOfDisksWithLongNames_StayReadable) {
  std::string disks;
  for (int i = 0; i < 5000; ++i) {
    disks += (i ? ",{" : "{") + std::string("\"vdisk_id\":\"") + std::string(i == 0 ? 100'000 : 10, 'x') + "\"}";
  }
  const auto result = GetGuest(HttpReplyOf(200, R"({"success":true,"data":{"vdisks":[)" + disks + "]}}"));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, HasSubstr("… and 4000 more (see --json)"));
  EXPECT_LT(result.output.size(), 1'000'000U);
}

TEST_F(Reply, Reply_Refusal_ShowsReasonCodeAndRequest) {
  const auto result = GetGuest(HttpReplyOf(
      404, R"({"success":false,"error":{"code":403,"message":"No\u001b]0;x\u0007 such guest","details":{"a":"\u001b"}},
               "request_id":"0123456789abcdef"})"));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_EQ(result.errors,
            "vexa: No\\x1b]0;x\\x07 such guest (403).\n"
            "  Details: {\"a\":\"\\u001b\"}\n");
}

TEST_F(Reply, Reply_SessionExpired_SuggestsLogin) {
  const auto result =
      GetGuest(HttpReplyOf(401, R"({"success":false,"error":{"code":103,"message":"You are not logged in"}})"));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("Run 'vexa login'."));
  const auto by_proxy = GetGuest(HttpReplyOf(401, "<html>Unauthorized</html>", "text/html"));
  EXPECT_EQ(by_proxy.exit_code, 1);
  EXPECT_THAT(by_proxy.errors, HasSubstr("Run 'vexa login'."));
}

TEST_F(Reply, Reply_NoAccountOnUnixSocket_SuggestsLoginOrRoot) {
  const ScriptedServer server(
      {HttpReplyOf(401, R"({"success":false,"error":{"code":103,"message":"You are not logged in"}})")},
      folder_.File("s"));
  const auto result = Run({"guest", "list", "--socket", folder_.File("s")});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors,
              HasSubstr("\n  Hint: Your system account is not a user of the server. Run 'vexa login', or this "
                        "command as root.\n"));
}

TEST_F(Reply, Token_EchoedByServer_IsNotShown) {
  const std::string echo = std::string("Authorization: Bearer ") + kToken;
  const auto result = GetGuest(HttpReplyOf(
      400, R"({"success":false,"error":{"code":101,"message":")" + echo + R"(","details":[")" + echo + "\"]}}"));
  EXPECT_THAT(result.errors, HasSubstr("Bearer ***"));  // CliTest::Run looks for the token itself
}

TEST_F(Reply, Verbose_PrintsRequestAndStatusWithoutSecrets) {
  const auto result = GetGuest(HttpReplyOf(200, kGuestReply), {"-v"});
  EXPECT_THAT(result.errors, AllOf(HasSubstr("/webapi/VEXA.Virtualization.Guest/get"), HasSubstr("HTTP 200"),
                                   Not(HasSubstr("Bearer"))));
}

struct BadReply {
  const char* name;
  ScriptedReply reply;
  int exit_code;
  const char* error;
};

void PrintTo(const BadReply& row, std::ostream* out) { *out << row.name; }

class BadReplies : public Reply, public ::testing::WithParamInterface<BadReply> {};

TEST_P(BadReplies, Guest_FailsWithOneLineAndNoOutput) {
  const auto result = GetGuest(GetParam().reply, {"--timeout", "2"});
  EXPECT_EQ(result.exit_code, GetParam().exit_code) << result.errors;
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_THAT(result.errors, AllOf(StartsWith("vexa: "), HasSubstr(GetParam().error)));
  EXPECT_LT(result.errors.size(), 500U);
}

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n";

INSTANTIATE_TEST_SUITE_P(
    All, BadReplies,
    ::testing::Values(
        BadReply{"Garbage", {"\x01\x02\xff garbage\r\n\r\n"}, 3, "No reply from"},
        BadReply{"OlderHttp", {"just text"}, 3, "No reply from"}, BadReply{"Nothing", {""}, 3, "No reply from"},
        BadReply{"Reset", {"", Then::kReset}, 3, "No reply from"},
        // Until the first empty line libcurl takes the end of the connection for the end of an empty reply.
        BadReply{"HangsUpInTheHeader", {"HTTP/1.1 200 OK\r\nConte"}, 1, "it is empty"},
        BadReply{"HangsUpInTheBody", {kOk + R"({"success":true,)"}, 3, "No reply from"},
        BadReply{"ResetsInTheBody", {kOk + R"({"success":true,)", Then::kReset}, 3, "No reply from"},
        BadReply{"StallsImmediately", {"", Then::kStall}, 3, "No reply from"},
        BadReply{"StallsInTheBody", {kOk + R"({"success":true,)", Then::kStall}, 3, "No reply from"},
        BadReply{"Html", HttpReplyOf(502, "<html>Bad gateway</html>", "text/html"), 1,
                 "(HTTP 502) cannot be understood"},
        BadReply{"Empty", HttpReplyOf(200, ""), 1, "it is empty"},
        BadReply{"NotUtf8", HttpReplyOf(200, "{\"success\":true,\"data\":\"\xff\"}"), 1, "it is not JSON"},
        BadReply{"TooDeep", HttpReplyOf(200, std::string(100'000, '[')), 1, "it is not JSON"},
        BadReply{"TrailingText", HttpReplyOf(200, R"({"success":true,"data":{}} x)"), 1, "it is not JSON"},
        BadReply{"Array", HttpReplyOf(200, "[]"), 1, "whether the request succeeded"},
        BadReply{"SuccessIsText", HttpReplyOf(200, R"({"success":"true","data":{}})"), 1,
                 "whether the request succeeded"},
        BadReply{"SuccessWithFailure", HttpReplyOf(500, R"({"success":true,"data":{}})"), 1, "reports success"},
        BadReply{"FailureWithSuccess", HttpReplyOf(200, R"({"success":false,"error":{}})"), 1, "reports failure"},
        BadReply{"NoReason", HttpReplyOf(500, R"({"success":false})"), 1, "refused without a reason"},
        BadReply{"NoData", HttpReplyOf(200, R"({"success":true})"), 1, "contains no guest"},
        BadReply{"TooLarge", HttpReplyOf(200, std::string(20 << 20, ' ')), 1, "larger than 16 MiB"},
        BadReply{
            "Endless", {"HTTP/1.1 200 OK\r\n\r\n" + std::string(20 << 20, ' '), Then::kStall}, 1, "larger than 16 MiB"},
        BadReply{
            "LongHeader", {"HTTP/1.1 200 OK\r\nX: " + std::string(2 << 20, 'x') + "\r\n\r\n"}, 3, "No reply from"}),
    [](const auto& row) { return row.param.name; });

TEST_F(Reply, Redirect_IsNotFollowed) {
  const ScriptedServer elsewhere({HttpReplyOf(200, kGuestReply)});
  const auto result =
      GetGuest({"HTTP/1.1 307 Elsewhere\r\nLocation: " + elsewhere.url() + "/\r\nContent-Length: 0\r\n\r\n"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("HTTP 307"));
  EXPECT_THAT(elsewhere.requests(), IsEmpty());
}

TEST_F(Reply, Reply_NoListener_IsUnreachable) {
  SaveLogin("http://127.0.0.1:1");
  const auto result = Run({"guest", "get", kGuest});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_EQ(
      result.errors,
      "vexa: No reply from http://127.0.0.1:1: nothing listens on its port 1. Check the port, and that vexad runs "
      "there with the setting 'listen'\n");
}

// The message named "localhost port 80", as libcurl does.
TEST_F(Reply, UnixSocket_NoListener_IsNamedWithTheReason) {
  const std::string missing = folder_.File("none.sock");
  const auto nowhere = Run({"guest", "get", kGuest, "--socket", missing});
  EXPECT_EQ(nowhere.exit_code, 3);
  EXPECT_EQ(nowhere.errors, "vexa: No reply from " + missing +
                                ": the socket does not exist, so no vexad runs here. Start it with 'sudo systemctl "
                                "start vexad', or name a server with --server, --socket, $VEXA_SERVER or "
                                "$VEXA_SOCKET\n");

  const std::string left = folder_.File("left.sock");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(left.size(), sizeof address.sun_path);
  left.copy(address.sun_path, left.size());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(listener);
  const auto closed = Run({"guest", "get", kGuest, "--socket", left});
  EXPECT_EQ(closed.exit_code, 3);
  EXPECT_EQ(closed.errors, "vexa: No reply from " + left +
                               ": vexad has ended. Start it with 'sudo systemctl start vexad'; "
                               "'journalctl -u vexad' shows why it ended\n");
}

TEST_F(Reply, UnixSocket_OrdinaryFile_IsReported) {
  const std::string file = folder_.File("file");
  WriteFile(file, "");
  EXPECT_EQ(Run({"health", "--socket", file}).errors,
            "vexa: No reply from " + file +
                ": the file is not a socket. Name the socket of vexad with --socket or $VEXA_SOCKET\n");
}

TEST_F(Reply, UnixSocket_NotPermitted_NamesTheAccountAndTheGroup) {
  const std::string socket = folder_.File("closed.sock");
  const ScriptedServer server({HttpReplyOf(200, "{}")}, socket);
  const auto failure_of = [&](mode_t mode) {
    std::filesystem::permissions(folder_.path(), std::filesystem::perms(0711));
    EXPECT_EQ(::chmod(socket.c_str(), mode), 0);
    EXPECT_EQ(::chown(socket.c_str(), 0, 0), 0);
    ProcessOptions program = Program({"health", "--socket", socket});
    program.argv.insert(program.argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    const auto result = RunProcess(program);
    EXPECT_EQ(result.exit_code, 3);
    return result.errors;
  };
  if (::geteuid() != 0) GTEST_SKIP() << "Only root can run the client as another account";
  const std::string start =
      "vexa: No reply from " + socket + ": the account 'nobody' may not open the socket. Run the command with sudo";
  EXPECT_EQ(failure_of(0660), start + ", or as a member of the group 'root'\n");
  EXPECT_EQ(failure_of(0600), start + "\n");
}

TEST_F(Reply, Reply_UnknownHost_IsReportedWithItsName) {
  const auto result = Run({"health", "--server", "http://nas.invalid:8443"});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_EQ(result.errors,
            "vexa: No reply from http://nas.invalid:8443: the name 'nas.invalid' is unknown to this machine. Check its "
            "spelling, or use the address\n");
}

TEST_F(Reply, Reply_OtherServer_IsReportedAsNotVexa) {
  const ScriptedServer page({HttpReplyOf(200, "<html>It works</html>", "text/html")});
  const std::string hint = "What answers at " + page.url() + " may not be VEXA. Check the server's name and port.\n";
  const auto health = Run({"health", "--server", page.url()});
  EXPECT_EQ(health.exit_code, 1);
  EXPECT_EQ(health.errors, "vexa: The reply is not the health report of a server: " + hint);
  EXPECT_EQ(Run({"whoami", "--server", page.url()}).errors,
            "vexa: The server's reply (HTTP 200) cannot be understood: it is not JSON\n" + hint);
  const ScriptedServer mail({{"220 mail ESMTP\r\n"}});
  EXPECT_THAT(Run({"whoami", "--server", mail.url()}).errors, HasSubstr(": what answers there is not VEXA ("));
  const ScriptedServer silent({{""}});
  EXPECT_THAT(
      Run({"whoami", "--server", silent.url()}).errors,
      HasSubstr(": the connection was closed without a reply. Check the port, and whether the server needs https\n"));
}

TEST_F(Reply, Output_CannotBeWritten_Fails) {
  const ScriptedServer server({HttpReplyOf(200, kGuestReply)});
  SaveLogin(server.url());
  ProcessOptions program = Program({});
  program.argv = {"sh", "-c", std::string("exec \"$0\" guest get \"$1\" >/dev/full"), VEXA_PROGRAM, kGuest};
  const auto result = RunProcess(program);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("Cannot write"));
}

}  // namespace
}  // namespace vexa::test
