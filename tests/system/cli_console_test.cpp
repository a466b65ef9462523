// vexa guest console, viewer, screenshot and type against servers that answer well and badly. qemu_console_test has
// them against a real guest.
#include <sys/stat.h>

#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

// The name of the second one looks like an id.
constexpr const char* kOddName = "11111111-2222-4333-8444-555555555501";
const std::string kGuestList = std::string(R"({"guests":[{"guest_id":"g1","guest_name":"web-1"},
    {"guest_id":"g2","guest_name":")") +
                               kOddName + "\"}]}";

class ConsoleCommands : public CliTest {
 protected:
  static ApiHost::Answer With(const ApiHost::Reply& reply) {
    return [reply](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
      return method == "list" ? ApiHost::Success(kGuestList) : reply;
    };
  }
};

TEST_F(ConsoleCommands, Type_SendsTextAndEnter) {
  const ApiHost host(With(ApiHost::Success()));
  auto result = RunOn(host, {"guest", "type", "web-1", "ls -l"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Typed the text in 'web-1'.\n");
  EXPECT_EQ(RunOn(host, {"guest", "type", "web-1", "ls", "--enter"}).exit_code, 0);
  EXPECT_THAT(host.calls(), ElementsAre("list {}", R"(type {"guest_id":"g1","text":"ls -l"})", "list {}",
                                        R"(type {"guest_id":"g1","text":"ls\n"})"));
}

TEST_F(ConsoleCommands, Guest_NameLikeAnId_IsFoundAsName) {
  const ApiHost host(With(ApiHost::Success(R"({"png":"YWJj","pending":[]})")));
  EXPECT_EQ(RunOn(host, {"guest", "type", kOddName, "x"}).exit_code, 0);
  EXPECT_EQ(host.Last("type"), R"(type {"guest_id":"g2","text":"x"})");
  EXPECT_EQ(RunOn(host, {"guest", "screenshot", kOddName, folder_.File("a.png")}).exit_code, 0);
  EXPECT_EQ(host.Last("screenshot"), R"(screenshot {"guest_id":"g2"})");
  EXPECT_EQ(RunOn(host, {"guest", "apply", kOddName}).exit_code, 0);
  EXPECT_EQ(host.Last("apply"), R"(apply {"guest_id":"g2"})");
  EXPECT_EQ(RunOn(host, {"guest", "console", kOddName}).exit_code, 1);
  EXPECT_EQ(host.Last("console_ticket"), R"(console_ticket {"guest_id":"g2","type":"serial"})");
}

TEST_F(ConsoleCommands, Screenshot_IsWrittenForOwnerOnly) {
  const ApiHost host(With(ApiHost::Success(R"({"png":"YWJj"})")));
  const std::string file = folder_.File("web.png");
  const auto result = RunOn(host, {"guest", "screenshot", "web-1", file});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Wrote the screen of 'web-1' to '" + file + "'.\n");
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_EQ(status.st_size, 3);
}

TEST_F(ConsoleCommands, Screenshot_ReplyWithoutPicture_LeavesNoFile) {
  const std::string file = folder_.File("web.png");
  for (const char* data : {"null", "{}", R"({"png":""})", R"({"png":"not base64"})", R"({"png":7})"}) {
    const ApiHost host(With(ApiHost::Success(data)));
    const auto result = RunOn(host, {"guest", "screenshot", "web-1", file});
    EXPECT_EQ(result.exit_code, 1) << data;
    EXPECT_THAT(result.errors, HasSubstr("picture")) << data;
    struct stat status {};
    EXPECT_NE(::stat(file.c_str(), &status), 0) << data;
  }
}

TEST_F(ConsoleCommands, Refusal_HasReason) {
  const ApiHost host(
      With(ApiHost::Failure(409, "You may not act on this guest.", R"(,"reason":"It was not granted.")")));
  const std::string file = folder_.File("web.png");
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"guest", "console", "web-1"},
                                             {"guest", "viewer", "web-1"},
                                             {"guest", "screenshot", "web-1", file},
                                             {"guest", "type", "web-1", "x"}}) {
    const auto result = RunOn(host, arguments);
    EXPECT_EQ(result.exit_code, 1) << arguments[1];
    EXPECT_THAT(result.errors, HasSubstr("It was not granted.")) << arguments[1];
  }
}

}  // namespace
}  // namespace vexa::test
