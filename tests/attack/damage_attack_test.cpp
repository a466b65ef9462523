// The attacker is a failing disk, or somebody who wrote to the data folder while the daemon was killed: bytes of its
// files are changed, files are cut, emptied or replaced, records are nonsense. The next start must refuse the folder
// with a sentence, or serve what is left. It must never crash, hang, or show an empty database as a healthy one.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include "host/base/files.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/support/check.h"
#include "tests/support/require.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
namespace json = VexaVirtualization::json;
using std::chrono::milliseconds;

constexpr int kGuests = 5;
constexpr milliseconds kShortForm{4'000};
constexpr std::size_t kMib = std::size_t{1} << 20;

class DamageAttack : public testing::Test {
 protected:
  DamageAttack() : random_(MakeRandom()), host_(Options()) {
    FillEverything();
    host_.Kill();
    PutCache();
    fs::copy(host_.DataFolder(), intact(), fs::copy_options::recursive);
  }

  // Replies show damaged records as they are, which daemons with assertions would otherwise not survive.
  static void SetUpTestSuite() { ::setenv("VEXA_KEEP_WRONG_REPLIES", "1", 1); }

  static AttackedHostOptions Options() {
    AttackedHostOptions options;
    options.guests = kGuests;
    return options;
  }
  fs::path intact() const { return folder_.File("intact"); }

  // So that there are sessions, caches, and entries of the log.
  void FillEverything() {
    HttpClient root = host_.Root(kPatience);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(AttackedHost::Describe(root, i % kGuests, fmt::format("edit {}", i)), 0);
    ASSERT_EQ(root.PostJson("/webapi/VEXA.Virtualization.Guest/list", "{}").status, 200);
  }

  // What a program beside the daemon has left.
  void PutCache() const {
    const fs::path folder = host_.DataFolder() + "/cache/virtualization";
    fs::create_directories(folder);
    std::ofstream(folder / "guest_ui_status.json") << R"({"time":1,"version":1,"value":{}})";
  }

  // In place: a copy of the folder would be another host's.
  void RestoreFolder() const {
    for (const auto& entry : fs::recursive_directory_iterator(host_.DataFolder())) {
      const fs::path path = entry.path().lexically_relative(host_.DataFolder());
      if (entry.is_regular_file() && !fs::exists(intact() / path)) fs::remove(entry.path());
    }
    fs::copy(intact(), host_.DataFolder(), fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  }

  std::string Damage(const std::string& path);
  std::string DamageRecords();
  // Starts it and uses what is left; `what` is the damage.
  void StartAndUse(const std::string& what);
  void Use();
  void ExpectNotEmpty(HttpClient& root);

  std::mt19937 random_;
  const TempDir folder_;
  AttackedHost host_;
  int refused_ = 0;
  int whole_ = 0;
  int partly_ = 0;
};

// Returns what was done.
std::string DamageAttack::Damage(const std::string& path) {
  std::string bytes = Require(ReadFile(path, 64 * kMib));
  std::string done;
  switch (bytes.empty() ? 3 : random_() % 6) {
    case 0: {
      const unsigned count = 1 + random_() % 20;
      for (unsigned i = 0; i < count; ++i) bytes[random_() % bytes.size()] ^= static_cast<char>(1U << (random_() % 8));
      done = fmt::format("{} bits changed", count);
      break;
    }
    case 1: {
      bytes.resize(random_() % bytes.size());
      done = fmt::format("cut to {} bytes", bytes.size());
      break;
    }
    case 2:
      bytes.clear();
      done = "emptied";
      break;
    case 3:
      bytes += std::string(1 + random_() % 10'000, static_cast<char>(random_()));
      done = "made longer";
      break;
    case 4: {
      const std::size_t at = random_() % bytes.size();
      const std::size_t count = std::min<std::size_t>(bytes.size() - at, 4096);
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), count, '\0');
      done = fmt::format("{} bytes zeroed from {} on", count, at);
      break;
    }
    default: {
      for (char& byte : bytes) byte = static_cast<char>(random_());
      done = "replaced by noise";
      break;
    }
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  return fmt::format("{}: {}", fs::path(path).lexically_relative(host_.DataFolder()).string(), done);
}

// As a host that lies would write them.
std::string DamageAttack::DamageRecords() {
  static const std::vector<std::string> kNonsense = {
      "",
      "null",
      "[]",
      "{",
      "\"\"",
      "{}",
      "-1",
      "1e999",
      R"({"name":5,"vdisks":{},"host_id":[],"time":"x","users":7})",
      R"({"version":99,"next_uid":-1,"entries":null,"revision":"18446744073709551615"})",
      "\xff\xfe\xff",
      std::string(5'000, '['),
      "{\"a\":\"" + std::string(100'000, 'x') + "\"}"};
  store::LmdbOptions options;
  options.directory = host_.StoreDirectory();
  const auto opened = Require(store::OpenLmdbStore(options));
  // By their kind, "dash/guest" or "log", so that the many entries of the log do not keep the others out.
  std::map<std::string, std::vector<std::string>> keys;
  const auto snapshot = Require(opened->Read());
  (void)snapshot->Scan("", [&](std::string_view key, const auto&) {
    keys[std::string(key.substr(0, key.find('/', key.starts_with("/dash/") ? 6 : 1)))].emplace_back(key);
    return true;
  });
  if (keys.size() < 5) Fail("the database has no records");
  const unsigned count = 1 + random_() % 5;
  std::string done = "records:";
  store::Transaction transaction;
  for (unsigned i = 0; i < count; ++i) {
    const auto& of_kind = std::next(keys.begin(), static_cast<std::ptrdiff_t>(random_() % keys.size()))->second;
    const std::string& key = of_kind[random_() % of_kind.size()];
    const std::string& text = kNonsense[random_() % kNonsense.size()];
    transaction.operations.push_back({key, text});
    done += fmt::format(" {} = {}", key, text.substr(0, 80));
  }
  (void)opened->Commit(transaction);
  return done;
}

void DamageAttack::ExpectNotEmpty(HttpClient& root) {
  const HttpReply list = root.PostJson("/webapi/VEXA.Virtualization.Guest/list", "{}");
  if (list.status != 200) return;
  EXPECT_NE(list.body.find(AttackedHost::GuestId(0).substr(0, 32)), std::string::npos)
      << "an empty database looks healthy: " << list.body;
}

void DamageAttack::Use() {
  HttpClient root = host_.Root(kPatience);
  int failures = 0;
  const auto call = [&](const std::string& path, const std::string& body) {
    const HttpReply reply = root.PostJson(path, body);
    EXPECT_TRUE(reply.arrived()) << path << " " << reply.transport_error;
    if (reply.status != 200) ++failures;
  };
  ExpectNotEmpty(root);
  for (int i = 0; i < kGuests; ++i) {
    const std::string guest = fmt::format(R"("guest_id":"{}")", AttackedHost::GuestId(i));
    call(kGetPath, "{" + guest + "}");
    call("/webapi/VEXA.Virtualization.Guest/status", "{" + guest + "}");
    call(kSetPath, "{" + guest + R"(,"desc":"afterwards"})");
  }
  const std::string guest = fmt::format(R"("guest_id":"{}")", AttackedHost::GuestId(0));
  call(kPowerPath, "{" + guest + R"(,"action":"poweron"})");
  call(kPowerPath, "{" + guest + R"(,"action":"poweroff"})");
  call(kLogPath, R"({"limit":1000})");
  for (const char* list : {"Core.Account/user_list", "Core.Account/group_list", "Virtualization.Host/list",
                           "Virtualization.Repository/list", "Virtualization.Image/list"}) {
    call(std::string("/webapi/VEXA.") + list, "{}");
  }
  call("/webapi/VEXA.Core.Session/list", R"({"all":true})");
  if (host_.Login("admin").empty()) ++failures;
  // Which sessions are left is uncertain; that nobody gets another's is not.
  HttpClient mallory = host_.ClientOf("mallory", kPatience);
  EXPECT_FALSE(AttackedHost::Gets(mallory));
  EXPECT_TRUE(root.Get("/healthz").arrived());
  ++(failures == 0 ? whole_ : partly_);
}

void DamageAttack::StartAndUse(const std::string& what) {
  SCOPED_TRACE(what);
  if (!host_.TryStart()) {
    ++refused_;
    const auto status = host_.daemon().Wait(kPatience);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 1) << "signal " << status->signal.value_or(0) << "\n" << host_.LastLog();
    EXPECT_NE(host_.LastLog().find("The start failed: "), std::string::npos) << host_.LastLog();
    return;
  }
  Use();
  ASSERT_TRUE(host_.IsRunning()) << host_.LastLog();
  const auto status = host_.Stop();
  ASSERT_TRUE(status.has_value()) << "it does not stop\n" << host_.LastLog();
  EXPECT_FALSE(status->signal.has_value()) << *status->signal << "\n" << host_.LastLog();
}

TEST_F(DamageAttack, AnyFileOfTheDataFolder_IsRefusedOrServed) {
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(intact())) {
    if (entry.is_regular_file()) files.push_back(entry.path().lexically_relative(intact()).string());
  }
  std::ranges::sort(files);
  for (const char* file : {"store/data.mdb", "sessions.json", "host-id", "cache/virtualization/guest_ui_status.json"}) {
    ASSERT_TRUE(std::ranges::find(files, file) != files.end()) << file;
  }
  const AttackTime time(kShortForm);
  for (std::size_t round = 0; (!time.IsOver() || round < files.size()) && !HasFailure(); ++round) {
    RestoreFolder();
    // The database is most of the folder, so it has every second turn.
    const std::string file = round % 2 == 1 && round >= files.size() ? "store/data.mdb" : files[round % files.size()];
    StartAndUse(Damage(host_.DataFolder() + "/" + file));
  }
  RestoreFolder();
  host_.Start();
  Report(
      fmt::format("files of {} kinds: {} starts were refused with a sentence, {} served everything, {} served what "
                  "was left",
                  files.size(), refused_, whole_, partly_));
}

// The account file of an older version, which is migrated into the database at the start.
TEST_F(DamageAttack, AccountFile_IsRefusedOrMigrated) {
  const std::string taken_over = Require(ReadFile(host_.AccountFile() + ".taken-over", kMib));
  int rounds = 0;
  for (const AttackTime time(milliseconds(1'000)); (!time.IsOver() || rounds < 3) && !HasFailure(); ++rounds) {
    RestoreFolder();
    Require(WriteFileAtomically(host_.AccountFile(), taken_over, 0600));
    StartAndUse(Damage(host_.AccountFile()));
    fs::remove(host_.AccountFile());
  }
  host_.Start();
  EXPECT_FALSE(host_.Login("admin").empty()) << "the accounts in the database";
  Report(fmt::format("{} starts were refused with a sentence, {} served", refused_, whole_ + partly_));
}

TEST_F(DamageAttack, NonsenseInRecords_IsRefusedOrServed) {
  int rounds = 0;
  for (const AttackTime time(kShortForm); (!time.IsOver() || rounds < 4) && !HasFailure(); ++rounds) {
    RestoreFolder();
    StartAndUse(DamageRecords());
  }
  Report(fmt::format("{} starts were refused with a sentence, {} served everything, {} served what was left", refused_,
                     whole_, partly_));
}

}  // namespace
}  // namespace vexa::test
