// A host that is killed while its clients edit guests, at any moment and before each step: after the next start each
// edit is wholly there or not at all, and what was answered as done is there.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "host/domain_xml/domain_parse.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/guests/guest_control_fixture.h"
#include "tests/unit/guests/guest_edit_model.h"

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;
using VexaVirtualization::json::ToText;

constexpr int kClients = 4;  // each with a guest of its own
constexpr char kHost[] = "11111111-2222-4333-8444-555555555555";
constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr int kNever = 1'000'000;

// Where commits cost little, so that more of them are interrupted. What is killed is a process, not the machine.
const bool kInMemory = [] {
  std::error_code error;
  if (!std::getenv("TMPDIR") && fs::is_directory("/dev/shm", error)) ::setenv("TMPDIR", "/dev/shm", 1);
  return true;
}();

std::string GuestId(int i) { return "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c21" + std::to_string(i); }
std::string ObjectKey(const char* category, const std::string& id) {
  return store::MakeKey({"dash", category, id, "object"});
}

std::shared_ptr<store::Store> OpenStore(const test::TempDir& folder) {
  store::LmdbOptions options;
  options.directory = folder.File("store");
  return Require(store::OpenLmdbStore(options));
}

Json::Value RecordIn(const store::Store& store, const char* category, const std::string& id) {
  const auto value = Require(Require(store.Read())->Get(ObjectKey(category, id)));
  return value ? Parsed(std::string(value->text)) : Json::Value();
}

// The host in a process of its own, whose steps are counted.
class Host {
 public:
  Host(const test::TempDir& folder, int last_step) : store_(OpenStore(folder)) {
    records::Environment environment;
    environment.store = store_;
    environment.host_id = kHost;
    environment.cache_directory = folder.File("cache");
    records::InstallEnvironment(std::move(environment));
    GuestControlOptions options;
    options.store = store_;
    options.host_id = kHost;
    options.image_roots = {folder.File("images")};
    options.before_step = [this, last_step](std::string_view) {
      if (steps_++ == last_step) ::kill(::getpid(), SIGKILL);
    };
    auto started = GuestControl::Start(std::move(options));
    if (!started) ::_exit(3);
    control_ = std::move(*started);
    // What the start has done before is not what is interrupted.
    steps_ = 0;
  }
  GuestControl& control() { return *control_; }
  const store::Store& store() const { return *store_; }

 private:
  std::shared_ptr<store::Store> store_;
  std::atomic<int> steps_ = -kNever;
  std::unique_ptr<GuestControl> control_;
};

// What one client asked for, a line before and one after the answer, which nobody buffers.
class Journal {
 public:
  explicit Journal(const std::string& path)
      : file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600)) {}
  ~Journal() { ::close(file_); }
  void Write(const std::string& line) {
    const std::string text = line + "\n";
    if (::write(file_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) ::_exit(4);
  }

 private:
  const int file_;
};

// An edit of several parts, which is in order while the guest is off; adding is while it runs.
Json::Value RandomEdit(const Json::Value& guest, const store::Store& store, std::mt19937& random, int client,
                       int number) {
  const auto below = [&](unsigned limit) { return static_cast<int>(random() % limit); };
  Json::Value edit(Json::objectValue);
  // Shows whether the edit was made.
  edit["desc"] = std::to_string(random());
  edit["vcpu_num"] = 1 + below(8);
  if (below(2)) edit["name"] = "client " + std::to_string(client) + " " + std::to_string(number);
  const Json::Value& disks = guest["vdisks"];
  const Json::Value& nics = guest["vnics"];
  if (disks.size() < 5 && below(3)) {
    for (int count = 1 + below(2); count > 0; --count) {
      Json::Value& disk = edit["vdisks_add"].append(Json::objectValue);
      disk["vdisk_size"] = 1 + below(100);
      disk["format"] = below(2) ? "raw" : "qcow2";
    }
  }
  if (disks.size() > 1 && below(2)) edit["vdisks_del"][0]["vdisk_id"] = disks[0];
  if (disks.size() > 2 && below(2)) {
    const std::string id = disks[disks.size() - 1].asString();
    edit["vdisks_edit"][0]["vdisk_id"] = id;
    edit["vdisks_edit"][0]["vdisk_size"] = RecordIn(store, "vdisk", id)["size"].asInt() + 1 + below(50);
  }
  if (nics.size() > 2 || (nics.size() > 0 && below(2))) edit["vnics_del"][0]["vnic_id"] = nics[0];
  if (below(2)) {
    char mac[18];
    std::snprintf(mac, sizeof mac, "02:cc:%02x:%02x:%02x:%02x", unsigned(client), unsigned(below(256)),
                  unsigned(number) >> 8 & 0xFF, unsigned(number) & 0xFF);
    edit["vnics_add"][0]["network_id"] = "";
    edit["vnics_add"][0]["mac"] = mac;
  }
  return Parsed(ToText(edit));
}

