// A host's own record: written at the start, kept current, shared with others.
#include "host/cluster/host_record.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "host/cluster/host_name.h"
#include "host/machine/host_facts.h"
#include "host/records/environment.h"
#include "host/store/key.h"
#include "tests/unit/api/services_fixture.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/etcd.h"

namespace vexa::cluster {
namespace {

using std::chrono::milliseconds;
using test::TestHost;

constexpr const char* kHost = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
const std::chrono::system_clock::time_point kNow{std::chrono::seconds(1'800'000'000)};

HostFacts Facts() {
  HostFacts facts;
  facts.host_id = kHost;
  facts.name = "one";
  facts.addresses = {"192.0.2.1"};
  facts.cluster_address = "192.0.2.1:8642";
  facts.cpu_cores = 4;
  facts.cpu_clock_mhz = 2400;
  facts.ram_kib = 16'000'000;
  facts.version = "1.0";
  facts.nics = {{"nic-1", "eth0", "02:00:00:00:00:01"}};
  return facts;
}

// As it is stored: what readers are shown depends on the clock.
Json::Value Read(const std::string& key) {
  const auto snapshot = records::CurrentEnvironment()->store->Read();
  const auto value = (*snapshot)->Get(store::MakeKey({"dash", "host", kHost}) + "/" + key);
  EXPECT_TRUE(value.ok() && value->has_value()) << key;
  return value.ok() && value->has_value() ? Parsed(std::string((*value)->text)) : Json::Value();
}

store::Revision RevisionOf(TestHost& host, const std::string& key) {
  auto snapshot = host.store().Read();
  const auto value = (*snapshot)->Get(key);
  return value->has_value() ? (*value)->revision : 0;
}

TEST(HostRecord, Registration_NameWasGiven_KeepsIt) {
  TestHost host;
  std::string old_name;
  const auto unknown = RenameHost(host.store(), kHost, "office", old_name);
  ASSERT_FALSE(unknown.ok());
  EXPECT_EQ(unknown.error().code, user_error::kNotFoundOrUnreadable);
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  ASSERT_TRUE(RenameHost(host.store(), kHost, "office", old_name).ok());
  EXPECT_EQ(old_name, "one");
  EXPECT_EQ(Read("object")["name"], "office");
  // Every start writes the record with what the machine says.
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  EXPECT_EQ(Read("object")["name"], "office");
  ASSERT_TRUE(UpdateHost(host.store(), Facts(), {kNow, kNow}).ok());
  EXPECT_EQ(Read("object")["name"], "office");
  HostFacts other = Facts();
  other.host_id = "00000000-0000-4000-8000-00000000000b";
  ASSERT_TRUE(RegisterHost(host.store(), other, kNow).ok());
  const auto taken = RenameHost(host.store(), other.host_id, "office", old_name);
  ASSERT_FALSE(taken.ok());
  EXPECT_EQ(taken.error().code, user_error::kRecordExists);
  EXPECT_EQ(taken.error().reason, std::string("The host '") + kHost + "' is called 'office' already");
}

TEST(HostRecord, Registration_WritesWhatOthersRead) {
  TestHost host;
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  Json::Value expected =
      Parsed(R"({"name":"one","addresses":["192.0.2.1"],"cluster_address":"192.0.2.1:8642","cpu_cores":4,
      "cpu_clock_speed":2400.0,"ram_size":16000000,"started":1800000000,"version":"1.0"})");
  expected["state"] = VexaCCC::State::Host::running;
  EXPECT_EQ(Read("object"), expected);
  EXPECT_EQ(Read("seen"), Parsed(R"({"time":1800000000})"));
  std::vector<std::string> nics;
  ASSERT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, kHost).Ls(nics, "nics"), 0);
  EXPECT_EQ(nics, std::vector<std::string>{"nic-1"});
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "nic-1"}), Parsed(R"({"name":"eth0","mac_address":"02:00:00:00:00:01"})"));
}

