// vexa log: entries as lines, pages, following, and servers that answer badly or go away.
#include <signal.h>

#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;

// 2026-03-01 12:00:00 UTC and later, by seconds.
std::string Entry(int second, const std::string& text, int priority = 3) {
  return R"({"time_us":)" + std::to_string(1'772'366'400'000'000 + second * 1'000'000LL) +
         R"(,"host_id":"h1","host":"nas-1","user":"eve","priority":)" + std::to_string(priority) + R"(,"text":")" +
         text + "\"}";
}

std::string Page(const std::string& entries, const std::string& next = "") {
  return R"({"entries":[)" + entries + R"(],"next":")" + next + "\"}";
}

std::string Reply(const std::string& page) { return R"({"success":true,"data":)" + page + "}"; }

class Log : public CliTest {
 protected:
  ProcessOptions ProgramOn(const std::string& url, std::vector<std::string> arguments) {
    SaveLogin(url);
    arguments.insert(arguments.begin(), "log");
    ProcessOptions options = Program(std::move(arguments));
    options.environment["TZ"] = "UTC-1";  // an hour ahead of UTC
    return options;
  }
  ProcessResult RunOn(const ApiHost& host, std::vector<std::string> arguments) {
    return RunProcess(ProgramOn(host.url(), std::move(arguments)));
  }
};

TEST_F(Log, Log_Entries_AreLinesInLocalTimeNewestLast) {
  const ApiHost host([](const auto&, const auto&) {
    return ApiHost::Success(Page(Entry(2, "Powered on.", 1) + "," + Entry(1, "Deleted.") +
                                 R"(,{"time_us":"x","priority":7,"host_id":"h9","text":5},7,null)"));
  });
  const auto result = RunOn(host, {});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output,
            "- - - -: \n- - - -: \n- 7 h9 -: 5\n2026-03-01 13:00:01 success nas-1 eve: Deleted.\n"
            "2026-03-01 13:00:02 failure nas-1 eve: Powered on.\n");
  EXPECT_THAT(host.calls(), ElementsAre(R"(list {"limit":50})"));
}

TEST_F(Log, Log_ControlCharacters_AreEscaped) {
  const ApiHost host([](const auto&, const auto&) {
    return ApiHost::Success(
        Page(Entry(1, R"(a\u001b[31m\nb)") +
             R"(,{"time_us":0,"host":"\u001b]0;x","user":"\u202ex","priority":"\u0007","text":"\r"})"));
  });
  const auto result = RunOn(host, {});
  EXPECT_THAT(result.output, AllOf(HasSubstr("eve: a\\x1b[31m\\nb\n"), Not(HasSubstr("\x1b")), Not(HasSubstr("\x07")),
                                   Not(HasSubstr("\r")), Not(HasSubstr("\u202e"))));
}

