// A daemon that is killed while guests are created, started, stopped and deleted: afterwards records, hypervisor and
// disks agree.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "host/base/json_parse.h"
#include "host/daemon/host_id.h"
#include "host/records/host_claim_record.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vexad_client.h"
#include "webapi/platform/ccc_constants.h"

namespace {

using namespace std::chrono_literals;
namespace json = VexaVirtualization::json;
namespace states = VexaCCC::State::Guest;
using vexa::test::HttpClient;
using vexa::test::Process;
using vexa::test::Require;

constexpr int kGuests = 4;
constexpr int kDisks = 2;
constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr int kAlreadyRunning = 939;

std::string GuestId(int i) { return "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c21" + std::to_string(i); }
std::string DiskId(int i, int disk) { return "disk-" + std::to_string(i) + "-" + std::to_string(disk); }
std::string Content(int i, int disk) { return "what is on " + DiskId(i, disk); }

class KilledDaemon : public testing::Test {
 protected:
  KilledDaemon() {
    ::mkdir(Data().c_str(), 0700);
    ::mkdir(Images().c_str(), 0700);
    host_id_ = Require(vexa::daemon::LoadHostId(Data()));
    vexa::store::LmdbOptions options;
    options.directory = Data() + "/store";
    store_ = Require(vexa::store::OpenLmdbStore(options));
    Json::Value repository(Json::objectValue);
    repository["host_id"] = host_id_;
    repository["state"] = VexaCCC::State::Repo::online;
    (void)Require(store_->Commit({{}, {{Key("repository", kRepository), json::ToText(repository)}}}));
    for (int i = 0; i < kGuests; ++i) PutGuest(i);
  }

  std::string Data() const { return folder_.File("data"); }
  std::string Images() const { return folder_.File("data/images"); }
  std::string Image(int i, int disk) const { return Images() + "/" + DiskId(i, disk) + ".img"; }
  static std::string Key(const char* category, const std::string& id) {
    return vexa::store::MakeKey({"dash", category, id, "object"});
  }

  void PutGuest(int i) {
    vexa::store::Transaction transaction;
    Json::Value guest(Json::objectValue);
    guest["name"] = "guest-" + std::to_string(i);
    guest["vcpu_num"] = 1;
    guest["vram_size"] = 16;
    guest["host_id"] = host_id_;
    guest["repository_id"] = kRepository;
    guest["state"] = states::shutdown;
    guest["vnics"] = Json::Value(Json::arrayValue);
    guest["vdisks"] = Json::Value(Json::arrayValue);
    for (int disk = 0; disk < kDisks; ++disk) {
      std::ofstream(Image(i, disk)) << Content(i, disk);
      Json::Value record(Json::objectValue);
      record["guest_id"] = GuestId(i);
      record["name"] = disk == 0 ? "vda" : "vdb";
      record["path"] = Image(i, disk);
      record["driver"] = "raw";
      record["vdisk_mode"] = 1;
      record["size"] = 1;
      transaction.operations.push_back({Key("vdisk", DiskId(i, disk)), json::ToText(record)});
      guest["vdisks"].append(DiskId(i, disk));
    }
    transaction.operations.push_back({Key("guest", GuestId(i)), json::ToText(guest)});
    (void)Require(store_->Commit(transaction));
  }

  std::unique_ptr<Process> Start() const {
    auto process = std::make_unique<Process>(
        vexa::test::ProcessOptions{.argv = {VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("s"), "--listen",
                                            "none", "--log", "stderr"}});
    EXPECT_TRUE(process->WaitForText("Ready.", 60s)) << process->errors();
    return process;
  }

  HttpClient Client() const { return HttpClient(vexa::test::UnixSocket(folder_.File("s"))); }

