// The LMDB store with several processes, killed processes, and full disks.

#include <signal.h>

#include <random>
#include <thread>

#include "host/store/lmdb_store.h"
#include "tests/contract/store_contract.h"
#include "tests/contract/store_worker.h"

namespace vexa::store {
namespace {

using std::chrono::milliseconds;

std::shared_ptr<Store> Open(const std::string& directory) {
  auto store = OpenLmdbStore({directory, kStoreMapBytes, 1000});
  if (!store.ok()) ADD_FAILURE() << store.error().ToString();
  return store.ok() ? *store : nullptr;
}

TEST(StoreProcesses, Increments_FromSeveralProcesses_AreAllCounted) {
  const TemporaryFolder folder;
  const auto store = Open(folder.path());
  Worker first({"increment", folder.path(), "150"});
  Worker second({"increment", folder.path(), "150"});
  Worker third({"increment", folder.path(), "150"});
  for (int i = 0; i < 50; ++i) EXPECT_GE(Increment(*store, "/shared"), 0);
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.Wait(), 0);
  EXPECT_EQ(third.Wait(), 0);
  EXPECT_EQ(TextOf(*store, "/shared"), "500");
  EXPECT_EQ(ReadOf(*store)->revision(), 500u);
}

TEST(StoreProcesses, Open_NewFolderConcurrently_CreatesOneStore) {
  for (int round = 0; round < 5; ++round) {
    const TemporaryFolder folder;
    Worker first({"increment", folder.path(), "5"});
    Worker second({"increment", folder.path(), "5"});
    Worker third({"increment", folder.path(), "5"});
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_EQ(third.Wait(), 0);
    EXPECT_EQ(TextOf(*Open(folder.path()), "/shared"), "15");
  }
}

TEST(StoreProcesses, Readers_OtherProcesses_SeeCompleteTransactions) {
  const TemporaryFolder folder;
  const auto store = Open(folder.path());
  Worker first({"read_pairs", folder.path()});
  Worker second({"read_pairs", folder.path()});
  EXPECT_EQ(first.ReadLine(), "ready");
  EXPECT_EQ(second.ReadLine(), "ready");
  for (int i = 0; i < 300; ++i) {
    // The values grow, so that the readers use pages that were written after they opened the store.
    const std::string text = std::to_string(i) + std::string(static_cast<std::size_t>(i) * 100, 'x');
    ASSERT_TRUE(store->Commit({{}, {{"/l", text}, {"/r", text}}}).ok());
  }
  ASSERT_TRUE(store->Commit({{}, {{"/l", "end"}, {"/r", "end"}}}).ok());
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.Wait(), 0);
}

TEST(StoreProcesses, Watch_CommitOfAnotherProcess_IsSeen) {
  const TemporaryFolder folder;
  const auto store = Open(folder.path());
  const Revision before = Put(*store, "/a", "1");
  std::unique_ptr<Worker> worker;
  std::thread starter([&] {
    std::this_thread::sleep_for(milliseconds(50));
    worker = std::make_unique<Worker>(std::vector<std::string>{"increment", folder.path(), "1"});
    EXPECT_EQ(worker->Wait(), 0);
  });
  const auto batch = store->Watch("/shared", before, std::chrono::seconds(60));
  starter.join();
  ASSERT_TRUE(batch.ok());
  ASSERT_EQ(batch->changes.size(), 1u);
  EXPECT_EQ(batch->changes[0].key, "/shared");
}