TEST_F(Log, Log_Count_ReadsRequestedNumberInPages) {
  const ApiHost host([](const std::string&, const Json::Value& parameters) {
    std::string entries;
    for (int i = 0; i < parameters["limit"].asInt(); ++i) entries += (i == 0 ? "" : ",") + Entry(i, "x");
    return ApiHost::Success(Page(entries, "c" + parameters["cursor"].asString()));
  });
  const auto result = RunOn(host, {"-n", "2001"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(std::ranges::count(result.output, '\n'), 2001);
  EXPECT_THAT(host.calls(), ElementsAre(R"(list {"limit":1000})", R"(list {"cursor":"c","limit":1000})",
                                        R"(list {"cursor":"cc","limit":1})"));
  EXPECT_THAT(RunOn(host, {"-n", "0"}).output, IsEmpty());
  EXPECT_EQ(RunOn(host, {"-n", "-1"}).exit_code, 2);
  EXPECT_EQ(RunOn(host, {"-n", "1", "--all"}).exit_code, 2);
}

TEST_F(Log, Log_All_ShowsEveryPageOldestFirst) {
  const ApiHost host([](const std::string&, const Json::Value& parameters) {
    if (parameters["cursor"] == "older") return ApiHost::Success(Page(Entry(2, "b") + "," + Entry(1, "a")));
    return ApiHost::Success(Page(Entry(4, "d") + "," + Entry(3, "c"), "older"));
  });
  const auto result = RunOn(host, {"--all"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  std::string texts;
  for (std::size_t end = result.output.find('\n'); end != std::string::npos; end = result.output.find('\n', end + 1)) {
    texts += result.output[end - 1];
  }
  EXPECT_EQ(texts, "abcd") << result.output;
}

TEST_F(Log, Log_PagesNeverEnd_IsAnError) {
  const ApiHost host([](const auto&, const auto&) { return ApiHost::Success(Page(Entry(1, "a"), "again")); });
  const auto result = RunOn(host, {"--all"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("do not end"));
  EXPECT_THAT(result.output, IsEmpty());
}

TEST_F(Log, Log_Json_HasOneObjectPerLine) {
  const ApiHost host(
      [](const auto&, const auto&) { return ApiHost::Success(Page(Entry(2, "b\\u001b") + "," + Entry(1, "a"))); });
  const auto result = RunOn(host, {"--json"});
  const std::size_t end = result.output.find('\n');
  EXPECT_EQ(Parse(result.output.substr(0, end)), Parse(Entry(1, "a")));
  EXPECT_EQ(Parse(result.output.substr(end + 1)), Parse(Entry(2, "b\\u001b")));
  EXPECT_THAT(result.output, Not(HasSubstr("\x1b")));
}

TEST_F(Log, Reply_UnexpectedForm_IsAnError) {
  for (const char* data : {"{}", R"({"entries":{}})", "[]", "null", "7"}) {
    const std::string text = data;
    const ApiHost host([&](const auto&, const auto&) { return ApiHost::Success(text); });
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"-f"}, {"--all"}}) {
      const auto result = RunOn(host, arguments);
      EXPECT_EQ(result.exit_code, 1) << data;
      EXPECT_THAT(result.errors, HasSubstr("The server's reply contains no entries of the log"));
    }
  }
}

TEST_F(Log, Log_ServerMissingOrHangsUp_IsUnreachable) {
  const std::string nowhere = "http://127.0.0.1:" + std::to_string(UnusedPort());
  EXPECT_EQ(RunProcess(ProgramOn(nowhere, {})).exit_code, 3);
  EXPECT_EQ(RunProcess(ProgramOn(nowhere, {"-f"})).exit_code, 3) << "nothing has been followed yet";
  const ScriptedServer server({{"", ScriptedReply::Then::kReset}});
  EXPECT_EQ(RunProcess(ProgramOn(server.url(), {})).exit_code, 3);
}

TEST_F(Log, Log_Refused_EndsWithError) {
  const ApiHost host([](const auto&, const auto&) { return ApiHost::Failure(409, "You may not."); });
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"-f"}}) {
    const auto result = RunOn(host, arguments);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, StartsWith("vexa: You may not (409)."));
  }
}

// Following.

TEST_F(Log, Log_Follow_PrintsNewEntriesUntilCtrlC) {
  ApiHost host([](const std::string&, const Json::Value& parameters) {
    const Json::Int64 after = parameters["after"].asInt64() % 60'000'000 / 1'000'000;
    if (!parameters.isMember("after")) return ApiHost::Success(Page(Entry(2, "b") + "," + Entry(1, "a")));
    if (after == 2) return ApiHost::Success(Page(Entry(3, "c") + "," + Entry(4, "d")));
    return ApiHost::Success(Page(""));
  });
  Process program(ProgramOn(host.url(), {"-f"}));
  ASSERT_TRUE(program.WaitForText(": d\n", seconds(30))) << program.errors();
  ASSERT_TRUE(Eventually([&] { return host.calls().size() >= 4; }));
  EXPECT_EQ(host.calls()[1], R"(list {"after":1772366402000000,"limit":1000})");
  EXPECT_EQ(host.calls()[3], R"(list {"after":1772366404000000,"limit":1000})");
  program.Signal(SIGINT);
  const auto ended = program.Wait(seconds(30));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 0);
  EXPECT_EQ(std::ranges::count(program.output(), '\n'), 4) << program.output();
  EXPECT_EQ(program.errors(), "");
}

