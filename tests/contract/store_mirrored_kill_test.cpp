// A process that mirrors a store is killed at any point. The mirror must be a state that the primary had.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "host/store/lmdb_store.h"
#include "host/store/mirrored_store.h"
#include "tests/contract/store_contract.h"

namespace vexa::store {
namespace {

using namespace std::chrono_literals;

constexpr int kSlots = 7;

// Commit n writes n to the counter and to one slot, empties another one, and fills a key with bytes.
Transaction CommitOf(int n) {
  Transaction transaction;
  transaction.operations = {
      {"/counter", std::to_string(n)},
      {"/v/" + std::to_string(n % kSlots), std::to_string(n)},
      {"/v/" + std::to_string((n + 3) % kSlots), std::nullopt},
      {"/bytes/" + std::to_string(n % 50), std::string(static_cast<std::size_t>(n * 37 % 9000), 'b')}};
  return transaction;
}

// The expected values of the slots after commit n; "-" for an empty slot.
std::string ExpectedSlots(int n) {
  std::string slots;
  for (int slot = 0; slot < kSlots; ++slot) {
    int value = 0;
    for (int i = std::max(1, n - 2 * kSlots); i <= n; ++i) {
      if (i % kSlots == slot) value = i;
      if ((i + 3) % kSlots == slot) value = 0;
    }
    slots += (value == 0 ? "-" : std::to_string(value)) + " ";
  }
  return slots;
}

int CounterOf(const Store& store) {
  const std::string text = TextOf(store, "/counter");
  return text == "(absent)" ? 0 : std::atoi(text.c_str());
}

void ExpectConsistentState(const Store& store) {
  const auto snapshot = ReadOf(store);
  const auto counter = snapshot->Get("/counter").value();
  if (!counter) {
    EXPECT_EQ(snapshot->revision(), 0u) << "a copy that was never finished";
    return;
  }
  const int n = std::atoi(std::string(counter->text).c_str());
  EXPECT_EQ(counter->revision, static_cast<Revision>(n)) << "one commit, one revision";
  EXPECT_EQ(snapshot->revision(), static_cast<Revision>(n));
  std::string slots;
  for (int slot = 0; slot < kSlots; ++slot) {
    const auto value = snapshot->Get("/v/" + std::to_string(slot)).value();
    EXPECT_TRUE(!value || std::to_string(value->revision) == value->text) << slot;
    slots += (value ? std::string(value->text) : "-") + " ";
  }
  EXPECT_EQ(slots, ExpectedSlots(n));
}

std::shared_ptr<Store> Open(const std::string& directory) {
  auto store = OpenLmdbStore({directory, kStoreMapBytes, 20});
  return store.ok() ? *store : nullptr;
}

// Runs in the child process: commits and mirrors until it is killed.
[[noreturn]] void CommitUntilKilled(const std::string& folder) {
  const std::shared_ptr<Store> primary = Open(folder + "/store");
  MirrorOptions options;
  options.directory = folder + "/mirror";
  options.batch_delay = 1ms;
  auto mirrored = MirroredStore::Make(primary, options);
  if (!primary || !mirrored.ok()) std::_Exit(3);
  for (int n = CounterOf(*primary) + 1;; ++n) {
    if (!(*mirrored)->Commit(CommitOf(n)).ok()) std::_Exit(4);
  }
}

TEST(MirrorKilled, Copy_KilledAtAnyPoint_EqualsAPrimaryState) {
#ifdef VEXA_THREAD_SANITIZER
  GTEST_SKIP() << "the thread sanitizer allows no threads in a forked child";
#endif
  const TemporaryFolder folder;
  std::mt19937 random(20);
  int complete_copies = 0;
  for (int round = 0; round < 40; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) CommitUntilKilled(folder.path());
    std::this_thread::sleep_for(std::chrono::milliseconds(5 + random() % 120));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself with " << WEXITSTATUS(status);
    if (!std::filesystem::exists(folder.path() + "/mirror/data.mdb")) continue;
    const std::shared_ptr<Store> copy = Open(folder.path() + "/mirror");
    const std::shared_ptr<Store> primary = Open(folder.path() + "/store");
    ASSERT_NE(copy, nullptr);
    ASSERT_NE(primary, nullptr);
    ExpectConsistentState(*primary);
    ExpectConsistentState(*copy);
    EXPECT_LE(ReadOf(*copy)->revision(), ReadOf(*primary)->revision()) << "behind, never ahead";
    if (ReadOf(*copy)->revision() > 0) ++complete_copies;
  }
  EXPECT_GT(complete_copies, 10) << "most rounds leave a copy";
  MirrorOptions options;
  options.directory = folder.path() + "/mirror";
  const std::shared_ptr<Store> primary = Open(folder.path() + "/store");
  auto mirrored = MirroredStore::Make(primary, options);
  ASSERT_TRUE(mirrored.ok());
  const auto end = std::chrono::steady_clock::now() + 20s;
  while ((*mirrored)->mirrored_revision() != ReadOf(*primary)->revision() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ((*mirrored)->mirrored_revision(), ReadOf(*primary)->revision()) << "the next run catches up";
}

}  // namespace
}  // namespace vexa::store