  // The error code, 0 for a success, -1 for no reply.
  static int Ask(HttpClient& client, int guest, const std::string& action) {
    const std::string id = "{\"guest_id\":\"" + GuestId(guest) + "\"";
    static const std::vector<std::string> methods{"delete", "suspend", "resume", "save", "restore"};
    const bool is_method = std::ranges::find(methods, action) != methods.end();
    const vexa::test::HttpReply reply = is_method
                                            ? client.PostJson("/webapi/VEXA.Virtualization.Guest/" + action, id + "}")
                                            : client.PostJson("/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl",
                                                              id + ",\"action\":\"" + action + "\"}");
    if (!reply.arrived()) return -1;
    const auto parsed = vexa::ParseJson(reply.body);
    if (!parsed) return -1;
    return json::Int(json::Member(json::Member(*parsed, "error"), "code"));
  }

  // Creates and deletes guests until there is no reply.
  static void CreateUntilKilled(HttpClient& client, unsigned seed) {
    std::mt19937 choices(seed);
    for (int step = 0; step < 100; ++step) {
      const std::string name = "new-" + std::to_string(choices() % 3);
      const std::string disks = choices() % 4 == 0 ? "" : R"({"size_gib":1},{"size_gib":2,"format":"raw"})";
      const std::string number = choices() % 2 == 0 ? "" : R"(,"request_id":")" + std::to_string(choices()) + "\"";
      const vexa::test::HttpReply reply =
          client.PostJson("/webapi/VEXA.Virtualization.Guest/create",
                          R"({"name":")" + name + R"(","vdisks":[)" + disks + "]" + number + "}");
      if (!reply.arrived()) return;
      const auto parsed = vexa::ParseJson(reply.body);
      if (!parsed) return;
      const std::string id = json::StringMember(json::Member(*parsed, "data"), "guest_id");
      if (id.empty() || choices() % 2 == 0) continue;
      if (!client.PostJson("/webapi/VEXA.Virtualization.Guest/delete", R"({"guest_id":")" + id + "\"}").arrived())
        return;
    }
  }

  // Whether each created guest is whole, and nothing is left of the others.
  void ExpectCreatedAreWhole() {
    const std::map<std::string, std::string> keys = Keys();
    std::set<std::string> expected;
    std::set<std::string> names;
    for (const auto& [key, text] : keys) {
      EXPECT_FALSE(key.starts_with("/creation/")) << key << ": " << text;
      if (key.starts_with("/request/")) {
        EXPECT_EQ(text.find("\"doing\""), std::string::npos) << key << ": " << text;
      }
      const bool is_object = key.starts_with("/dash/") && key.ends_with("/object");
      if (!is_object || text.find("\"new-") == std::string::npos) continue;
      const Json::Value guest = *vexa::ParseJson(text);
      EXPECT_EQ(guest["state"], states::shutdown) << text;
      EXPECT_TRUE(names.insert(guest["name"].asString()).second) << text;
      for (const Json::Value& id : guest["vdisks"]) {
        const auto disk = keys.find(Key("vdisk", id.asString()));
        ASSERT_NE(disk, keys.end()) << text;
        expected.insert((*vexa::ParseJson(disk->second))["path"].asString());
      }
    }
    std::set<std::string> files;
    const std::string folder = Images() + "/" + kRepository;
    if (std::filesystem::exists(folder)) {
      for (const auto& entry : std::filesystem::directory_iterator(folder)) files.insert(entry.path());
    }
    EXPECT_EQ(files, expected);
    std::size_t disks = 0;
    for (const auto& [key, text] : keys)
      disks += key.starts_with("/dash/vdisk/") && text.find(folder) != std::string::npos ? 1 : 0;
    EXPECT_EQ(disks, expected.size());
  }

  std::map<std::string, std::string> Keys() const {
    std::map<std::string, std::string> keys;
    const auto snapshot = Require(store_->Read());
    for (const char* prefix : {"dash", "run", "deletion", "leftover", "live", "creation", "request"}) {
      EXPECT_TRUE(snapshot->Scan(vexa::store::MakeKey({prefix}), [&](std::string_view key, const auto& value) {
        keys.emplace(key, value.text);
        return true;
      }));
    }
    return keys;
  }

  bool GuestExists(int i) const {
    const auto snapshot = Require(store_->Read());
    return Require(snapshot->Get(Key("guest", GuestId(i)))).has_value();
  }

  // Whether records and hypervisor agree about the guest, when no job runs.
  void ExpectAgreement(int i, HttpClient& client) {
    const std::map<std::string, std::string> keys = Keys();
    const std::string id = GuestId(i);
    for (const auto& [key, text] : keys) {
      EXPECT_EQ(key.find("/deletion/"), std::string::npos) << key << ": " << text;
      EXPECT_EQ(key.find("/leftover/"), std::string::npos) << key << ": " << text;
    }
    const bool is_there = keys.contains(Key("guest", id));
    for (int disk = 0; disk < kDisks; ++disk) {
      EXPECT_EQ(keys.contains(Key("vdisk", DiskId(i, disk))), is_there);
      std::ifstream file(Image(i, disk));
      const std::string content(std::istreambuf_iterator<char>(file), {});
      EXPECT_EQ(content, is_there ? Content(i, disk) : "");
      EXPECT_EQ(std::filesystem::exists(Image(i, disk)), is_there);
    }
    if (!is_there) {
      for (const auto& [key, text] : keys) EXPECT_EQ(key.find(id), std::string::npos) << key;
      return;
    }
    const auto state = keys.find(vexa::store::MakeKey({"dash", "guest", id, "state"}));
    // A daemon in test mode runs its suspended guests suspended, and loses the memory of saved ones.
    const bool is_running = state != keys.end() && (state->second == json::ToText(states::running) ||
                                                    state->second == json::ToText(states::freeze));
    if (state != keys.end() && !is_running) {
      EXPECT_EQ(state->second, json::ToText(states::shutdown));
    }
    const auto run = keys.find(vexa::records::RunKey(id));
    EXPECT_EQ(run != keys.end(), is_running);
    EXPECT_TRUE(run == keys.end() || run->second.find("\"starting\":true") == std::string::npos) << run->second;
    // The hypervisor knows best what it runs.
    EXPECT_EQ(Ask(client, i, "poweron"), is_running ? kAlreadyRunning : 0);
    if (!is_running) {
      EXPECT_EQ(Ask(client, i, "poweroff"), 0);
    }
  }

  void ExpectNoStrayFiles() const {
    for (const auto& entry : std::filesystem::directory_iterator(Images())) {
      EXPECT_FALSE(entry.path().filename().string().starts_with(".")) << entry.path();
    }
  }

  vexa::test::TempDir folder_;
  std::string host_id_;
  std::shared_ptr<vexa::store::Store> store_;
};