class KilledHost : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kInMemory);
    fs::create_directories(Folder());
    model_.host_id = kHost;
    model_.repository_hosts = {{kRepository, kHost}};
    model_.repository_folders = {{kRepository, Folder()}};
    const auto store = OpenStore(folder_);
    const auto put = [&](const char* category, const std::string& id, const Json::Value& record) {
      (void)Require(store->Commit({{}, {{ObjectKey(category, id), ToText(record)}}}));
    };
    Json::Value repository(Json::objectValue);
    repository["host_id"] = kHost;
    repository["state"] = "repo_online";
    put("repository", kRepository, repository);
    put("host", kHost, Parsed(R"({"name":"nas-1"})"));
    for (int i = 0; i < kClients; ++i) {
      ModelGuest guest;
      guest.id = GuestId(i);
      guest.record = Parsed(R"({"vcpu_num":1,"vram_size":16,"cpu_pin_num":0,"state":"guest_shutdown"})");
      guest.record["name"] = "guest " + std::to_string(i);
      guest.record["host_id"] = kHost;
      guest.record["repository_id"] = kRepository;
      put("guest", guest.id, StoredRecord(guest));
      model_.guests[guest.id] = guest;
    }
  }
  std::string Folder() const { return folder_.File("images/" + std::string(kRepository)); }
  std::string JournalPath(int client) const { return folder_.File("journal-" + std::to_string(client)); }

  // True: it was killed.
  static bool Await(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) return true;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    return false;
  }

  static void EditOn(Host& host, Journal& journal, int client, const Json::Value& edit) {
    journal.Write(ToText(edit));
    const auto refused = host.control().Edit(GuestId(client), edit, kAlice);
    if (!refused.ok()) {
      journal.Write("refused " + std::to_string(refused.error().code) + " " + refused.error().reason);
    } else {
      journal.Write("done " + ToText(RecordIn(host.store(), "guest", GuestId(client))));
    }
  }

  pid_t ForkClients(unsigned seed) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    Host host(folder_, kNever);
    std::ofstream(folder_.File("ready")) << "x";
    std::vector<std::thread> clients;
    for (int client = 0; client < kClients; ++client) {
      clients.emplace_back([&, client] {
        std::mt19937 random(seed + static_cast<unsigned>(client));
        Journal journal(JournalPath(client));
        for (int number = 0; number < 1000; ++number) {
          const Json::Value guest = RecordIn(host.store(), "guest", GuestId(client));
          EditOn(host, journal, client,
                 RandomEdit(guest, host.store(), random, client, static_cast<int>(random() % 65536)));
        }
      });
    }
    for (std::thread& client : clients) client.join();
    ::_exit(0);
  }

  // The next start, which tidies up.
  void Restart() {
    const pid_t child = ::fork();
    if (child == 0) {
      { Host host(folder_, kNever); }
      ::_exit(0);
    }
    EXPECT_FALSE(Await(child));
  }

  // The model after the replies that the client got; the edit without a reply may be there or not.
  void Follow(int client, const store::Store& store) {
    ModelGuest& guest = model_.guests.at(GuestId(client));
    const Json::Value stored = RecordIn(store, "guest", guest.id);
    std::ifstream journal(JournalPath(client));
    std::string line;
    while (std::getline(journal, line)) {
      SCOPED_TRACE(line);
      ModelOutcome outcome = model_.Predict(guest.id, Parsed(line));
      ASSERT_TRUE(outcome.codes.empty());
      std::string answer;
      if (std::getline(journal, answer)) {
        ASSERT_TRUE(answer.starts_with("done ")) << answer;
        EditModel::Learn(outcome.after, Parsed(answer.substr(5)));
        guest = outcome.after;
        ++done_;
        continue;
      }
      ++unanswered_;
      if (stored["desc"] == outcome.after.record["desc"]) {
        EditModel::Learn(outcome.after, stored);
        guest = outcome.after;
        ++there_;
      }
    }
    fs::remove(JournalPath(client));
  }

  void ExpectAgreement() {
    const auto store = OpenStore(folder_);
    for (int client = 0; client < kClients; ++client) Follow(client, *store);
    std::map<std::string, std::string> expected;
    for (const auto& [id, guest] : model_.guests) {
      expected[ObjectKey("guest", id)] = ToText(StoredRecord(guest));
      for (const ModelPart& disk : guest.disks) expected[ObjectKey("vdisk", disk.id)] = ToText(disk.record);
      for (const ModelPart& nic : guest.nics) expected[ObjectKey("vnic", nic.id)] = ToText(nic.record);
    }
    std::map<std::string, std::string> stored;
    Require(Require(store->Read())->Scan("", [&](std::string_view key, const store::ValueView& value) {
      EXPECT_FALSE(key.starts_with("/edit/")) << key << ": " << value.text;
      const bool is_part =
          key.starts_with("/dash/guest/") || key.starts_with("/dash/vdisk/") || key.starts_with("/dash/vnic/");
      if (is_part && key.ends_with("/object")) stored.emplace(key, value.text);
      return true;
    }));
    for (const auto& [key, text] : expected) {
      EXPECT_TRUE(stored.contains(key)) << "lost: " << key << ": " << text;
      if (stored.contains(key)) {
        EXPECT_EQ(stored.at(key), text) << key;
      }
    }
    for (const auto& [key, text] : stored) EXPECT_TRUE(expected.contains(key)) << "too much: " << key << ": " << text;
    std::map<std::string, std::int64_t> files;
    for (const auto& entry : fs::directory_iterator(Folder())) {
      auto size = domain_xml::ReadImageSize(entry.path(), domain_xml::ImageFormat::kQcow2);
      if (!size) size = domain_xml::ReadImageSize(entry.path(), domain_xml::ImageFormat::kRaw);
      files[entry.path()] = size ? static_cast<std::int64_t>(*size) : -1;
    }
    EXPECT_EQ(files, model_.Files());
    for (const auto& [id, guest] : model_.guests) ExpectMachine(guest, *store);
  }

  static void ExpectMachine(const ModelGuest& guest, const store::Store& store) {
    domain_xml::GuestRecords records;
    records.id = guest.id;
    records.guest = RecordIn(store, "guest", guest.id);
    for (const Json::Value& id : records.guest["vdisks"]) {
      records.disks.emplace_back(id.asString(), RecordIn(store, "vdisk", id.asString()));
    }
    for (const Json::Value& id : records.guest["vnics"]) {
      records.nics.emplace_back(id.asString(), RecordIn(store, "vnic", id.asString()));
    }
    const auto xml = domain_xml::BuildDomainXml(records, {});
    ASSERT_TRUE(xml) << xml.error().ToString();
    for (const ModelPart& disk : guest.disks)
      EXPECT_THAT(*xml, HasSubstr("\"" + disk.record["path"].asString() + "\""));
    for (const ModelPart& nic : guest.nics) EXPECT_THAT(*xml, HasSubstr(nic.record["mac_address"].asString()));
  }

  test::TempDir folder_;
  EditModel model_;
  int done_ = 0;
  int unanswered_ = 0;
  int there_ = 0;  // of those
};