TEST(HostRecord, Registration_KeepsWhatOthersWrote) {
  TestHost host;
  host.PutText("host", kHost, R"({"prefer_connect_ip":"192.0.2.9","name":"old","state":"network_warn"})");
  ASSERT_TRUE(host.store()
                  .Commit({{},
                           {{std::string("/dash/host/") + kHost + "/nics/nic-1", R"({"bridge_name":"br0"})"},
                            {std::string("/dash/host/") + kHost + "/nics/gone", R"({"name":"eth9"})"}}})
                  .ok());
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  EXPECT_EQ(Read("object")["prefer_connect_ip"], "192.0.2.9");
  EXPECT_EQ(Read("object")["name"], "one");
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::running) << "of an earlier life";
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "nic-1"})["bridge_name"], "br0");
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "nic-1"})["name"], "eth0");
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "gone"})["name"], "eth9");
}

// The address of an earlier start would send other hosts to a port that nothing, or another program, listens on.
TEST(HostRecord, Registration_NoClusterAddress_RemovesOldOne) {
  TestHost host;
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  HostFacts facts = Facts();
  facts.cluster_address.clear();
  ASSERT_TRUE(RegisterHost(host.store(), facts, kNow).ok());
  EXPECT_FALSE(Read("object").isMember("cluster_address"));
}

TEST(HostRecord, Registration_Certificate_IsPublishedWhileThereIsOne) {
  TestHost host;
  HostFacts facts = Facts();
  facts.certificate_issued = 1'800'000'000;
  facts.certificate_expires = 1'802'592'000;
  ASSERT_TRUE(RegisterHost(host.store(), facts, kNow).ok());
  EXPECT_EQ(Read("object")["certificate"], Parsed(R"({"issued":1800000000,"expires":1802592000})"));
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  EXPECT_FALSE(Read("object").isMember("certificate"));
}

TEST(HostRecord, Update_KeepsTheStartAndStatesOfOthers) {
  TestHost host;
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  for (const auto& [before, after] : {std::pair(VexaCCC::State::Host::network_warn, VexaCCC::State::Host::network_warn),
                                      std::pair(VexaCCC::State::Host::inaccessible, VexaCCC::State::Host::running)}) {
    Json::Value record = Read("object");
    record["state"] = before;
    host.Put("host", kHost, record);
    HostFacts facts = Facts();
    facts.addresses = {"192.0.2.7"};
    ASSERT_TRUE(UpdateHost(host.store(), facts, {kNow, kNow + std::chrono::seconds(60)}).ok());
    EXPECT_EQ(Read("object")["addresses"], Parsed(R"(["192.0.2.7"])"));
    EXPECT_EQ(Read("object")["state"], after);
    EXPECT_EQ(Read("object")["started"], 1'800'000'000);
    EXPECT_EQ(Read("seen")["time"], 1'800'000'060);
  }
}

TEST(HostRecord, Registration_DamagedRecord_IsNotOverwritten) {
  TestHost host;
  for (const char* text : {"damaged", "[]", "7"}) {
    host.PutText("host", kHost, text);
    EXPECT_EQ(RegisterHost(host.store(), Facts(), kNow).error().code(), ErrorCode::kCorrupt) << text;
    EXPECT_EQ(SignOffHost(host.store(), kHost).error().code(), ErrorCode::kCorrupt) << text;
  }
}

TEST(HostRecord, Registration_HostileTexts_AreStoredAsValues) {
  TestHost host;
  HostFacts facts = Facts();
  facts.nics = {{"../../guest/x", "a\"b\n", "%s"}};
  ASSERT_TRUE(RegisterHost(host.store(), facts, kNow).ok());
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "../../guest/x"})["name"], "a\"b\n");
  std::vector<std::string> guests;
  EXPECT_EQ(VexaCCC::DB::DashCate::Guest.List(guests), 0);
  EXPECT_TRUE(guests.empty());
}