TEST_F(KilledDaemon, Kill_AtAnyMoment_LeavesNothingHalfMade) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  int interrupted = 0;
  for (int round = 0; round < VEXA_KILL_ROUNDS && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    {
      const auto daemon = Start();
      HttpClient client = Client();
      for (int i = 0; i < kGuests; ++i) ExpectAgreement(i, client);
      ExpectNoStrayFiles();
      ExpectCreatedAreWhole();
      std::atomic<int> unanswered = 0;
      std::vector<std::thread> askers;
      askers.emplace_back([&, choice = random()] {
        HttpClient own = Client();
        CreateUntilKilled(own, static_cast<unsigned>(choice));
      });
      for (int i = 0; i < kGuests; ++i) {
        askers.emplace_back([&, i, choice = random()] {
          HttpClient own = Client();
          std::mt19937 choices(choice);
          for (int step = 0; step < 100; ++step) {
            static const std::vector<std::string> actions{"poweron", "poweroff", "poweron", "shutdown", "reboot",
                                                          "suspend", "resume",   "save",    "restore",  "delete"};
            const int code = Ask(own, i, actions[choices() % actions.size()]);
            if (code == -1) {
              ++unanswered;
              return;
            }
          }
        });
      }
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 60'000));
      daemon->Signal(SIGKILL);
      EXPECT_TRUE(daemon->Wait(30s));
      for (std::thread& asker : askers) asker.join();
      if (unanswered > 0) ++interrupted;
    }
    if (round % 4 != 3) continue;
    // The daemon finishes what was begun before guests are created again.
    {
      const auto daemon = Start();
      daemon->Signal(SIGTERM);
      EXPECT_TRUE(daemon->Wait(60s));
    }
    for (int i = 0; i < kGuests; ++i) {
      if (!GuestExists(i)) PutGuest(i);
    }
  }
  const auto daemon = Start();
  HttpClient client = Client();
  for (int i = 0; i < kGuests; ++i) ExpectAgreement(i, client);
  ExpectNoStrayFiles();
  ExpectCreatedAreWhole();
  // Else nothing was killed in the middle.
  EXPECT_GE(interrupted, VEXA_KILL_ROUNDS / 2);
}