TEST_F(KilledHost, Edit_KilledAtAnyMoment_IsAllOrNothing) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < VEXA_KILL_ROUNDS && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    fs::remove(folder_.File("ready"));
    const pid_t child = ForkClients(random());
    while (!fs::exists(folder_.File("ready"))) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % (VEXA_KILL_WITHIN_MS * 1000)));
    ::kill(child, SIGKILL);
    EXPECT_TRUE(Await(child));
    Restart();
    ExpectAgreement();
  }
  std::printf("  done: %d, not answered: %d, of which %d are there\n", done_, unanswered_, there_);
  EXPECT_GT(done_, VEXA_KILL_ROUNDS / 4);
  EXPECT_GT(unanswered_, VEXA_KILL_ROUNDS / 2);
}

TEST_F(KilledHost, Edit_KilledBeforeEachStep_IsAllOrNothing) {
  int step = 0;
  for (bool is_killed = true; is_killed && !HasFailure(); ++step) {
    SCOPED_TRACE("before step " + std::to_string(step));
    // First two disks are made, in place of what the steps before have left; then one is removed and one grows.
    for (int turn = 0; turn < 2; ++turn) {
      const pid_t child = ::fork();
      if (child == 0) {
        Host host(folder_, turn == 0 ? kNever : step);
        Journal journal(JournalPath(0));
        const Json::Value guest = RecordIn(host.store(), "guest", GuestId(0));
        const Json::Value& disks = guest["vdisks"];
        Json::Value edit = Parsed(R"({"vdisks_add":[{"vdisk_size":8},{"vdisk_size":8,"format":"raw"}],
                                      "vnics_add":[{"network_id":"","mac":"02:cc:00:00:00:01"}]})");
        edit["desc"] = edit["name"] = "step " + std::to_string(step) + "." + std::to_string(turn);
        const Json::ArrayIndex kept = turn == 0 ? 0 : 1;
        for (Json::ArrayIndex i = 0; i + kept < disks.size(); ++i) {
          edit["vdisks_del"].append(Json::objectValue)["vdisk_id"] = disks[i];
        }
        if (turn == 1) {
          edit["vdisks_edit"][0]["vdisk_id"] = disks[1];
          edit["vdisks_edit"][0]["vdisk_size"] = 100 + step;
        }
        if (!guest["vnics"].empty()) edit["vnics_del"][0]["vnic_id"] = guest["vnics"][0];
        EditOn(host, journal, 0, Parsed(ToText(edit)));
        ::_exit(0);
      }
      is_killed = Await(child);
      EXPECT_TRUE(turn == 1 || !is_killed);
      Restart();
      ExpectAgreement();
    }
  }
  std::printf("  steps: %d, not answered: %d, of which %d are there\n", step, unanswered_, there_);
  EXPECT_GT(step, 9);
  EXPECT_GT(there_, 1);
  EXPECT_GT(unanswered_ - there_, 5);
}

}  // namespace
}  // namespace vexa::guests
