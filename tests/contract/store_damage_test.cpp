// Damaged data files: what the check of pages at the opening finds, and that LMDB survives the rest.
#include <fstream>
#include <random>
#include <sstream>

#include "host/store/key.h"
#include "host/store/lmdb_environment.h"
#include "host/store/lmdb_format.h"
#include "host/store/lmdb_store.h"
#include "tests/contract/store_contract.h"
#include "tests/contract/store_worker.h"
#include "tests/support/matchers.h"

namespace vexa::store {
namespace {

constexpr std::size_t kPage = 4096;

class DamagedPages : public testing::Test {
 protected:
  std::shared_ptr<Store> Open() const {
    const auto store = OpenLmdbStore({folder_.path(), kStoreMapBytes, 1000});
    if (!store.ok()) ADD_FAILURE() << store.error().ToString();
    return store.ok() ? *store : nullptr;
  }
  std::string OpenError() const {
    const auto store = OpenLmdbStore({folder_.path(), kStoreMapBytes, 1000});
    if (store.ok()) return "";
    EXPECT_EQ(store.error().code(), ErrorCode::kCorrupt);
    return store.error().ToString();
  }
  std::string Content() const {
    std::ifstream in(data_file_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void Write(const std::string& content) const {
    std::ofstream(data_file_, std::ios::binary | std::ios::trunc)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
  }

  TemporaryFolder folder_;
  const std::string data_file_ = folder_.path() + "/data.mdb";
};

TEST_F(DamagedPages, Open_PageOfLastCommit_NamesItAndTheIntactState) {
  std::string before;
  {
    const auto store = Open();
    for (int i = 0; i < 300; ++i) Put(*store, MakeKey({"k", std::to_string(i)}), std::string(200, 'v'));
    before = Content();
    Put(*store, "/k/150", "changed");
  }
  const std::string after = Content();
  int damaged = 0;
  for (std::size_t page = 2; (page + 1) * kPage <= after.size(); ++page) {
    const bool is_new =
        before.size() < (page + 1) * kPage || before.compare(page * kPage, kPage, after, page * kPage, kPage) != 0;
    if (!is_new) continue;
    std::string content = after;
    content[page * kPage + 10] = 0x40;  // its flags
    Write(content);
    const std::string error = OpenError();
    EXPECT_THAT(error, HasSubstr("Page " + std::to_string(page) + " of the database"));
    EXPECT_THAT(error, HasSubstr("Only the last change is affected"));
    EXPECT_THAT(error, HasSubstr("Restore a backup"));
    ++damaged;
  }
  EXPECT_GE(damaged, 3) << "a leaf with the value, one with the change, one with the revision";
  Write(after);
  EXPECT_EQ(TextOf(*Open(), "/k/150"), "changed");
}

TEST_F(DamagedPages, Open_PageOfBothStates_SaysSo) {
  {
    const auto store = Open();
    for (int i = 0; i < 300; ++i) Put(*store, MakeKey({"k", std::to_string(i)}), std::string(200, 'v'));
    Put(*store, "/z", "last");
  }
  const std::string content = Content();
  int damaged_in_both = 0;
  for (std::size_t page = 2; (page + 1) * kPage <= content.size(); ++page) {
    std::string damaged = content;
    damaged[page * kPage + 10] = 0x40;
    Write(damaged);
    const auto store = OpenLmdbStore({folder_.path(), kStoreMapBytes, 1000});
    if (store.ok()) continue;  // a free page
    if (store.error().ToString().find("is damaged too") != std::string::npos) ++damaged_in_both;
  }
  EXPECT_GT(damaged_in_both, 10);
}

TEST_F(DamagedPages, Open_FileWithoutItsLastPages_IsRefused) {
  {
    const auto store = Open();
    for (int i = 0; i < 300; ++i) Put(*store, MakeKey({"k", std::to_string(i)}), std::string(200, 'v'));
  }
  const std::string content = Content();
  for (std::size_t pages = 2; pages * kPage < content.size(); ++pages) {
    Write(content.substr(0, pages * kPage));
    EXPECT_NE(OpenError(), "") << pages;
  }
}

TEST_F(DamagedPages, Open_OtherFormat_NamesBoth) {
  {
    const auto environment = LmdbEnvironment::Open({folder_.path(), kStoreMapBytes, 1000});
    ASSERT_TRUE(environment.ok());
    auto transaction = (*environment)->BeginWrite();
    ASSERT_TRUE(transaction.ok());
    ASSERT_EQ(PutNumber(transaction->get(), (*environment)->meta(), kFormatName, 7), 0);
    ASSERT_EQ(transaction->Commit(), 0);
  }
  const std::string error = OpenError();
  EXPECT_THAT(error, HasSubstr("has format 7"));
  EXPECT_THAT(error, HasSubstr("This version can read format 1"));
}

TEST_F(DamagedPages, Open_OtherFileFormat_NamesBoth) {
  Open();
  std::string content = Content();
  for (const std::size_t page : {0, 1}) content[page * kPage + 20] = 2;
  Write(content);
  EXPECT_THAT(OpenError(), HasSubstr("has version 2 of the file format. This program can read version 1"));
}

// What LMDB writes is never taken for damage: pages that split and merge, long lists of free pages, values that change
// their size.
TEST_F(DamagedPages, Open_AfterAnyChanges_IsNotRefused) {
  std::mt19937 random(9);
  for (int round = 0; round < 20; ++round) {
    const auto store = Open();
    ASSERT_NE(store, nullptr) << "round " << round;
    // The pages that it sees are freed later, together.
    auto snapshot = round % 3 == 0 ? ReadOf(*store) : nullptr;
    const std::size_t largest = round % 5 == 0 ? 60'000 : 400;
    for (int commit = 0; commit < 20; ++commit) {
      Transaction transaction;
      for (std::size_t i = random() % 150; i > 0; --i) {
        const std::string key = MakeKey({"k" + std::to_string(random() % 3000), std::string(random() % 40, 'x')});
        std::optional<std::string> text;
        if (round % 7 != 6 && random() % 3 != 0) text = std::string(random() % largest, 'v');
        transaction.operations.push_back({key, std::move(text)});
      }
      ASSERT_TRUE(store->Commit(transaction).ok());
    }
  }
}

// Every copy is refused, or is read and written to without an end of the process.
class DamagedCopies : public testing::TestWithParam<int> {};

TEST_P(DamagedCopies, Use_RandomDamage_NeverEndsTheProcess) {
  const TemporaryFolder folder;
  Worker worker({"use_damaged", folder.path(), std::to_string(GetParam())});
  const std::string counts = worker.ReadLine();
  std::ifstream number_file(folder.path() + "/number");
  std::string number;
  number_file >> number;
  EXPECT_EQ(worker.Wait(), 0) << "with copy " << number;
  int refused = 0;
  int opened = 0;
  std::istringstream(counts) >> refused >> opened;
  EXPECT_GT(refused, 100);
  EXPECT_GT(opened, 20);
}

INSTANTIATE_TEST_SUITE_P(Seeds, DamagedCopies, testing::Range(1, 7));

}  // namespace
}  // namespace vexa::store
