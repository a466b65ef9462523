// The daemon and its commands with a database that is missing, held by another process or not writable.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/matchers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vexad_client.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kTimeout{60};

class VexadStore : public testing::Test {
 protected:
  std::vector<std::string> Arguments(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{VEXAD_PROGRAM, "--data",          folder_.File(data_name_),
                                       "--socket",    folder_.File("s"), "--listen",
                                       "127.0.0.1:0", "--log",           "stderr"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  std::unique_ptr<Process> Start(const std::vector<std::string>& more = {}) const {
    auto process = std::make_unique<Process>(ProcessOptions{.argv = Arguments(more)});
    EXPECT_TRUE(process->WaitForText("Ready.", kTimeout)) << process->errors();
    return process;
  }
  void StartAndStop(const std::vector<std::string>& more = {}) const { Stop(*Start(more)); }
  static void Stop(Process& process) {
    process.Signal(SIGTERM);
    const auto status = process.Wait(kTimeout);
    ASSERT_TRUE(status.has_value()) << "it still runs";
    EXPECT_EQ(status->code, 0) << process.errors();
  }
  void ExpectRefused(const std::vector<std::string>& more, const std::string& reason) const {
    const auto result = RunProcess({.argv = Arguments(more)});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, HasSubstr(reason));
  }
  HttpReply Health() const { return HttpClient(UnixSocket(folder_.File("s"))).Get("/healthz"); }

  TempDir folder_;
  std::string data_name_ = "data";
};

TEST_F(VexadStore, Start_StoreIsGone_IsRefusedUntilANewOneIsRequested) {
  StartAndStop();
  for (const std::vector<std::string>& store :
       {std::vector<std::string>{}, std::vector<std::string>{"--store", folder_.File("shared")}}) {
    const std::string path = store.empty() ? folder_.File("data/store") : store.back();
    fs::remove_all(path);
    ExpectRefused(store, "'" + path + "' does not contain a database");
    EXPECT_FALSE(fs::exists(path + "/data.mdb"));
    const auto add = RunProcess({.argv = {VEXA_PROGRAM, "user", "add", "alice", "--data", folder_.File("data"),
                                          "--store", path, "--password-stdin"},
                                 .input = "good password\n"});
    EXPECT_EQ(add.exit_code, 1);
    EXPECT_THAT(add.errors, HasSubstr("vexad --new-store"));
    EXPECT_FALSE(fs::exists(path + "/data.mdb"));

    std::vector<std::string> anew = store;
    anew.push_back("--new-store");
    StartAndStop(anew);
    ExpectRefused(anew, "Leave out --new-store");
    StartAndStop(store);
  }
}

// The refusal says where the database was, so that a folder that was moved is not taken for a lost one.
TEST_F(VexadStore, Start_MarkIsOfAnotherFolder_SaysWhereTheDatabaseWas) {
  StartAndStop();
  const std::string own = folder_.File("data/store");
  const std::string shared = folder_.File("shared");
  ExpectRefused({"--store", shared}, "The folder '" + shared +
                                         "' does not contain a database. This host used the one in '" + own +
                                         "' before. Use that folder (setting 'store'), or move the database here.");
  fs::rename(own, shared);
  StartAndStop({"--store", shared});
  ExpectRefused({}, "This host used the one in '" + shared + "' before.");

  const std::string moved = folder_.File("moved");
  fs::create_directory(moved);
  ASSERT_EQ(::chmod(moved.c_str(), 0700), 0);
  fs::copy_file(folder_.File("data/store-used"), moved + "/store-used");
  data_name_ = "moved";
  ExpectRefused({}, "The folder '" + moved + "/store' does not contain a database. The data folder '" + moved +
                        "' was moved or copied from '" + folder_.File("data") + "', whose database was in '" + shared +
                        "'.");
  EXPECT_FALSE(fs::exists(moved + "/store/data.mdb"));

  fs::rename(shared, own);
  fs::remove_all(moved);
  fs::rename(folder_.File("data"), moved);
  StartAndStop();
  fs::remove_all(moved + "/store");
  ExpectRefused({}, "although this host used one there before");
}

// A mark of an older version names no folder.
TEST_F(VexadStore, Start_StoreIsGoneAndMarkIsOld_IsRefused) {
  StartAndStop();
  std::ofstream(folder_.File("data/store-used")) << "This host has used a store.\n";
  fs::remove_all(folder_.File("data/store"));
  ExpectRefused({}, "although this host used one there before");
}

TEST_F(VexadStore, UserAdd_BeforeTheFirstStart_SetsTheMark) {
  fs::create_directory(folder_.File("data"));
  ASSERT_EQ(::chmod(folder_.File("data").c_str(), 0700), 0);
  const ProcessOptions add{
      .argv = {VEXA_PROGRAM, "user", "add", "alice", "--data", folder_.File("data"), "--password-stdin"},
      .input = "good password\n"};
  const auto added = RunProcess(add);
  EXPECT_EQ(added.exit_code, 0) << added.errors;
  fs::remove_all(folder_.File("data/store"));
  ExpectRefused({}, "although this host used one there before");
}

TEST_F(VexadStore, UserAdd_MarkCannotBeSet_SaysSo) {
  StartAndStop({"--store", folder_.File("shared")});
  ASSERT_TRUE(fs::remove(folder_.File("data/store-used")));
  fs::create_directories(folder_.File("data/store-used/full"));
  const auto added = RunProcess({.argv = {VEXA_PROGRAM, "user", "add", "alice", "--data", folder_.File("data"),
                                          "--store", folder_.File("shared"), "--password-stdin"},
                                 .input = "good password\n"});
  EXPECT_EQ(added.exit_code, 0);
  EXPECT_THAT(added.errors, HasSubstr("A missing database will not be noticed later: "));
}

// A file that was cut to nothing would otherwise become a new, empty database.
TEST_F(VexadStore, Start_StoreIsAnEmptyFile_IsRefused) {
  StartAndStop();
  fs::resize_file(folder_.File("data/store/data.mdb"), 0);
  ExpectRefused({}, "does not contain a database");
  EXPECT_EQ(fs::file_size(folder_.File("data/store/data.mdb")), 0u);
}

// The copy of a shared database does not stand in the way of a new one.
TEST_F(VexadStore, NewStore_BesideACopyOfTheOldOne_Starts) {
  const std::vector<std::string> store{"--store", folder_.File("shared")};
  StartAndStop(store);
  ASSERT_TRUE(fs::exists(folder_.File("data/mirror/data.mdb")));
  fs::remove_all(folder_.File("shared"));
  ExpectRefused(store, "vexad --new-store");
  StartAndStop({"--store", folder_.File("shared"), "--new-store"});
}

// A data folder of an older version has no mark until it has been started once.
TEST_F(VexadStore, Start_DataFolderWithoutMark_GetsOne) {
  StartAndStop();
  ASSERT_TRUE(fs::remove(folder_.File("data/store-used")));
  StartAndStop();
  EXPECT_TRUE(fs::exists(folder_.File("data/store-used")));
}

TEST_F(VexadStore, Start_DataFolderWritableByOthers_IsRefused) {
  StartAndStop();
  const std::string data = folder_.File("data");
  for (const mode_t mode : {0777U, 0770U, 0702U}) {
    ASSERT_EQ(::chmod(data.c_str(), mode), 0);
    ExpectRefused({}, "run: chmod go-w '" + data + "'");
    const auto list = RunProcess({.argv = {VEXA_PROGRAM, "user", "list", "--data", data}});
    EXPECT_EQ(list.exit_code, 1);
    EXPECT_THAT(list.errors, HasSubstr("chmod go-w"));
  }
  for (const mode_t mode : {0755U, 0700U}) {
    ASSERT_EQ(::chmod(data.c_str(), mode), 0);
    StartAndStop();
  }
}

TEST_F(VexadStore, Store_HeldByStoppedProcess_IsReportedAndDoesNotDelayTheStop) {
  const auto process = Start();
  Process holder({.argv = {STORE_TEST_WORKER_PROGRAM, "stop_in_commit", folder_.File("data/store")}});
  ASSERT_TRUE(holder.WaitForText("holds", kTimeout));
  // On a slow machine, missing heartbeats are reported first.
  const testing::Matcher<std::string> is_held = HasSubstr("held by another process");
  HttpReply health = Health();
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  while (!testing::Matches(is_held)(health.body) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    health = Health();
  }
  EXPECT_EQ(health.status, 503);
  EXPECT_THAT(health.body, is_held);
  EXPECT_TRUE(process->WaitForText("(pid " + std::to_string(holder.pid()) + ")", kTimeout)) << process->errors();
  Stop(*process);
}

// It has the lock when the daemon begins to stop, and no call has noticed yet. The stop does not take the 10 s that
// commits wait for a lock otherwise.
TEST_F(VexadStore, Stop_StoreHasJustBeenTaken_EndsInItsTime) {
  const auto process = Start({"--stop-timeout", "30"});
  Process holder({.argv = {STORE_TEST_WORKER_PROGRAM, "stop_in_commit", folder_.File("data/store")}});
  ASSERT_TRUE(holder.WaitForText("holds", kTimeout));
  Stop(*process);
  EXPECT_THAT(process->errors(),
              HasSubstr("The claim of this host's id could not be released: The database is held by another process "
                        "(pid " +
                        std::to_string(holder.pid()) +
                        ") for more than 1000 ms. Let it continue, or end it. Nothing was changed\n"));
  EXPECT_THAT(process->errors(), Not(HasSubstr("could not sign off")));
  EXPECT_THAT(process->errors(), Not(HasSubstr("did not finish in time")));
}

TEST_F(VexadStore, Stop_DiskHangs_EndsInItsTimeAndSaysSo) {
  const std::string hangs = folder_.File("hangs");
  auto arguments = Arguments({"--stop-timeout", "3"});
  arguments[0] = VEXAD_ON_HANGING_DISK_PROGRAM;
  Process process({.argv = arguments, .environment = {{"VEXA_TEST_HANGING_DISK", hangs}}});
  ASSERT_TRUE(process.WaitForText("Ready.", kTimeout)) << process.errors();
  std::ofstream(hangs) << "yes";
  ASSERT_TRUE(process.WaitForText("A sync hangs.", kTimeout)) << "a heartbeat is due every three seconds";
  Stop(process);
  EXPECT_THAT(
      process.errors(),
      HasSubstr("This host could not sign off: the database or its disk did not respond in the time of the stop."));
  EXPECT_THAT(process.errors(), HasSubstr("Some work did not finish in time, and is left behind."));
  ASSERT_TRUE(fs::remove(hangs));
  StartAndStop();
}

TEST_F(VexadStore, FileSizeLimit_IsIgnoredAsASignal) {
  ::signal(SIGXFSZ, SIG_DFL);  // children inherit what the program that runs this one ignores
  const auto process = Start();
  std::ifstream status("/proc/" + std::to_string(process->pid()) + "/status");
  std::string line;
  while (std::getline(status, line) && !line.starts_with("SigIgn:")) {
  }
  ASSERT_TRUE(line.starts_with("SigIgn:"));
  const auto ignored = std::stoull(line.substr(line.find('\t') + 1), nullptr, 16);
  EXPECT_NE(ignored >> (SIGXFSZ - 1) & 1U, 0U);
  Stop(*process);
}

TEST_F(VexadStore, LocalCommand_AtFileSizeLimit_ReportsIt) {
  fs::create_directory(folder_.File("data"));
  const auto add = RunProcess({.argv = {"sh", "-c", R"(ulimit -f 16; exec "$0" "$@")", VEXA_PROGRAM, "user", "add",
                                        "alice", "--data", folder_.File("data"), "--password-stdin"},
                               .input = "good password\n"});
  EXPECT_EQ(add.exit_code, 1) << "a signal ended it";
  EXPECT_THAT(add.errors, HasSubstr("File too large"));
}

}  // namespace
}  // namespace vexa::test
