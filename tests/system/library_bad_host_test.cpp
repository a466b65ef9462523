// The library's calls to hosts, over real sockets to a host that misbehaves.
#include <syslog.h>

#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "tests/system/transport_misbehaviours.h"
#include "tests/system/transport_test_support.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using namespace VexaVirtualization;  // NOLINT: nearly all of it is under test

constexpr const char* kBad = "other-host";
constexpr const char* kUntouched = "untouched";

// How a host is called, and what is reported when it does not answer.
struct LibraryCall {
  const char* name;
  void (*call_and_fail)();
  int lines;     // in the system log
  int priority;  // of the line
};

void ExpectUntouched(bool reported, const Json::Value& out) {
  EXPECT_FALSE(reported);
  EXPECT_EQ(out, Json::Value(kUntouched));
}

const LibraryCall kLibraryCalls[] = {
    {"Utilization",
     [] {
       Json::Value out = kUntouched;
       const bool reported = GetSysUtilization(kBad, Parsed(R"({"resource":["cpu"]})"), out);
       ExpectUntouched(reported, out);
     },
     1, LOG_ERR},
    {"System",
     [] {
       Json::Value out = kUntouched;
       const bool reported = GetSysInfo(kBad, out);
       ExpectUntouched(reported, out);
     },
     1, LOG_ERR},
    {"Volume",
     [] {
       Json::Value out = kUntouched;
       const bool reported = GetVolumeInfo(kBad, Parsed(R"({"volume_path":"/"})"), out);
       ExpectUntouched(reported, out);
     },
     1, LOG_ERR},
    {"DiskUsage",
     [] {
       Json::Value out(Json::objectValue);
       GetVdiskUsage("g", kBad, out);
       EXPECT_EQ(json::ToText(out), R"({"total_size":0,"total_used":0})");
     },
     1, LOG_DEBUG},
    {"NetworkInterface",
     [] {
       Json::Value out = kUntouched;
       const bool reported = GetNetStat(kBad, "eth0", out);
       ExpectUntouched(reported, out);
     },
     0, 0},
    {"HostResources",
     [] {
       Json::Value out(Json::objectValue);
       EXPECT_EQ(GetHostResourceInfo(true, out), 0);
       EXPECT_EQ(json::ToText(out), "{}");
     },
     0, 0},
    {"Interfaces",
     [] {
       Json::Value out(Json::arrayValue);
       GetAllInterfaceInfo(out);
       EXPECT_EQ(json::ToText(out), "[]");
     },
     0, 0},
    {"GuestInformation",
     [] {
       Json::Value record(Json::objectValue);
       record[VexaCCC::DB::_k::host_id] = kBad;
       record[VexaCCC::DB::_k::state] = VexaCCC::State::Guest::running;
       Json::Value info(Json::objectValue);
       EXPECT_FALSE(Guest::GetInformation("g", record, info));
       EXPECT_EQ(json::ToText(info), R"({"has_agent":false,"ip":[],"uptime":"0"})");
     },
     0, 0},
    {"PollTask", [] { EXPECT_EQ(ClearPollTaskOnHost(kBad, "task"), -1); }, 1, LOG_ERR},
};

void ExpectLinesOf(const LibraryCall& call) {
  const auto lines = CapturedSyslog();
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(call.lines)) << call.name;
  for (const SyslogLine& line : lines) {
    EXPECT_EQ(line.level(), call.priority) << call.name;
    EXPECT_TRUE(line.text.starts_with("utils:")) << line.text;
    EXPECT_NE(line.text.find(" Bad response [{\"error\":{\"code\":102"), std::string::npos) << line.text;
    EXPECT_NE(line.text.find("]/ request [{\"api\":\"VEXA."), std::string::npos) << line.text;
  }
}

// A database in which the bad host is the only one, with an interface.
class BadHostCluster {
 public:
  BadHostCluster() {
    host_.Put("host", kBad, Parsed(R"({"name":"bad"})"));
    const store::Transaction nic{{}, {{store::MakeKey({"dash", "host", kBad, "nics", "n1"}), R"({"name":"eth0"})"}}};
    EXPECT_TRUE(host_.store().Commit(nic).ok());
  }

 private:
  TestHost host_;
};

class LibraryBadHost : public testing::TestWithParam<Misbehaviour> {};

