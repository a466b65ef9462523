// Addresses of network interfaces: unique under concurrency, found again whatever the letter case.
#include "host/cluster/mac_address.h"

#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <thread>

#include "host/records/environment.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "tests/support/matchers.h"
#include "tests/support/process.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_network.h"
#include "webapi/platform/etcd.h"

namespace vexa::cluster {
namespace {

using std::chrono::hours;
using std::chrono::system_clock;
using test::TestHost;

constexpr const char* kStoreVariable = "VEXA_TEST_MAC_STORE";
constexpr int kPerWorker = 50;

// Gives the same numbers again and again, at a time of the test's choice.
struct Scripted {
  system_clock::time_point now{hours(24 * 365 * 50)};
  std::vector<std::uint64_t> numbers;
  std::size_t next = 0;
  MacSource source() {
    return {[this] { return now; }, [this]() -> Result<std::uint64_t> { return numbers[next++ % numbers.size()]; }};
  }
};

TEST(MacAddress, New_Address_IsLocallyAdministeredUnicastInLowerCase) {
  TestHost host;
  for (int i = 0; i < 20; ++i) {
    std::string mac;
    ASSERT_EQ(VexaCCC::VNicMacAddrGen(mac), 0);
    EXPECT_THAT(mac, MatchesRegex("02(:[0-9a-f][0-9a-f]){5}"));
    EXPECT_EQ(VexaCCC::VNicMacAddrCheck(mac, nullptr), 0) << "reserved is not used";
  }
}

TEST(MacAddress, New_ReservedOrUsed_IsNotReturnedAgain) {
  TestHost host;
  Scripted script;
  script.numbers = {1, 1, 1, 0xABCDEF0123, 2};
  host.PutText("vnic", "n1", R"({"mac_address":"02:AB:cd:EF:01:23","guest_id":"g1"})");
  EXPECT_EQ(*ReserveMacAddress(host.store(), script.source()), "02:00:00:00:00:01");
  EXPECT_EQ(*ReserveMacAddress(host.store(), script.source()), "02:00:00:00:00:02");
  script.numbers = {1, 2};
  const auto none = ReserveMacAddress(host.store(), script.source());
  ASSERT_FALSE(none.ok());
  EXPECT_EQ(none.error().code(), ErrorCode::kBusy);
}

std::vector<std::string> Reservations(TestHost& host) {
  std::vector<std::string> macs;
  const auto snapshot = host.store().Read();
  const Status scanned = (*snapshot)->Scan("/mac", [&macs](std::string_view key, const store::ValueView&) {
    macs.emplace_back(key.substr(key.rfind('/') + 1));
    return true;
  });
  EXPECT_TRUE(scanned.ok());
  return macs;
}

TEST(MacAddress, Reservations_AfterADay_ExpireAndAreRemoved) {
  TestHost host;
  Scripted script;
  script.numbers = {1};
  ASSERT_TRUE(ReserveMacAddress(host.store(), script.source()).ok());
  script.now += hours(23);
  EXPECT_FALSE(ReserveMacAddress(host.store(), script.source()).ok());
  script.now += hours(1);
  EXPECT_TRUE(ReserveMacAddress(host.store(), script.source()).ok());
  script.now += hours(25);
  script.numbers = {0x101};  // the same bucket
  EXPECT_TRUE(ReserveMacAddress(host.store(), script.source()).ok());
  EXPECT_THAT(Reservations(host), ::testing::ElementsAre("02:00:00:00:01:01"));
  script.now -= hours(48);  // the clock was wrong
  EXPECT_TRUE(ReserveMacAddress(host.store(), script.source()).ok());
  ASSERT_TRUE(host.store().Commit({{}, {{"/mac/03/02:00:00:00:00:03", "damaged"}}}).ok());
  script.numbers = {3};
  EXPECT_TRUE(ReserveMacAddress(host.store(), script.source()).ok());
}

TEST(MacAddress, Check_IgnoresLetterCaseAndSeesEscapes) {
  TestHost host;
  host.PutText("vnic", "n0", "damaged \\");
  host.PutText("vnic", "n1", R"({"mac_address":"52:54:00:6B:3c:58","guest_id":"g1"})");
  host.PutText("vnic", "n2", R"({"mac_address":"\u0035\u0032:54:00:aa:bb:cc"})");
  host.PutText("vnic", "n3", R"({"mac_address":["52:54:00:00:00:01"],"note":"52:54:00:00:00:02"})");
  std::string guest = "before";
  EXPECT_EQ(VexaCCC::VNicMacAddrCheck("52:54:00:6b:3C:58", &guest), 1);
  EXPECT_EQ(guest, "g1");
  EXPECT_EQ(VexaCCC::VNicMacAddrCheck("52:54:00:6b:3c:58", nullptr), 1);
  EXPECT_EQ(VexaCCC::VNicMacAddrCheck("52:54:00:AA:BB:CC", &guest), 1);
  EXPECT_EQ(guest, "") << "the record names none";
  for (const std::string& mac : {std::string("52:54:00:00:00:01"), std::string("52:54:00:00:00:02"), std::string(),
                                 std::string("\0%s/../\n", 8), std::string(100'000, 'x'), std::string("5")}) {
    EXPECT_EQ(VexaCCC::VNicMacAddrCheck(mac, &guest), 0);
  }
}

TEST(MacAddress, GuestOfMacAddress_StoreUnreadable_Fails) {
  TestHost host;
  host.store().FailSnapshots();
  std::string guest = "before";
  EXPECT_LT(VexaCCC::VNicMacAddrCheck("52:54:00:6b:3c:58", &guest), 0);
  EXPECT_EQ(guest, "");
  std::string mac = "before";
  EXPECT_LT(VexaCCC::VNicMacAddrGen(mac), 0);
  EXPECT_EQ(mac, "before");
}

TEST(MacAddress, New_EightThreads_AreUnique) {
  TestHost host;
  std::vector<std::vector<std::string>> given(8);
  {
    std::vector<std::jthread> threads;
    for (auto& mine : given) {
      threads.emplace_back([&host, &mine] {
        // Few numbers, the same for all threads, so that they do meet.
        std::uint64_t number = 0;
        MacSource source = SystemMacSource();
        source.random = [&number]() -> Result<std::uint64_t> { return number++; };
        for (int i = 0; i < 5; ++i) {
          const auto mac = ReserveMacAddress(host.store(), source);
          if (mac) mine.push_back(*mac);
        }
      });
    }
  }
  std::set<std::string> different;
  for (const auto& mine : given) different.insert(mine.begin(), mine.end());
  EXPECT_EQ(different.size(), 40u);
}

// What a worker process of the next test does.
void ReserveAndPrint(const char* folder) {
  store::LmdbOptions options;
  options.directory = folder;
  auto store = store::OpenLmdbStore(options);
  ASSERT_TRUE(store.ok());
  MacSource source = SystemMacSource();
  std::uint64_t number = 0;
  source.random = [&number]() -> Result<std::uint64_t> { return number++ / 2; };
  for (int i = 0; i < kPerWorker;) {
    const auto mac = ReserveMacAddress(**store, source);
    if (!mac && mac.error().code() == ErrorCode::kBusy) continue;
    ASSERT_TRUE(mac.ok()) << mac.error().ToString();
    std::printf("mac %s\n", mac->c_str());
    ++i;
  }
}

// Each process runs this test as well, with the store in its environment.
TEST(MacAddress, New_FourProcesses_AreUnique) {
  if (const char* folder = std::getenv(kStoreVariable)) return ReserveAndPrint(folder);
  TestHost host;
  std::vector<std::unique_ptr<test::Process>> workers;
  for (int i = 0; i < 4; ++i) {
    test::ProcessOptions options;
    options.argv = {"/proc/self/exe", "--gtest_filter=MacAddress.New_FourProcesses_*"};
    options.environment[kStoreVariable] = host.folder().File("store");
    workers.push_back(std::make_unique<test::Process>(options));
  }
  std::set<std::string> different;
  for (auto& worker : workers) {
    const auto status = worker->Wait(std::chrono::seconds(120));
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << worker->output() << worker->errors();
    std::istringstream lines(worker->output());
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("mac ")) {
        EXPECT_TRUE(different.insert(line).second) << line;
      }
    }
  }
  EXPECT_EQ(different.size(), 4u * kPerWorker);
}

TEST(Names, GetNameById_ReadsTheName) {
  TestHost host;
  std::string name = "before";
  EXPECT_NE(VexaCCC::Utils::GetNameById(VexaCCC::DB::DashCate::Guest, "g", name), 0);
  for (const char* record : {"{}", R"({"name":7})", "[]", "damaged"}) {
    host.PutText("guest", "g", record);
    EXPECT_NE(VexaCCC::Utils::GetNameById(VexaCCC::DB::DashCate::Guest, "g", name), 0) << record;
  }
  EXPECT_EQ(name, "before");
  host.PutText("guest", "g", R"({"name":"web"})");
  EXPECT_EQ(VexaCCC::Utils::GetNameById(VexaCCC::DB::DashCate::Guest, "g", name), 0);
  EXPECT_EQ(name, "web");
  EXPECT_NE(VexaCCC::Utils::GetNameById(VexaCCC::DB::DashCate::Guest, "../guest/g", name), 0);
}

TEST(Names, MemberInDepth_NotObject_IsFalse) {
  const Json::Value value = test::Parsed(R"({"cpu":{"user_load":null,"list":[{"x":1}]},"text":"cpu"})");
  EXPECT_TRUE(VexaCCC::Utils::jsChkMemberInDepth(value, {"cpu", "user_load"})) << "a present null";
  EXPECT_TRUE(VexaCCC::Utils::jsChkMemberInDepth(value, {"cpu"}));
  EXPECT_FALSE(VexaCCC::Utils::jsChkMemberInDepth(value, {"cpu", "system_load"}));
  EXPECT_FALSE(VexaCCC::Utils::jsChkMemberInDepth(value, {"cpu", "user_load", "x"}));
  EXPECT_FALSE(VexaCCC::Utils::jsChkMemberInDepth(value, {"cpu", "list", "x"}));
  EXPECT_FALSE(VexaCCC::Utils::jsChkMemberInDepth(value, {"text", "cpu"}));
  EXPECT_FALSE(VexaCCC::Utils::jsChkMemberInDepth(Json::Value("x"), {"x"}));
  EXPECT_FALSE(VexaCCC::Utils::jsChkMemberInDepth(value, {"cpu", nullptr}));
}

TEST(Names, OvsPrefix_Repeated_IsTrimmedOnceAtStart) {
  EXPECT_EQ(VexaCCC::Utils::TrimOVSPrefix("ovs_eth0"), "eth0");
  EXPECT_EQ(VexaCCC::Utils::TrimOVSPrefix("ovs_ovs_eth0"), "ovs_eth0");
  EXPECT_EQ(VexaCCC::Utils::TrimOVSPrefix("eth0ovs_"), "eth0ovs_");
  EXPECT_EQ(VexaCCC::Utils::TrimOVSPrefix("ovs_"), "");
  EXPECT_EQ(VexaCCC::Utils::TrimOVSPrefix(""), "");
}

TEST(Path, Path_SlashInSegment_IsEncoded) {
  const std::string path = VexaETCD::Path{"nics", "../a/b\n%"};
  EXPECT_EQ(path, "nics/..%2Fa%2Fb%0A%25");
  EXPECT_EQ(std::string(VexaETCD::Path{"nics", ""}), "nics/%");
  TestHost host;
  ASSERT_TRUE(host.store().Commit({{}, {{"/dash/host/h/" + path, R"({"name":"eth0"})"}}}).ok());
  Json::Value record;
  EXPECT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, "h").Get(record, path), 0);
  EXPECT_EQ(record["name"], "eth0");
}

}  // namespace
}  // namespace vexa::cluster