TEST(HostRecord, Update_ConcurrentWriters_LoseNothing) {
  TestHost host;
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  const std::string key = TestHost::ObjectKey("host", kHost);
  std::atomic<bool> stop = false;
  int written = 0;
  std::thread other([&] {
    while (!stop || written == 0) {
      auto snapshot = host.store().Read();
      const auto value = (*snapshot)->Get(key);
      Json::Value record = Parsed(std::string((*value)->text));
      const store::Revision revision = (*value)->revision;
      record["count"] = written + 1;
      snapshot->reset();
      if (host.store().Commit({{{key, revision}}, {{key, record.toStyledString()}}}).ok()) ++written;
      // One that never pauses could be first forever.
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
    EXPECT_TRUE(SignOffHost(host.store(), kHost).ok());
  }
  stop = true;
  other.join();
  EXPECT_EQ(Read("object")["count"], written);
}

TEST(HostRecord, Touch_ChangesOnlySeenUnlessTheStateIsWrong) {
  TestHost host;
  EXPECT_EQ(WriteHeartbeat(host.store(), kHost, kNow).error().code(), ErrorCode::kNotFound);
  ASSERT_TRUE(RegisterHost(host.store(), Facts(), kNow).ok());
  const std::string key = TestHost::ObjectKey("host", kHost);
  const store::Revision before = RevisionOf(host, key);
  ASSERT_TRUE(WriteHeartbeat(host.store(), kHost, kNow + std::chrono::seconds(10)).ok());
  EXPECT_EQ(Read("seen")["time"], 1'800'000'010);
  EXPECT_EQ(RevisionOf(host, key), before);
  ASSERT_TRUE(SignOffHost(host.store(), kHost).ok());
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::inaccessible);
  const store::Revision left = RevisionOf(host, key);
  ASSERT_TRUE(SignOffHost(host.store(), kHost).ok());
  EXPECT_EQ(RevisionOf(host, key), left) << "nothing to do";
  ASSERT_TRUE(WriteHeartbeat(host.store(), kHost, kNow).ok());
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::running);
}

TEST(HostRecord, TouchHost_StateSetElsewhere_IsKept) {
  TestHost host;
  host.Put("host", kHost, Parsed(std::string(R"({"state":")") + VexaCCC::State::Host::network_warn + "\"}"));
  ASSERT_TRUE(WriteHeartbeat(host.store(), kHost, kNow).ok());
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::network_warn);
}

TEST(HostHeartbeat, StartAndStop_AreRecorded) {
  TestHost host;
  {
    const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, Facts, {.interval = milliseconds(5)});
    EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::running) << "immediately";
    ASSERT_TRUE(SignOffHost(host.store(), kHost).ok());  // another host considered it gone
    for (int i = 0; i < 4000 && Read("object")["state"] != VexaCCC::State::Host::running; ++i) {
      std::this_thread::sleep_for(milliseconds(5));
    }
    EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::running);
  }
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::inaccessible);
}

TEST(HostHeartbeat, Start_StoreUnreadable_IsRetried) {
  TestHost host;
  host.store().FailSnapshots();
  const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, Facts, {.interval = milliseconds(5)});
  host.store().Heal();
  Json::Value record;
  for (int i = 0; i < 4000 && VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, kHost).Get(record, "object") != 0;
       ++i) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_EQ(record["name"], "one");
}

// Facts that a test changes while the host runs.
class ChangingFacts {
 public:
  GatherFacts gather() {
    return [this] {
      const std::lock_guard lock(mutex_);
      ++gathered_;
      return facts_;
    };
  }
  void Change(const std::function<void(HostFacts&)>& change) {
    const std::lock_guard lock(mutex_);
    change(facts_);
  }
  // Returns when the current facts have been gathered and stored.
  void Await() {
    const int until = gathered() + 2;
    while (gathered() < until) std::this_thread::sleep_for(milliseconds(1));
  }
  int gathered() {
    const std::lock_guard lock(mutex_);
    return gathered_;
  }

