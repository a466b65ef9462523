// What a host reports about a guest, its repository and its tasks.
#include <fstream>

#include "tests/unit/webapi/host_fixture.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaVirtualization::CheckGuestRepoCap;
using VexaVirtualization::ClearPollTaskOnHost;
using VexaVirtualization::Guest;
using VexaVirtualization::VMCHECK;

constexpr auto kUntouched = static_cast<VMCHECK>(-77);

// The number in "utils:<number> <rest>", when `rest` is what follows it; else 0.
int Position(const std::string& line, const std::string& rest) {
  constexpr std::string_view kUnit = "utils:";
  const std::size_t space = line.find(' ');
  if (!line.starts_with(kUnit) || space == std::string::npos || line.substr(space + 1) != rest) return 0;
  return std::stoi(line.substr(kUnit.size(), space - kUnit.size()));
}

std::string SourceLine(int number) {
  std::ifstream source(VEXA_SOURCE_DIR "/webapi/utils/checks.cpp");
  std::string line;
  for (int i = 0; i < number; ++i) std::getline(source, line);
  return line;
}

class HostChecks : public HostLibrary {
 protected:
  // One line at the place in the source that writes it.
  static int ExpectRealLine(const std::string& text) {
    const auto lines = CapturedSyslog();
    EXPECT_EQ(lines.size(), 1u);
    if (lines.size() != 1) return 0;
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    const int position = Position(lines[0].text, text);
    EXPECT_NE(position, 0) << lines[0].text;
    EXPECT_NE(SourceLine(position).find("LogBadResponse"), std::string::npos) << position;
    return position;
  }
  VMCHECK check_ = kUntouched;
};

TEST_F(HostChecks, RepositoryCheck_ReturnsUsableOrFailedCheck) {
  const std::pair<const char*, int> rows[] = {
      {R"({"repo_usable":true})", 100},
      {R"({"repo_usable":true,"failed_check":311})", 100},
      {R"({"repo_usable":1})", 100},
      {R"({"repo_usable":false,"failed_check":311})", 311},
      {R"({"repo_usable":false,"failed_check":123456789})", 123456789},
      {R"({"repo_usable":false,"failed_check":-1})", -1},
      {R"({"repo_usable":false})", 0},
      {R"({"repo_usable":null,"failed_check":5})", 5},
      {R"({"repo_usable":"true","failed_check":"5"})", 0},
      {R"({"repo_usable":[true],"failed_check":[5]})", 0},
  };
  for (const auto& [data, expected] : rows) {
    ResetPlatform();
    Platform().replies["local"] = Success(data);
    check_ = kUntouched;
    EXPECT_EQ(CheckGuestRepoCap("g", check_), 0) << data;
    EXPECT_EQ(static_cast<int>(check_), expected) << data;
    ExpectSent("local", R"({"api":"VEXA.CCC.Guest","version":1,"method":"check_repo_cap","guest_id":"g"})");
  }
  ExpectNoLine();
}

TEST_F(HostChecks, RepositoryCheck_Fails_KeepsCheckAndReturnsCode) {
  const std::pair<Json::Value, int> rows[] = {
      {Failure(507), 407},    {Failure(102), 404},
      {Failure(407), 404},    {Success("{}"), 404},
      {Success("[]"), 404},   {Success(R"("repo_usable")"), 404},
      {Success("null"), 404}, {Json::Value(), 404},
      {Parsed("[507]"), 404}, {Parsed(R"({"error":{"code":507}})"), 407},
  };
  for (const auto& [reply, expected] : rows) {
    ClearCapturedSyslog();
    Platform().replies["local"] = reply;
    EXPECT_EQ(CheckGuestRepoCap("g", check_), expected) << Text(reply);
    EXPECT_EQ(check_, kUntouched);
    (void)ExpectRealLine("Bad response [" + Text(reply) + "]/ request [" +
                         R"({"api":"VEXA.CCC.Guest","guest_id":"g","method":"check_repo_cap","version":1}])");
  }
}

TEST_F(HostChecks, ClearPollTask_Host_IsCalledWithoutData) {
  Platform().replies["h"] = Parsed(R"({"success":true})");
  EXPECT_EQ(ClearPollTaskOnHost("h", "task"), 0);
  ExpectSent("h", R"({"api":"VEXA.Virtualization.Cluster","version":1,"method":"clear_poll_task","task_id":"task"})");
  ExpectNoLine();
}

TEST_F(HostChecks, ClearPollTask_Fails_IsMinusOneAndLogged) {
  Platform().replies["h"] = Failure(507);
  EXPECT_EQ(ClearPollTaskOnHost("h", "task"), -1);
  const int position = ExpectRealLine(
      R"(Bad response [{"error":{"code":507},"success":false}]/ request [)"
      R"({"api":"VEXA.Virtualization.Cluster","method":"clear_poll_task","task_id":"task","version":1}])");
  ClearCapturedSyslog();
  Platform().replies["local"] = Failure(507);
  (void)CheckGuestRepoCap("g", check_);
  ASSERT_EQ(CapturedSyslog().size(), 1u);
  EXPECT_FALSE(CapturedSyslog()[0].text.starts_with("utils:" + std::to_string(position) + " "));
}