// The boot of the machine is one that the daemon has not seen.
TEST_F(KilledDaemon, MachineBooted_StartsGuestsOfTheirSetting) {
  const auto set_autorun = [&](int guest, int autorun) {
    const std::string key = Key("guest", GuestId(guest));
    Json::Value record = Require(vexa::ParseJson(Require(Require(store_->Read())->Get(key))->text));
    record["autorun"] = autorun;
    (void)Require(store_->Commit({{}, {{key, json::ToText(record)}}}));
  };
  const auto is_running = [&](int guest) {
    return Keys()[vexa::store::MakeKey({"dash", "guest", GuestId(guest), "state"})] == json::ToText(states::running);
  };
  set_autorun(0, 0);
  set_autorun(1, 1);
  set_autorun(2, 2);
  set_autorun(3, 2);
  {
    const auto daemon = Start();
    HttpClient client = Client();
    EXPECT_EQ(Ask(client, 0, "poweron"), 0);
    EXPECT_EQ(Ask(client, 2, "poweron"), 0);
    daemon->Signal(SIGKILL);
    EXPECT_TRUE(daemon->Wait(30s));
  }
  const std::string key = vexa::records::HostClaimKey(host_id_);
  Json::Value claim = Require(vexa::ParseJson(Require(Require(store_->Read())->Get(key))->text));
  EXPECT_NE(claim["boot"].asString(), "");
  claim["boot"] = "an earlier one";
  (void)Require(store_->Commit({{}, {{key, json::ToText(claim)}}}));
  {
    const auto daemon = Start();
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (!(is_running(1) && is_running(2)) && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(20ms);
    EXPECT_TRUE(daemon->WaitForText("The guest " + GuestId(1) + " was started with the machine.", 30s));
    EXPECT_TRUE(daemon->WaitForText("The guest " + GuestId(2) + " was started with the machine.", 30s));
    EXPECT_FALSE(is_running(0)) << "never";
    EXPECT_FALSE(is_running(3)) << "it did not run before";
    HttpClient client = Client();
    EXPECT_EQ(Ask(client, 1, "poweroff"), 0);
    daemon->Signal(SIGTERM);
    EXPECT_TRUE(daemon->Wait(60s));
  }
  const auto daemon = Start();
  HttpClient client = Client();
  EXPECT_EQ(Ask(client, 2, "poweron"), kAlreadyRunning);
  std::this_thread::sleep_for(3s);
  EXPECT_FALSE(is_running(1)) << "the machine was not booted";
}

TEST_F(KilledDaemon, GracefulStop_LosesNoRunningGuest) {
  {
    const auto daemon = Start();
    HttpClient client = Client();
    for (int i = 0; i < kGuests; ++i) EXPECT_EQ(Ask(client, i, "poweron"), 0);
    daemon->Signal(SIGTERM);
    const auto status = daemon->Wait(60s);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 0);
  }
  const auto daemon = Start();
  HttpClient client = Client();
  for (int i = 0; i < kGuests; ++i) EXPECT_EQ(Ask(client, i, "poweron"), kAlreadyRunning);
}

}  // namespace