 private:
  std::mutex mutex_;
  HostFacts facts_ = Facts();
  int gathered_ = 0;
};

TEST(HostHeartbeat, HostRecord_WronglyInaccessible_RestoresOwnState) {
  TestHost host;
  ChangingFacts facts;
  const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, facts.gather(), {.interval = milliseconds(1)});
  facts.Change([](HostFacts& all) { all.state = VexaCCC::State::Host::control_unavail; });
  facts.Await();
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::control_unavail);
  ASSERT_TRUE(SignOffHost(host.store(), kHost).ok());
  facts.Await();
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::control_unavail);
  facts.Change([](HostFacts& all) { all.state = VexaCCC::State::Host::running; });
  facts.Await();
  EXPECT_EQ(Read("object")["state"], VexaCCC::State::Host::running);
}

TEST(HostHeartbeat, Update_FactsChanged_AreWritten) {
  TestHost host;
  ChangingFacts facts;
  const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, facts.gather(), {.interval = milliseconds(1)});
  const Json::Value started = Read("object")["started"];
  facts.Change([](HostFacts& all) {
    all.name = "two";
    all.addresses = {"192.0.2.7", "2001:db8::7"};
    all.cluster_address = "192.0.2.7:8643";
    all.cpu_cores = 8;
    all.ram_kib = 32'000'000;
    all.nics.push_back({"nic-2", "eth1", "02:00:00:00:00:02"});
  });
  facts.Await();
  const Json::Value record = Read("object");
  EXPECT_EQ(record["name"], "two");
  EXPECT_EQ(record["addresses"], Parsed(R"(["192.0.2.7","2001:db8::7"])"));
  EXPECT_EQ(record["cluster_address"], "192.0.2.7:8643");
  EXPECT_EQ(record["cpu_cores"], 8);
  EXPECT_EQ(record["ram_size"], 32'000'000);
  EXPECT_EQ(record["started"], started);
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "nic-2"})["name"], "eth1");
  facts.Change([](HostFacts& all) { all.nics[1].name = "lan1"; });
  facts.Await();
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "nic-2"})["name"], "lan1");
}

TEST(HostHeartbeat, Update_NothingNew_LeavesRecordUnchanged) {
  TestHost host;
  ChangingFacts facts;
  const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, facts.gather(), {.interval = milliseconds(1)});
  const store::Revision before = RevisionOf(host, TestHost::ObjectKey("host", kHost));
  const store::Revision seen = RevisionOf(host, std::string("/dash/host/") + kHost + "/seen");
  facts.Await();
  facts.Change([](HostFacts& all) { all.cpu_clock_mhz = 2596.124; });  // as it flickers on many machines
  facts.Await();
  facts.Change([](HostFacts& all) {
    const HostFacts full = std::exchange(all, HostFacts());  // nothing could be read
    all.host_id = full.host_id;
    all.cluster_address = full.cluster_address;
    all.version = full.version;
  });
  facts.Await();
  EXPECT_EQ(RevisionOf(host, TestHost::ObjectKey("host", kHost)), before);
  EXPECT_GT(RevisionOf(host, std::string("/dash/host/") + kHost + "/seen"), seen);
}

TEST(HostHeartbeat, Update_CpuClockBecomesKnown_IsWritten) {
  TestHost host;
  ChangingFacts facts;
  facts.Change([](HostFacts& all) { all.cpu_clock_mhz = 0; });
  const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, facts.gather(), {.interval = milliseconds(1)});
  facts.Change([](HostFacts& all) { all.cpu_clock_mhz = 2400; });
  facts.Await();
  EXPECT_EQ(Read("object")["cpu_clock_speed"], 2400.0);
}

