// The power fails while threads commit to a store, or to one that is mirrored.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "host/store/key.h"
#include "host/store/lmdb_keyspace.h"
#include "host/store/lmdb_store.h"
#include "host/store/lost_store.h"
#include "host/store/mirrored_store.h"
#include "tests/powerloss/power_cuts.h"
#include "tests/powerloss/recorded_program.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"

namespace vexa::powerloss {
namespace {

using namespace std::chrono_literals;

constexpr int kThreads = 4;
constexpr int kKeptPairs = 3;

struct Committed {
  std::map<int, int> last;  // the number of each thread's last commit
  store::Revision revision = 0;
};

class CommittedStore : public testing::Test {
 protected:
  CommittedStore() { std::filesystem::create_directory(Root()); }
  std::string Root() const { return folder_.File("root"); }

  void Record(std::vector<std::string> argv) {
    argv.insert(argv.begin(), STORE_COMMITTER_PROGRAM);
    RecordedProgram program(Root(), folder_.File("recording"), {.argv = std::move(argv)});
    const auto ended = program.process().Wait(120s);
    ASSERT_TRUE(ended && ended->code == 0) << program.process().errors();
    model_ = std::make_unique<DiskModel>(program.Calls());
    ASSERT_EQ(disk_.FindDifference(*model_), "");
  }

  // What had been acknowledged when `cut` calls had ended.
  Committed AcknowledgedBefore(std::size_t cut) const {
    Committed acknowledged;
    for (std::size_t i = 0; i < std::min(cut, model_->calls().size()); ++i) {
      const Call& call = model_->calls()[i];
      if (call.kind != CallKind::kReply || call.descriptor != 1) continue;
      std::istringstream line(call.bytes);
      int thread = 0;
      int number = 0;
      store::Revision revision = 0;
      EXPECT_TRUE(line >> thread >> number >> revision) << call.bytes;
      acknowledged.last[thread] = number;
      acknowledged.revision = std::max(acknowledged.revision, revision);
    }
    return acknowledged;
  }

  // Every transaction is there completely or not at all.
  static Committed WhatIsIn(const store::Snapshot& snapshot) {
    Committed found;
    found.revision = snapshot.revision();
    std::map<std::pair<int, int>, std::map<std::string, std::string>> pairs;
    EXPECT_TRUE(snapshot.Scan("", [&](std::string_view key, const store::ValueView& value) {
      std::istringstream path{std::string(key)};
      std::string part;
      std::getline(path, part, '/');
      std::getline(path, part, '/');
      const bool is_last = part == "last";
      std::getline(path, part, '/');
      const int thread = std::stoi(part);
      if (is_last) {
        found.last[thread] = std::stoi(std::string(value.text));
        return true;
      }
      std::getline(path, part, '/');
      const int number = std::stoi(part);
      std::getline(path, part, '/');
      pairs[{thread, number}][part] = value.text;
      return true;
    }));
    std::size_t expected = 0;
    for (const auto& [thread, last] : found.last) {
      for (int number = std::max(1, last - kKeptPairs + 1); number <= last; ++number, ++expected) {
        const auto& sides = pairs[{thread, number}];
        EXPECT_EQ(sides.size(), 2u) << thread << " " << number;
        EXPECT_TRUE(sides.contains("left") && sides.at("left") == sides.at("right")) << thread << " " << number;
        EXPECT_TRUE(sides.at("left").starts_with(std::to_string(number) + ","));
      }
    }
    EXPECT_EQ(pairs.size(), expected);
    return found;
  }

  static void ExpectAcknowledged(const Committed& acknowledged, const Committed& found) {
    EXPECT_GE(found.revision, acknowledged.revision);
    for (int thread = 0; thread < kThreads; ++thread) {
      const auto number_of = [thread](const Committed& of) {
        return of.last.contains(thread) ? of.last.at(thread) : 0;
      };
      EXPECT_GE(number_of(found), number_of(acknowledged)) << "thread " << thread;
      EXPECT_LE(number_of(found), number_of(acknowledged) + 1) << "thread " << thread;
    }
  }

  static std::shared_ptr<store::Store> Open(const std::string& folder) {
    store::LmdbOptions options;
    options.directory = folder;
    auto store = store::OpenLmdbStore(options);
    EXPECT_TRUE(store.ok()) << store.error().ToString();
    return store.ok() ? *store : nullptr;
  }

  // It can be written, and opened again.
  static void ExpectUsable(const std::string& folder) {
    const auto store = Open(folder);
    ASSERT_TRUE(store);
    const auto committed = store->Commit({{}, {{store::MakeKey({"last", "9"}), std::string("0")}}});
    ASSERT_TRUE(committed.ok()) << committed.error().ToString();
    const auto removed = store->Commit({{}, {{store::MakeKey({"last", "9"}), std::nullopt}}});
    EXPECT_TRUE(removed.ok());
  }

  test::TempDir folder_;
  DiskFolder disk_{Root(), folder_.File("spare")};
  std::unique_ptr<DiskModel> model_;
};

TEST_F(CommittedStore, PowerFails_AcknowledgedCommitsAreThereAndOthersWholeOrAbsent) {
  const std::string store_folder = Root() + "/store";
  ASSERT_NO_FATAL_FAILURE(Record({"12", store_folder}));
  for (const PowerCut& cut : ChooseCuts(*model_, model_->start(), 800)) {
    SCOPED_TRACE(Describe(cut, *model_));
    std::mt19937 random(cut.seed);
    disk_.Put(model_->After(cut.at, cut.loss, random), random);
    {
      const auto store = Open(store_folder);
      ASSERT_TRUE(store);
      ExpectAcknowledged(AcknowledgedBefore(cut.at), WhatIsIn(*Require(store->Read())));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectUsable(store_folder));
    if (HasFailure()) return;
  }
}

// The primary and the copy are on the same disk.
TEST_F(CommittedStore, PowerFailsOfMirroredStore_CopyIsAStateThatThePrimaryHad) {
  const std::string primary_folder = Root() + "/primary";
  const std::string copy_folder = Root() + "/mirror";
  ASSERT_NO_FATAL_FAILURE(Record({"8", primary_folder, copy_folder}));
  for (const PowerCut& cut : ChooseCuts(*model_, model_->start(), 400)) {
    SCOPED_TRACE(Describe(cut, *model_));
    std::mt19937 random(cut.seed);
    disk_.Put(model_->After(cut.at, cut.loss, random), random);
    EXPECT_TRUE(store::CheckPrimaryExists(primary_folder, copy_folder));
    const auto primary = Open(primary_folder);
    ASSERT_TRUE(primary);
    const Committed found = WhatIsIn(*Require(primary->Read()));
    ExpectAcknowledged(AcknowledgedBefore(cut.at), found);
    EXPECT_TRUE(store::CheckPrimaryIsNotOlder(*primary, copy_folder));
    if (store::HasStore(copy_folder)) {
      store::LmdbOptions options;
      options.directory = copy_folder;
      const auto copy = store::LmdbKeyspace::Open(options);
      ASSERT_TRUE(copy.ok()) << copy.error().ToString();
      EXPECT_LE(WhatIsIn(*Require((*copy)->Read())).revision, found.revision);
    }
    store::MirrorOptions options;
    options.directory = copy_folder;
    const auto mirrored = Require(store::MirroredStore::Make(primary, options));
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (mirrored->mirrored_revision() < found.revision && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(mirrored->mirrored_revision(), found.revision);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace vexa::powerloss