TEST_P(LibraryBadHost, EachCall_BadHost_FailsAsDocumented) {
  const BadHostCluster cluster;
  for (const LibraryCall& call : kLibraryCalls) {
    SCOPED_TRACE(call.name);
    const ScriptedServer server({GetParam().reply});
    const InstalledTransport transport({{kBad, AddressOfUrl(server)}}, {}, std::chrono::milliseconds(400));
    ClearCapturedSyslog();
    call.call_and_fail();
    ExpectLinesOf(call);
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, LibraryBadHost, testing::ValuesIn(Misbehaviours()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(LibraryHost, EachCall_ConnectionRefused_FailsAsDocumented) {
  const BadHostCluster cluster;
  for (const LibraryCall& call : kLibraryCalls) {
    SCOPED_TRACE(call.name);
    const InstalledTransport transport({{kBad, AddressOf(UnusedPort())}});
    ClearCapturedSyslog();
    call.call_and_fail();
    ExpectLinesOf(call);
  }
}

TEST(LibraryHost, EachCall_CertificateOfOtherHost_FailsAsDocumented) {
  const BadHostCluster cluster;
  const TempDir folder;
  const TestAuthority authority(folder.File("authority"));
  const transport::TlsFiles files = authority.FilesOf("third-host");
  http::ListenerOptions listener;
  listener.certificate_file = files.certificate;
  listener.key_file = files.key;
  listener.client_authority_file = files.authority;
  const JsonHost host(
      [](const http::HttpRequest&, const http::Responder& responder) {
        http::HttpResponse response;
        response.body = R"({"success":true,"data":{}})";
        responder.Send(std::move(response));
      },
      listener);
  for (const LibraryCall& call : kLibraryCalls) {
    SCOPED_TRACE(call.name);
    const InstalledTransport transport({{kBad, host.address()}}, authority.FilesOf(kLocalHost), kLocalHost);
    ClearCapturedSyslog();
    call.call_and_fail();
    ExpectLinesOf(call);
  }
  EXPECT_EQ(host.requests(), 0);
}

// Replies that succeed, with data that no call expects.
constexpr const char* kOddData[] = {
    R"({"success":true,"data":[]})",
    R"({"success":true,"data":"text"})",
    R"({"success":true,"data":{"result":{"0":1},"vdisks":{"a":1},"speed":1,"ip":{}}})",
    R"({"success":true,"data":{"result":[1,"x",null,[]],"vdisks":[1,"x",null,[]],"status":[]}})",
    R"({"success":true,"data":[{"ifname":1},{"ifname":["eth0"]},7,null,{"ifname":{"eth0":1}}]})",
};

void ExpectWellFormedResults() {
  Json::Value out;
  EXPECT_TRUE(GetSysUtilization(kBad, Json::Value(), out));
  EXPECT_EQ(json::ToText(out), R"({"memory":null})");
  out = Json::Value();
  EXPECT_TRUE(GetSysInfo(kBad, out));
  EXPECT_TRUE(GetVolumeInfo(kBad, Json::Value(), out));
  out = Json::Value(Json::objectValue);
  GetVdiskUsage("g", kBad, out);
  EXPECT_EQ(out["total_size"], Json::Value(Json::UInt64{0}));
  EXPECT_EQ(out["total_used"], Json::Value(Json::UInt64{0}));
  out = kUntouched;
  EXPECT_FALSE(GetNetStat(kBad, "eth0", out));
  EXPECT_EQ(out, Json::Value(kUntouched));
  out = Json::Value(Json::objectValue);
  EXPECT_EQ(GetHostResourceInfo(true, out), 0);
  EXPECT_EQ(out[kBad]["cpu_usage"], Json::Value(-1));
  EXPECT_EQ(out[kBad]["free_ram_size"], Json::Value(0));
  EXPECT_TRUE(out[kBad]["http_port"].isNull());
  EXPECT_FALSE(out[kBad].isMember("ipList"));
  EXPECT_EQ(ClearPollTaskOnHost(kBad, "task"), 0);
}

TEST(LibraryHost, EachCall_ReplyOfWrongTypes_DoesNotCrash) {
  const BadHostCluster cluster;
  for (const char* reply : kOddData) {
    SCOPED_TRACE(reply);
    const JsonHost host{std::string(reply)};
    const InstalledTransport transport({{kBad, host.address()}});
    ExpectWellFormedResults();
  }
}

TEST(LibraryHost, EachCall_ReplyOfTenMegabytes_IsRead) {
  const BadHostCluster cluster;
  const JsonHost host{ObjectOfSize(10'000'000)};
  const InstalledTransport transport({{kBad, host.address()}});
  ExpectWellFormedResults();
}

}  // namespace
}  // namespace vexa::test