TEST(StoreProcesses, Map_GrownByAnotherProcess_GrowsToo) {
  const TemporaryFolder folder;
  const auto opened = OpenLmdbStore({folder.path(), std::size_t{1} << 20, 1000});
  ASSERT_TRUE(opened.ok()) << opened.error().ToString();
  Put(**opened, "/a", "1");
  Worker worker({"grow", folder.path(), "100"});
  EXPECT_EQ(worker.Wait(), 0);
  EXPECT_EQ(TextOf(**opened, "/grown/99"), std::string(100'000, 'g'));
  EXPECT_EQ(ReadOf(**opened)->revision(), 101u);
}

// Every transaction that a killed writer acknowledged is there; the next one is there completely or not at all.
void CheckAcknowledged(const Store& store, long acknowledged) {
  const auto snapshot = ReadOf(store);
  const auto last = snapshot->Get("/last").value();
  const long stored = last ? std::stol(std::string(last->text)) : 0;
  ASSERT_GE(stored, acknowledged);
  ASSERT_LE(stored, acknowledged + 1);
  ASSERT_EQ(snapshot->revision(), static_cast<Revision>(stored));
  ASSERT_EQ(snapshot->Children("/ack")->size(), static_cast<std::size_t>(stored));
  for (long number = 1; number <= stored; ++number) {
    const std::string text = std::to_string(number);
    const auto left = snapshot->Get(MakeKey({"ack", text, "left"})).value();
    const auto right = snapshot->Get(MakeKey({"ack", text, "right"})).value();
    ASSERT_TRUE(left && right) << number;
    ASSERT_EQ(left->text, right->text);
    ASSERT_EQ(left->revision, static_cast<Revision>(number));
    ASSERT_EQ(right->revision, static_cast<Revision>(number));
    ASSERT_TRUE(left->text.starts_with(text + ","));
  }
}

TEST(StoreProcesses, Writer_KilledAtAnyMoment_LosesNothingAcknowledged) {
  const TemporaryFolder folder;
  std::mt19937 random(20260);
  long acknowledged = 0;
  for (int round = 0; round < 25; ++round) {
    Worker writer({"acknowledge", folder.path()});
    const std::string first = writer.ReadLine();
    ASSERT_FALSE(first.empty());
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20'000));
    writer.Kill();
    for (std::string line = first; !line.empty(); line = writer.ReadLine()) acknowledged = std::stol(line);
    EXPECT_EQ(writer.Wait(), 128 + SIGKILL);
    CheckAcknowledged(*Open(folder.path()), acknowledged);
    if (HasFatalFailure()) return;
    // The last number may have been committed and not yet printed.
    acknowledged = std::stol(TextOf(*Open(folder.path()), "/last"));
  }
}

TEST(StoreProcesses, Writer_KilledWhileOthersHaveTheStoreOpen_DoesNotStopThem) {
  const TemporaryFolder folder;
  const auto store = Open(folder.path());
  long acknowledged = 0;
  for (int round = 0; round < 5; ++round) {
    Worker writer({"acknowledge", folder.path()});
    for (int i = 0; i < 20; ++i) acknowledged = std::stol(writer.ReadLine());
    writer.Kill();
    writer.Wait();
    EXPECT_GE(std::stol(TextOf(*store, "/last")), acknowledged);
    EXPECT_GT(Put(*store, "/mine", std::to_string(round)), 0u);
  }
}

TEST(StoreProcesses, FileLimit_Reached_IsReportedAndDamagesNothing) {
  const TemporaryFolder folder;
  Worker worker({"fill_to_limit", folder.path(), "1000000"});
  const std::string refusal = worker.ReadLine();
  EXPECT_EQ(worker.Wait(), 0);
  EXPECT_EQ(refusal, "no_space");
  EXPECT_EQ(TextOf(*Open(folder.path()), "/keep"), "kept");
}

TEST(StoreProcesses, Disk_Full_IsReportedAndDamagesNothing) {
  const TemporaryFolder folder;
  Worker worker({"fill_disk", folder.path(), "1m"});
  const std::string refusal = worker.ReadLine();
  const int code = worker.Wait();
  if (code == 77) GTEST_SKIP() << "no right to mount a small disk";
  EXPECT_EQ(code, 0);
  EXPECT_EQ(refusal, "no_space");
}

// 64 concurrent readers and 8 writers, while nothing more fits.
class FullDisk : public testing::TestWithParam<const char*> {};

TEST_P(FullDisk, ReadersAndWriters_NoRoom_ReadOnUntilThereIsRoom) {
  const TemporaryFolder folder;
  Worker worker({GetParam(), folder.path(), "100000"});
  const int code = worker.Wait();
  if (code == 77) GTEST_SKIP() << "no right to mount a small disk";
  EXPECT_EQ(code, 0);
}

INSTANTIATE_TEST_SUITE_P(Disks, FullDisk, testing::Values("load_tmpfs", "load_ext4", "load_at_limit"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace
}  // namespace vexa::store