class GuestInformation : public HostLibrary {
 protected:
  static Json::Value Record(const char* state) {
    Json::Value record(Json::objectValue);
    record[VexaCCC::DB::_k::host_id] = "h";
    record[VexaCCC::DB::_k::state] = state;
    return record;
  }
  const Json::Value running_ = Record(VexaCCC::State::Guest::running);
  Json::Value info_;
};

constexpr const char* kDefaults = R"({"has_agent":false,"ip":[],"uptime":"0"})";

TEST_F(GuestInformation, RunningGuest_ItsHost_ReportsIt) {
  Platform().replies["h"] = Success(R"({"ip":["10.0.0.1"],"uptime":3600,"has_agent":true,"more":1})");
  info_ = Parsed(R"({"name":"web","ip":"old"})");
  EXPECT_TRUE(Guest::GetInformation("g", running_, info_));
  EXPECT_EQ(Text(info_), R"({"has_agent":true,"ip":["10.0.0.1"],"name":"web","uptime":"3600"})");
  ExpectSent("h", R"({"api":"VEXA.CCC.Guest","version":1,"method":"get_info","guest_id":"g"})");
  ExpectNoLine();
}

TEST_F(GuestInformation, Uptime_IsJsonText) {
  const std::pair<const char*, const char*> rows[] = {
      {"0", "0"},       {"-5", "-5"},
      {"2.5", "2.5"},   {R"("3600")", R"("3600")"},
      {"null", "null"}, {R"([1,"a"])", R"([1,"a"])"},
      {"true", "true"}, {"18446744073709551615", "18446744073709551615"},
  };
  for (const auto& [uptime, expected] : rows) {
    Platform().replies["h"] = Success(std::string(R"({"uptime":)") + uptime + "}");
    EXPECT_TRUE(Guest::GetInformation("g", running_, info_));
    ASSERT_TRUE(info_["uptime"].isString());
    EXPECT_EQ(info_["uptime"].asString(), expected);
    EXPECT_EQ(Text(info_["ip"]), "[]");
    EXPECT_EQ(info_["has_agent"], false);
  }
}

TEST_F(GuestInformation, GuestInfo_ReplyWithoutFields_HasDefaults) {
  for (const char* reply : {R"({"success":true})", R"({"success":true,"data":{}})", R"({"success":true,"data":[1]})"}) {
    Platform().replies["h"] = Parsed(reply);
    info_ = Json::Value();
    EXPECT_TRUE(Guest::GetInformation("g", running_, info_));
    EXPECT_EQ(Text(info_), kDefaults);
  }
}

TEST_F(GuestInformation, GuestInfo_ReplyFields_AreCopiedUnchanged) {
  Platform().replies["h"] = Success(R"({"ip":null,"has_agent":"yes"})");
  EXPECT_TRUE(Guest::GetInformation("g", running_, info_));
  EXPECT_EQ(Text(info_), R"({"has_agent":"yes","ip":null,"uptime":"0"})");
}

TEST_F(GuestInformation, GuestInfo_GuestOff_CallsNoHost) {
  namespace state = VexaCCC::State;
  Platform().replies["h"] = Success(R"({"ip":["10.0.0.1"],"uptime":3600,"has_agent":true})");
  for (const char* text : {state::Guest::shutdown, state::Guest::booting, state::Guest::unknown, state::Guest::saved,
                           state::Host::running, "running", ""}) {
    info_ = Parsed(R"({"ip":["old"],"uptime":"9","has_agent":true})");
    EXPECT_FALSE(Guest::GetInformation("g", Record(text), info_)) << text;
    EXPECT_EQ(Text(info_), kDefaults);
  }
  for (const char* record : {"null", "5", "[]", R"("guest_running")", "{}", R"({"state":["guest_running"]})"}) {
    EXPECT_FALSE(Guest::GetInformation("g", Parsed(record), info_)) << record;
  }
  EXPECT_TRUE(Platform().sent.empty());
  ExpectNoLine();
}

TEST_F(GuestInformation, GuestInfo_HostFails_KeepsDefaultsWithoutLogLine) {
  Platform().replies["h"] = Failure(102);
  Platform().replies["h"]["data"] = Parsed(R"({"ip":["10.0.0.1"],"uptime":3600,"has_agent":true})");
  EXPECT_FALSE(Guest::GetInformation("g", running_, info_));
  EXPECT_EQ(Text(info_), kDefaults);
  ExpectNoLine();
}

TEST_F(GuestInformation, GuestInfo_OutputAliasesRecord_IsReadFirst) {
  Platform().replies["h"] = Success(R"({"uptime":5})");
  info_ = running_;
  EXPECT_TRUE(Guest::GetInformation("g", info_, info_));
  EXPECT_EQ(info_["uptime"], "5");
  EXPECT_EQ(info_["host_id"], "h");
}

TEST_F(GuestInformation, GuestInfo_OutputOfAnyType_BecomesObject) {
  for (const char* before : {"null", "true", "5", R"("x")", "[1]"}) {
    info_ = Parsed(before);
    EXPECT_FALSE(Guest::GetInformation("g", Json::Value(), info_));
    EXPECT_EQ(Text(info_), kDefaults) << before;
  }
}

}  // namespace
}  // namespace vexa::test
