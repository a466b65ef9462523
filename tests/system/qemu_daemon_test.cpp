// A host with real guests on QEMU, asked as users ask it; it is killed while guests run, start and stop.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "host/base/json_parse.h"
#include "host/daemon/daemon.h"
#include "host/daemon/host_id.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/http_client.h"
#include "tests/support/qemu_guest.h"
#include "tests/support/require.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";
constexpr char kRepository[] = "11111111-2222-4333-8444-00000000000a";
constexpr char kDisk[] = "11111111-2222-4333-8444-00000000000d";
constexpr auto kTimeout = 120s;

class QemuDaemon : public testing::Test {
 protected:
  // Hosts are forked, so the test program itself has no threads and keeps no store open.
  void SetUp() override {
    const std::string why_not = QemuUnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    environment_ = std::make_unique<QemuEnvironment>();
    config_.data_directory = environment_->folder() + "/data";
    config_.store_directory = config_.data_directory + "/store";
    config_.socket = environment_->folder() + "/s";
    config_.listen.clear();
    config_.hypervisor = "embed";
    config_.hypervisor_root = environment_->root();
    config_.image_roots = {environment_->folder() + "/disks"};
    ::mkdir(config_.data_directory.c_str(), 0700);
    ::mkdir(config_.image_roots[0].c_str(), 0700);
    PutRecords();
    StartHost();
  }
  void TearDown() override {
    if (host_ > 0) KillHost();
    environment_.reset();
  }

  std::string DiskFile() const { return config_.image_roots[0] + "/disk.img"; }

  void PutRecords() {
    const std::string host_id = Require(daemon::LoadHostId(config_.data_directory));
    domain_xml::GuestRecords records =
        QemuGuestRecords(kGuest, "small", environment_->Image(GuestImage::kWithAgent), BootMedium::kIso);
    std::ofstream(DiskFile()) << std::string(1 << 20, '\0');
    Json::Value disk(Json::objectValue);
    disk["guest_id"] = kGuest;
    disk["name"] = "vda";
    disk["driver"] = "raw";
    disk["vdisk_mode"] = 1;
    disk["size"] = 1;
    disk["path"] = DiskFile();
    records.disks.emplace_back(kDisk, disk);
    Json::Value& guest = records.guest;
    guest["host_id"] = host_id;
    guest["repository_id"] = kRepository;
    guest["vdisks"] = Json::Value(Json::arrayValue);
    guest["vnics"] = Json::Value(Json::arrayValue);
    Json::Value repository(Json::objectValue);
    repository["host_id"] = host_id;
    repository["state"] = VexaCCC::State::Repo::online;
    store::Transaction transaction;
    const auto put = [&](const char* category, const std::string& id, const Json::Value& record) {
      transaction.operations.push_back({store::MakeKey({"dash", category, id, "object"}), json::ToText(record)});
    };
    for (const auto& [id, record] : records.disks) {
      guest["vdisks"].append(id);
      put("vdisk", id, record);
    }
    for (const auto& [id, record] : records.nics) {
      guest["vnics"].append(id);
      put("vnic", id, record);
    }
    put("guest", kGuest, guest);
    put("repository", kRepository, repository);
    (void)Require(Store()->Commit(transaction));
  }

  std::shared_ptr<store::Store> Store() const {
    store::LmdbOptions options;
    options.directory = config_.store_directory;
    return Require(store::OpenLmdbStore(options));
  }

  void StartHost() {
    int answer[2];
    ASSERT_EQ(::pipe(answer), 0);
    host_ = ::fork();
    ASSERT_GE(host_, 0);
    if (host_ == 0) {
      ::close(answer[0]);
      environment_->ReleaseInChild();
      const auto started = daemon::Daemon::Start(config_);
      const std::string said = started ? "ready" : started.error().ToString();
      if (::write(answer[1], said.data(), said.size()) < 0) ::_exit(1);
      ::close(answer[1]);
      for (;;) ::pause();
    }
    ::close(answer[1]);
    std::string said;
    char buffer[512];
    for (ssize_t count = 0; (count = ::read(answer[0], buffer, sizeof buffer)) > 0;) {
      said.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(answer[0]);
    ASSERT_EQ(said, "ready");
  }
  void KillHost() {
    ::kill(host_, SIGKILL);
    ::waitpid(host_, nullptr, 0);
    host_ = 0;
  }

  HttpClient Client() const {
    HttpTarget target;
    target.url = "http://localhost";
    target.unix_socket = config_.socket;
    HttpClient client(target);
    client.SetTimeout(kTimeout);
    return client;
  }
  Json::Value Ask(const std::string& api_and_method, const std::string& extra_members = "") const {
    HttpClient client = Client();
    const HttpReply reply = client.PostJson("/webapi/" + api_and_method,
                                            R"({"guest_id":")" + std::string(kGuest) + "\"" + extra_members + "}");
    EXPECT_TRUE(reply.arrived()) << reply.transport_error;
    return Parsed(reply.body);
  }
  static Json::Value Parsed(const std::string& text) {
    const auto parsed = ParseJson(text);
    return parsed ? *parsed : Json::Value();
  }
  // The error code, 0 for a success.
  int Power(const std::string& action) const {
    const Json::Value reply = Ask("VEXA.Virtualization.Guest.Action/pwr_ctl", R"(,"action":")" + action + "\"");
    EXPECT_TRUE(reply.isObject());
    return json::Int(json::Member(json::Member(reply, "error"), "code"));
  }
  Json::Value Info() const { return json::Member(Ask("VEXA.Virtualization.Guest/info"), "data"); }
  bool IsAnswered() const { return json::Bool(json::Member(Info(), "answered")); }
  bool ReportsItsAddress() const {
    const Json::Value info = Info();
    for (const Json::Value& address : json::Elements(json::Member(info, "ip"))) {
      if (json::String(address) == kGuestAddress) return true;
    }
    return false;
  }
  static bool Await(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + kTimeout;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(50ms);
    }
    return true;
  }

  // QEMUs of this test that run the guest now. libvirt has others, for a moment, to ask what QEMU can do; those of a
  // host that was killed meanwhile stay.
  int Qemus() const { return CountQemus(environment_->folder(), kGuest); }
  std::string Stored(const std::string& key) const {
    const auto store = Store();
    const auto snapshot = Require(store->Read());
    const auto value = Require(snapshot->Get(key));
    return value ? std::string(value->text) : "";
  }

  std::string Seen() const {
    return std::to_string(Qemus()) + " QEMUs run, the state is " +
           Stored(store::MakeKey({"dash", "guest", kGuest, "state"})) + ", the run " + Stored(records::RunKey(kGuest));
  }

  std::unique_ptr<QemuEnvironment> environment_;
  daemon::Config config_;
  pid_t host_ = 0;
};

