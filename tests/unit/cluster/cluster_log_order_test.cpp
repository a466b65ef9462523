// Several processes write the cluster log of one store while another one follows it.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "host/store/lmdb_store.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/cluster/cluster_log_fixture.h"

namespace vexa::cluster {
namespace {

constexpr int kProcesses = 2;
constexpr int kThreads = 4;
constexpr int kEach = 200;
constexpr std::chrono::minutes kDeadline{5};

std::shared_ptr<store::Store> Open(const std::string& folder) {
  store::LmdbOptions options;
  options.directory = folder;
  return Require(store::OpenLmdbStore(options));
}

// Adds entries "<process>/<thread> <number>" from threads whose clocks differ by seconds. Returns the number of
// failures.
int Write(const std::string& folder, int process) {
  const auto store = Open(folder);
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const std::string name = std::to_string(process) + "/" + std::to_string(thread);
      for (int i = 0; i < kEach; ++i) {
        const std::int64_t time = NowUs() + (thread - 2) * 5 * kSecondUs;
        const LogEntry entry{time, "h", name, CLOG_PRIORITY_SUCCESS, name + " " + std::to_string(i), ""};
        if (!AddLogEntry(*store, entry)) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return failures;
}

// Each process must open the store itself, so they are forked before this one does.
pid_t StartWriter(const std::string& folder, int process) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(Write(folder, process) == 0 ? 0 : 1);
  return child;
}

TEST(ClusterLogOrder, Follow_WritersInTwoProcesses_GetsEveryEntryOnceInOrder) {
  const test::TempDir folder;
  std::vector<pid_t> writers;
  for (int process = 0; process < kProcesses; ++process) writers.push_back(StartWriter(folder.File("store"), process));
  const auto store = Open(folder.File("store"));
  std::vector<LogEntry> followed;
  std::int64_t position = 0;
  const auto until = std::chrono::steady_clock::now() + kDeadline;
  while (followed.size() < kProcesses * kThreads * kEach && std::chrono::steady_clock::now() < until) {
    for (LogEntry& entry : Require(ReadLogAfter(Require(records::Reader::Open(*store)), position, 7))) {
      position = entry.position;
      followed.push_back(std::move(entry));
    }
  }
  for (const pid_t writer : writers) {
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "an entry could not be added";
  }
  EXPECT_TRUE(Require(ReadLogAfter(Require(records::Reader::Open(*store)), position, 10)).empty());
  std::map<std::string, int> next;  // of each thread
  for (const LogEntry& entry : followed) {
    EXPECT_EQ(entry.text, entry.user + " " + std::to_string(next[entry.user]++)) << "missed, repeated or out of order";
  }
  EXPECT_EQ(followed.size(), static_cast<std::size_t>(kProcesses * kThreads * kEach));
}

}  // namespace
}  // namespace vexa::cluster