TEST_F(Log, Log_FollowWithoutOldEntries_StartsAfterNewest) {
  ApiHost host([](const std::string&, const Json::Value& parameters) {
    if (!parameters.isMember("after")) return ApiHost::Success(Page(Entry(2, "old")));
    return ApiHost::Success(Page(parameters["after"] == Json::Int64{1'772'366'402'000'000} ? Entry(3, "new") : ""));
  });
  Process program(ProgramOn(host.url(), {"-f", "-n", "0"}));
  ASSERT_TRUE(program.WaitForText(": new\n", seconds(30))) << program.errors();
  EXPECT_THAT(program.output(), Not(HasSubstr("old")));
  EXPECT_EQ(host.calls()[0], R"(list {"limit":1})");
}

// The position, not the time, which may be that of a clock that is behind.
TEST_F(Log, Log_Follow_ContinuesAfterThePosition) {
  ApiHost host([](const std::string&, const Json::Value& parameters) {
    if (!parameters.isMember("after")) return ApiHost::Success(Page(R"({"position":7,"time_us":100,"text":"a"})"));
    return ApiHost::Success(Page(parameters["after"] == 7 ? R"({"position":8,"time_us":50,"text":"b"})" : ""));
  });
  Process program(ProgramOn(host.url(), {"-f"}));
  ASSERT_TRUE(Eventually([&] { return host.calls().size() >= 3; }));
  EXPECT_EQ(host.calls()[1], R"(list {"after":7,"limit":1000})");
  EXPECT_EQ(host.calls()[2], R"(list {"after":8,"limit":1000})");
  ASSERT_TRUE(program.WaitForText(": b\n", seconds(30))) << program.errors();
}

TEST_F(Log, Log_RepeatedRefusal_HasItsCount) {
  const ApiHost host([](const auto&, const auto&) {
    return ApiHost::Success(Page(R"({"time_us":1772366402000000,"first_time_us":1772366400000000,"count":3,"host":"h",
                                     "user":"eve","priority":1,"text":"No."})"));
  });
  EXPECT_EQ(RunOn(host, {}).output, "2026-03-01 13:00:02 failure h eve: No. (3 times since 2026-03-01 13:00:00)\n");
}

TEST_F(Log, Log_CtrlCDuringRequest_EndsImmediately) {
  ApiHost host([](const std::string&, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
    if (parameters.isMember("after")) return std::nullopt;
    return ApiHost::Success(Page(""));
  });
  Process program(ProgramOn(host.url(), {"-f"}));
  ASSERT_TRUE(Eventually([&] { return host.held() == 1; }));
  program.Signal(SIGINT);
  const auto ended = program.Wait(seconds(30));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 0);
}

TEST_F(Log, Log_ServerRestarts_IsReportedOnceAndFollowContinues) {
  const std::string socket = folder_.File("s");
  auto server = std::make_unique<ScriptedServer>(
      std::vector<ScriptedReply>{HttpReplyOf(200, Reply(Page(Entry(1, "before")))), HttpReplyOf(200, Reply(Page("")))},
      socket);
  ProcessOptions options = Program({"--socket", socket, "log", "-f"});
  Process program(options);
  ASSERT_TRUE(program.WaitForText(": before\n", seconds(30))) << program.errors();
  server.reset();
  std::filesystem::remove(socket);
  ASSERT_TRUE(program.WaitForText("vexa: Still trying\n", seconds(30))) << program.errors();
  std::this_thread::sleep_for(seconds(2));  // while it asks in vain
  server =
      std::make_unique<ScriptedServer>(std::vector<ScriptedReply>{{"", ScriptedReply::Then::kReset},
                                                                  HttpReplyOf(503, "busy", "text/plain"),
                                                                  HttpReplyOf(200, Reply(Page(Entry(2, "behind")))),
                                                                  HttpReplyOf(200, Reply(Page("")))},
                                       socket);
  ASSERT_TRUE(program.WaitForText(": behind\n", seconds(30))) << program.errors();
  program.Signal(SIGINT);
  const auto ended = program.Wait(seconds(30));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 0);
  EXPECT_EQ(std::ranges::count(program.errors(), '\n'), 3) << program.errors();
  EXPECT_THAT(program.errors(),
              AllOf(StartsWith("vexa: No reply from "), HasSubstr("vexa: The server answers again\n")));
  EXPECT_THAT(server->requests().at(2), HasSubstr(R"({"after":1772366401000000,"limit":1000})"));
}

}  // namespace
}  // namespace vexa::test