TEST_F(QemuDaemon, Guest_HostKilled_KeepsRunning) {
  ASSERT_EQ(Power("poweron"), 0);
  EXPECT_EQ(Qemus(), 1);
  ASSERT_TRUE(Await([&] { return ReportsItsAddress(); })) << json::ToText(Info());
  EXPECT_EQ(Info()["has_agent"], Json::Value(true));
  KillHost();
  EXPECT_EQ(Qemus(), 1);
  StartHost();
  EXPECT_EQ(Power("poweron"), 939) << "it is adopted";
  EXPECT_TRUE(Await([&] { return ReportsItsAddress(); })) << "its agent has a new listener";
  EXPECT_EQ(json::Int(json::Member(json::Member(Ask("VEXA.Virtualization.Guest/delete"), "error"), "code")), 901);
  EXPECT_EQ(Power("reboot"), 0);
  EXPECT_TRUE(Await([&] { return !ReportsItsAddress(); })) << "it goes down";
  ASSERT_TRUE(Await([&] { return ReportsItsAddress(); })) << "it is up again";
  EXPECT_EQ(Power("shutdown"), 0);
  ASSERT_TRUE(Await([&] { return !IsAnswered(); }));
  ASSERT_TRUE(Await([&] { return Qemus() == 0; }));
  ASSERT_TRUE(Await([&] { return Power("poweroff") == 904; }));
  EXPECT_EQ(Power("poweron"), 0);
  EXPECT_EQ(Power("poweroff"), 0);
  EXPECT_TRUE(Await([&] { return Qemus() == 0; }));
  EXPECT_EQ(json::Int(json::Member(json::Member(Ask("VEXA.Virtualization.Guest/delete"), "error"), "code")), 0);
  EXPECT_FALSE(std::filesystem::exists(DiskFile()));
  KillHost();
  EXPECT_EQ(Stored(store::MakeKey({"dash", "guest", kGuest, "object"})), "");
  EXPECT_EQ(Stored(records::RunKey(kGuest)), "");
}

TEST_F(QemuDaemon, Kill_DuringStartAndStop_RecordsMatchQemuAfterRestart) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 5 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const pid_t asker = ::fork();
    ASSERT_GE(asker, 0);
    if (asker == 0) {
      environment_->ReleaseInChild();
      HttpClient client = Client();
      for (int i = 0;; ++i) {
        const HttpReply reply = client.PostJson("/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl",
                                                R"({"guest_id":")" + std::string(kGuest) + R"(","action":")" +
                                                    ((i + round) % 2 == 0 ? "poweron" : "poweroff") + "\"}");
        if (!reply.arrived()) ::_exit(0);
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 2500));
    KillHost();
    ::waitpid(asker, nullptr, 0);
    StartHost();
    // A QEMU that was about to start or to end when its host was killed is ended by libvirt a little later, and the
    // host sees that when it looks again.
    const auto agrees = [&] {
      const bool runs = Qemus() == 1;
      const std::string state = Stored(store::MakeKey({"dash", "guest", kGuest, "state"}));
      return Qemus() <= 1 && (state == json::ToText(VexaCCC::State::Guest::running)) == runs &&
             Stored(records::RunKey(kGuest)).empty() != runs;
    };
    EXPECT_TRUE(Await(agrees)) << Seen();
    const bool runs = Qemus() == 1;
    EXPECT_EQ(Power("poweron"), runs ? 939 : 0);
    if (!runs) {
      EXPECT_EQ(Power("poweroff"), 0);
    }
    EXPECT_TRUE(Await(agrees)) << Seen();
    KillHost();
    StartHost();
  }
}

}  // namespace
}  // namespace vexa::test