TEST(HostHeartbeat, Update_RecordMissing_IsWrittenAgain) {
  TestHost host;
  ChangingFacts facts;
  const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, facts.gather(), {.interval = milliseconds(1)});
  const Json::Value before = Read("object");
  const std::string nic = std::string("/dash/host/") + kHost + "/nics/nic-1";
  ASSERT_TRUE(
      host.store().Commit({{}, {{TestHost::ObjectKey("host", kHost), std::nullopt}, {nic, std::nullopt}}}).ok());
  facts.Await();
  EXPECT_EQ(Read("object"), before);
  EXPECT_EQ(Read(VexaETCD::Path{"nics", "nic-1"})["name"], "eth0");
}

TEST(HostHeartbeat, HostRecord_WriteFails_IsRetried) {
  TestHost host;
  ChangingFacts facts;
  const HostHeartbeat heartbeat(records::CurrentEnvironment()->store, facts.gather(), {.interval = milliseconds(1)});
  host.store().FailCommits();
  facts.Change([](HostFacts& all) { all.addresses.clear(); });
  facts.Await();
  host.store().Heal();
  facts.Await();
  EXPECT_EQ(Read("object")["addresses"], Json::Value(Json::arrayValue));
}

std::string MacOf(const std::string& name) { return name == "eth0" || name == "renamed0" ? "020000000001" : ""; }

TEST(HostFacts, NicIds_RestartedOrRenamed_AreKept) {
  test::ScriptedMachine files;
  files.MakeFolder("/sys/class/net/eth0/device");
  files.MakeFolder("/sys/class/net/eth1/device");
  const auto addresses = [] {
    return std::vector<machine::InterfaceAddress>{{"eth0", "192.0.2.1", "255.0.0.0", false},
                                                  {"docker0", "172.17.0.1", "255.0.0.0", false}};
  };
  const auto gather = [&] { return machine::GatherHostFacts(kHost, "1.0", files.machine(), addresses, MacOf); };
  const HostFacts first = gather();
  ASSERT_EQ(first.nics.size(), 2u);
  EXPECT_TRUE(VexaCCC::Utils::isUUID(first.nics[0].id));
  EXPECT_EQ(first.nics[0].id[14], '5');
  EXPECT_NE(first.nics[0].id, first.nics[1].id);
  EXPECT_EQ(first.addresses, std::vector<std::string>{"192.0.2.1"});
  EXPECT_EQ(gather().nics[1].id, first.nics[1].id);
  std::filesystem::rename(files.root() + "/sys/class/net/eth0", files.root() + "/sys/class/net/renamed0");
  const HostFacts renamed = gather();
  EXPECT_EQ(renamed.nics[1].name, "renamed0");
  EXPECT_EQ(renamed.nics[1].id, first.nics[0].id);
  EXPECT_NE(machine::NicId(kHost, "eth0"), machine::NicId("another", "eth0"));
}

TEST(HostFacts, NicIds_PortsWithSameAddress_AreDifferent) {
  test::ScriptedMachine files;
  files.MakeFolder("/sys/class/net/eth0/device");
  files.MakeFolder("/sys/class/net/renamed0/device");
  const HostFacts facts = machine::GatherHostFacts(
      kHost, "1.0", files.machine(), [] { return std::vector<machine::InterfaceAddress>(); }, MacOf);
  ASSERT_EQ(facts.nics.size(), 2u);
  EXPECT_NE(facts.nics[0].id, facts.nics[1].id);
}

TEST(HostFacts, Facts_RealMachine_HaveFiguresAndStableIds) {
  const HostFacts facts = machine::GatherHostFacts(kHost, "1.0", machine::Machine());
  EXPECT_FALSE(facts.name.empty());
  EXPECT_GT(facts.cpu_cores, 0);
  EXPECT_GT(facts.ram_kib, 0u);
  ASSERT_FALSE(facts.nics.empty());
  const HostFacts again = machine::GatherHostFacts(kHost, "1.0", machine::Machine());
  ASSERT_EQ(again.nics.size(), facts.nics.size());
  for (std::size_t i = 0; i < facts.nics.size(); ++i) EXPECT_EQ(again.nics[i].id, facts.nics[i].id);
}

}  // namespace
}  // namespace vexa::cluster
