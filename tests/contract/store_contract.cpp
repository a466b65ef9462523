#include "tests/contract/store_contract.h"
#include "tests/support/matchers.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace vexa::store {
namespace {

using std::chrono::milliseconds;

std::vector<std::string> ChildrenOf(const Store& store, const std::string& prefix) {
  const auto snapshot = ReadOf(store);
  const auto children = snapshot->Children(prefix);
  EXPECT_TRUE(children.ok()) << children.error().ToString();
  return children.ok() ? *children : std::vector<std::string>{"(error)"};
}

std::vector<std::string> KeysBelow(const Store& store, const std::string& prefix) {
  std::vector<std::string> keys;
  const auto snapshot = ReadOf(store);
  const Status scanned = snapshot->Scan(prefix, [&](std::string_view key, const ValueView&) {
    keys.emplace_back(key);
    return true;
  });
  EXPECT_TRUE(scanned.ok()) << scanned.error().ToString();
  return keys;
}

TEST_P(StoreContract, Get_AbsentKey_IsEmpty) {
  EXPECT_EQ(TextOf(*store_, "/a"), "(absent)");
  EXPECT_EQ(TextOf(*store_, ""), "(absent)");
  EXPECT_EQ(TextOf(*store_, "/" + std::string(511, 'k')), "(absent)");
  EXPECT_EQ(TextOf(*store_, "/" + std::string(100'000, 'k')), "(absent)");
}

TEST_P(StoreContract, Get_AfterPut_ReturnsTextAndRevision) {
  const Revision first = Put(*store_, "/a", "{\"x\":1}");
  EXPECT_GT(first, 0u);
  EXPECT_EQ(TextOf(*store_, "/a"), "{\"x\":1}");
  EXPECT_EQ(RevisionOf(*store_, "/a"), first);
  const Revision second = Put(*store_, "/a", "2");
  EXPECT_GT(second, first);
  EXPECT_EQ(TextOf(*store_, "/a"), "2");
  EXPECT_EQ(RevisionOf(*store_, "/a"), second);
  EXPECT_EQ(ReadOf(*store_)->revision(), second);
}

TEST_P(StoreContract, Put_EmptyText_IsAValue) {
  const Revision revision = Put(*store_, "/a", "");
  EXPECT_EQ(TextOf(*store_, "/a"), "");
  EXPECT_EQ(RevisionOf(*store_, "/a"), revision);
}

TEST_P(StoreContract, Delete_PresentOrAbsent_LeavesNothing) {
  Put(*store_, "/a", "1");
  const Revision deleted = Erase(*store_, "/a");
  EXPECT_EQ(TextOf(*store_, "/a"), "(absent)");
  EXPECT_GE(Erase(*store_, "/a"), deleted);
}

TEST_P(StoreContract, Put_SixteenMebibytes_IsReadBackUnchanged) {
  std::string text(std::size_t{16} << 20, 'x');
  for (std::size_t i = 0; i < text.size(); i += 4096) text[i] = static_cast<char>('a' + i / 4096 % 26);
  Put(*store_, "/large", text);
  EXPECT_TRUE(TextOf(*store_, "/large") == text);
}

TEST_P(StoreContract, Commit_BadKey_IsInvalidAndChangesNothing) {
  const Revision before = Put(*store_, "/a", "1");
  const std::string longest = "/" + std::string(kMaxKeyBytes - 1, 'k');
  for (const std::string& key :
       {std::string(), longest + "k", std::string("a"), std::string("/"), std::string("/a/"), std::string("/a//b"),
        std::string("/a/.."), std::string("/a b"), std::string("/a\0", 3), std::string("/%41"), std::string("/%zz")}) {
    const Result<Revision> put = store_->Commit({{}, {{"/a", "2"}, {key, "1"}}});
    ASSERT_FALSE(put.ok()) << key;
    EXPECT_EQ(put.error().code(), ErrorCode::kInvalid) << key;
    const Result<Revision> compared = store_->Commit({{{key, 0}}, {{"/a", "2"}}});
    ASSERT_FALSE(compared.ok()) << key;
    EXPECT_EQ(compared.error().code(), ErrorCode::kInvalid) << key;
  }
  EXPECT_EQ(TextOf(*store_, "/a"), "1");
  EXPECT_EQ(ReadOf(*store_)->revision(), before);
  EXPECT_GT(Put(*store_, longest, "1"), before);
  EXPECT_EQ(TextOf(*store_, longest), "1");
}

TEST_P(StoreContract, Children_OfAnyIds_AreListedOnceAndDecoded) {
  const std::vector<std::string> ids = {
      "",   ".",     "..",     "...",    "a/b", "/",    "%",      "%2F", std::string("n\0l", 3),
      "ä€", "plain", "two w.", "line\n", "~",   "\xff", "A:b@c+d"};
  for (const std::string& id : ids) {
    Put(*store_, MakeKey({"dash", "guest", id}), "1");
    Put(*store_, MakeKey({"dash", "guest", id, "object"}), "1");
    Put(*store_, MakeKey({"dash", "guest", id, "state", "x"}), "1");
  }
  Put(*store_, MakeKey({"dash", "guestx", "no"}), "1");
  std::vector<std::string> expected = ids;
  std::sort(expected.begin(), expected.end(), [](const std::string& left, const std::string& right) {
    return EncodeSegment(left) < EncodeSegment(right);
  });
  EXPECT_EQ(ChildrenOf(*store_, "/dash/guest"), expected);
  for (const std::string& id : ids) {
    EXPECT_THAT(ChildrenOf(*store_, MakeKey({"dash", "guest", id})), ElementsAre("object", "state"));
  }
}

TEST_P(StoreContract, Children_WhoseNamesSortAroundTheSlash_AreAllFoundInOrder) {
  for (const char* key : {"/p/a", "/p/a/x", "/p/a-b", "/p/a.b/x", "/p/a+/y", "/p/a0", "/p/b-b/x", "/p/b/x", "/p/a%20/z",
                          "/p-q/n", "/p", "/p0/n"}) {
    Put(*store_, key, "1");
  }
  EXPECT_THAT(ChildrenOf(*store_, "/p"), ElementsAre("a", "a ", "a+", "a-b", "a.b", "a0", "b", "b-b"));
  EXPECT_THAT(ChildrenOf(*store_, ""), ElementsAre("p", "p-q", "p0"));
}

TEST_P(StoreContract, Children_KeyWithoutChildren_IsEmpty) {
  Put(*store_, "/a", "1");
  EXPECT_THAT(ChildrenOf(*store_, "/a"), IsEmpty());
  EXPECT_THAT(ChildrenOf(*store_, "/b"), IsEmpty());
  EXPECT_THAT(ChildrenOf(*store_, "/" + std::string(100'000, 'k')), IsEmpty());
  const std::string longest = "/" + std::string(kMaxKeyBytes - 3, 'k') + "/x";
  Put(*store_, longest, "1");
  EXPECT_THAT(ChildrenOf(*store_, longest.substr(0, longest.size() - 2)), ElementsAre("x"));
}

TEST_P(StoreContract, Scan_Prefix_VisitsItAndKeysBelowInOrder) {
  for (const char* key : {"/a/b", "/a/b/z", "/a/b/c/d", "/a/b-c", "/a/bc", "/a/b0", "/a"}) Put(*store_, key, "1");
  EXPECT_THAT(KeysBelow(*store_, "/a/b"), ElementsAre("/a/b", "/a/b/c/d", "/a/b/z"));
  EXPECT_THAT(KeysBelow(*store_, ""), ElementsAre("/a", "/a/b", "/a/b-c", "/a/b/c/d", "/a/b/z", "/a/b0", "/a/bc"));
  EXPECT_THAT(KeysBelow(*store_, "/x"), IsEmpty());
}

TEST_P(StoreContract, Scan_VisitorReturnsFalse_Stops) {
  for (const char* key : {"/a", "/a/1", "/a/2", "/a/3"}) Put(*store_, key, "1");
  for (int stop_after = 1; stop_after <= 3; ++stop_after) {
    int visited = 0;
    const Status scanned =
        ReadOf(*store_)->Scan("/a", [&](std::string_view, const ValueView&) { return ++visited < stop_after; });
    EXPECT_TRUE(scanned.ok());
    EXPECT_EQ(visited, stop_after);
  }
}

TEST_P(StoreContract, Scan_VisitorReadsTheSnapshot_SeesTheSameState) {
  Put(*store_, "/a/1", "one");
  Put(*store_, "/a/2", "two");
  const auto snapshot = ReadOf(*store_);
  std::string values;
  const Status scanned = snapshot->Scan("/a", [&](std::string_view key, const ValueView&) {
    const auto value = snapshot->Get(key);
    if (value.ok() && *value) values += std::string((*value)->text) + std::to_string(snapshot->Children("/a")->size());
    return true;
  });
  EXPECT_TRUE(scanned.ok());
  EXPECT_EQ(values, "one2two2");
}

TEST_P(StoreContract, Commit_CompareHolds_Commits) {
  const Revision first = Put(*store_, "/a", "1");
  const Result<Revision> done = store_->Commit({{{"/a", first}, {"/b", 0}}, {{"/a", "2"}, {"/b", "2"}}});
  ASSERT_TRUE(done.ok()) << done.error().ToString();
  EXPECT_EQ(RevisionOf(*store_, "/a"), *done);
  EXPECT_EQ(RevisionOf(*store_, "/b"), *done);
}

TEST_P(StoreContract, Commit_CompareFails_ConflictsAndChangesNothing) {
  const Revision first = Put(*store_, "/a", "1");
  const Revision second = Put(*store_, "/a", "2");
  for (const Compare& compare :
       {Compare{"/a", first}, Compare{"/a", 0}, Compare{"/a", second + 1}, Compare{"/b", first}}) {
    const Result<Revision> done = store_->Commit({{{"/a", second}, compare}, {{"/a", "3"}, {"/c", "3"}}});
    ASSERT_FALSE(done.ok()) << compare.key;
    EXPECT_EQ(done.error().code(), ErrorCode::kConflict);
  }
  EXPECT_EQ(TextOf(*store_, "/a"), "2");
  EXPECT_EQ(TextOf(*store_, "/c"), "(absent)");
  EXPECT_EQ(ReadOf(*store_)->revision(), second);
  EXPECT_EQ(store_->health(), Health::kReady);
}

TEST_P(StoreContract, Commit_WithoutOperations_ComparesAndReturnsRevision) {
  const Revision first = Put(*store_, "/a", "1");
  const Result<Revision> held = store_->Commit({{{"/a", first}, {"/b", 0}}, {}});
  ASSERT_TRUE(held.ok());
  EXPECT_EQ(*held, first);
  const Result<Revision> failed = store_->Commit({{{"/b", first}}, {}});
  ASSERT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().code(), ErrorCode::kConflict);
  EXPECT_EQ(ReadOf(*store_)->revision(), first);
}

TEST_P(StoreContract, Commit_SameKeyTwice_LastOneWinsAndIsLoggedOnce) {
  Put(*store_, "/b", "0");
  const Revision before = Put(*store_, "/c", "0");
  const Result<Revision> done = store_->Commit(
      {{}, {{"/a", "1"}, {"/b", "1"}, {"/c", std::nullopt}, {"/a", "2"}, {"/b", std::nullopt}, {"/c", "2"}}});
  ASSERT_TRUE(done.ok());
  EXPECT_EQ(TextOf(*store_, "/a"), "2");
  EXPECT_EQ(TextOf(*store_, "/b"), "(absent)");
  EXPECT_EQ(TextOf(*store_, "/c"), "2");
  const auto batch = store_->Watch("", before, milliseconds(0));
  ASSERT_TRUE(batch.ok());
  ASSERT_EQ(batch->changes.size(), 3u);
  EXPECT_EQ(std::count_if(batch->changes.begin(), batch->changes.end(), [](const Change& c) { return c.deleted; }), 1);
}

TEST_P(StoreContract, Snapshot_DuringCommits_IsUnchanged) {
  const Revision first = Put(*store_, "/a", std::string(10'000, 'a'));
  Put(*store_, "/b", "1");
  const auto snapshot = ReadOf(*store_);
  const std::string_view text = snapshot->Get("/a").value()->text;
  for (int i = 0; i < 50; ++i) Put(*store_, "/a", std::string(10'000, static_cast<char>('b' + i % 20)));
  Erase(*store_, "/b");
  EXPECT_EQ(snapshot->revision(), first + 1);
  EXPECT_EQ(text, std::string(10'000, 'a'));
  EXPECT_EQ(snapshot->Get("/a").value()->revision, first);
  EXPECT_TRUE(snapshot->Get("/b").value().has_value());
  EXPECT_EQ(TextOf(*store_, "/b"), "(absent)");
}

TEST_P(StoreContract, Snapshot_OutlivesTheStoreHandle_StaysReadable) {
  Put(*store_, "/a", "1");
  const auto snapshot = ReadOf(*store_);
  store_.reset();
  EXPECT_EQ(snapshot->Get("/a").value()->text, "1");
  Open(kLogLength);
  Put(*store_, "/a", "2");
  EXPECT_EQ(snapshot->Get("/a").value()->text, "1");
  EXPECT_EQ(TextOf(*store_, "/a"), "2");
}

TEST_P(StoreContract, Open_Again_KeepsValuesRevisionsAndLog) {
  const Revision first = Put(*store_, "/a", "1");
  const Revision second = Put(*store_, "/b", "2");
  Open(kLogLength);
  EXPECT_EQ(RevisionOf(*store_, "/a"), first);
  EXPECT_EQ(TextOf(*store_, "/b"), "2");
  EXPECT_GT(Put(*store_, "/c", "3"), second);
  EXPECT_EQ(store_->Watch("", first, milliseconds(0))->changes.size(), 2u);
}

TEST_P(StoreContract, Watch_FromOldRevision_ReturnsLaterChangesInOrder) {
  const Revision first = Put(*store_, "/a/b", "1");
  const Revision second = Put(*store_, "/a/b/c", "1");
  Put(*store_, "/a/bc", "1");
  Put(*store_, "/a", "1");
  const Revision last = Erase(*store_, "/a/b");
  const auto batch = store_->Watch("/a/b", 0, milliseconds(0));
  ASSERT_TRUE(batch.ok());
  EXPECT_FALSE(batch->lost);
  EXPECT_EQ(batch->revision, last);
  ASSERT_EQ(batch->changes.size(), 3u);
  EXPECT_EQ(batch->changes[0].key, "/a/b");
  EXPECT_EQ(batch->changes[0].revision, first);
  EXPECT_FALSE(batch->changes[0].deleted);
  EXPECT_EQ(batch->changes[1].key, "/a/b/c");
  EXPECT_EQ(batch->changes[1].revision, second);
  EXPECT_EQ(batch->changes[2].revision, last);
  EXPECT_TRUE(batch->changes[2].deleted);
  EXPECT_THAT(store_->Watch("/a/b", last, milliseconds(0))->changes, IsEmpty());
  EXPECT_EQ(store_->Watch("/a/b", first, milliseconds(0))->changes.size(), 2u);
}

TEST_P(StoreContract, Watch_NoChanges_ReturnsEmptyBatchWithRevision) {
  const Revision before = Put(*store_, "/a", "1");
  const Revision elsewhere = Put(*store_, "/b", "1");
  const auto started = std::chrono::steady_clock::now();
  const auto batch = store_->Watch("/a", before, milliseconds(120));
  ASSERT_TRUE(batch.ok());
  EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(120));
  EXPECT_THAT(batch->changes, IsEmpty());
  EXPECT_FALSE(batch->lost);
  EXPECT_EQ(batch->revision, elsewhere);
}

TEST_P(StoreContract, Watch_WhileWaiting_WakesForItsPrefixOnly) {
  const Revision before = Put(*store_, "/a/b", "1");
  std::thread writer([&] {
    std::this_thread::sleep_for(milliseconds(50));
    Put(*store_, "/a/bc", "1");
    std::this_thread::sleep_for(milliseconds(50));
    Put(*store_, "/a/b/c", "1");
  });
  const auto batch = store_->Watch("/a/b", before, std::chrono::seconds(60));
  writer.join();
  ASSERT_TRUE(batch.ok());
  ASSERT_EQ(batch->changes.size(), 1u);
  EXPECT_EQ(batch->changes[0].key, "/a/b/c");
}

TEST_P(StoreContract, Watch_SeveralWatchers_EachSeesEveryCommitOnce) {
  constexpr int kCommits = 100;
  std::vector<std::thread> watchers;
  std::atomic<int> wrong{0};
  for (int w = 0; w < 4; ++w) {
    watchers.emplace_back([&] {
      int next = 0;
      for (Revision from = 0; next < kCommits;) {
        const auto batch = store_->Watch("/n", from, std::chrono::seconds(60));
        if (!batch.ok() || batch->lost || batch->changes.empty()) {
          ++wrong;
          return;
        }
        for (const Change& change : batch->changes)
          wrong += change.key == MakeKey({"n", std::to_string(next++)}) ? 0 : 1;
        from = batch->revision;
      }
    });
  }
  for (int i = 0; i < kCommits; ++i) Put(*store_, MakeKey({"n", std::to_string(i)}), "1");
  for (std::thread& watcher : watchers) watcher.join();
  EXPECT_EQ(wrong, 0);
}

TEST_P(StoreContract, Watch_RevisionBeforeLogStart_ReportsLost) {
  Open(5);
  Revision last = 0;
  for (int i = 0; i < 20; ++i) last = Put(*store_, "/a", std::to_string(i));
  const auto lost = store_->Watch("/a", last - 6, milliseconds(0));
  ASSERT_TRUE(lost.ok());
  EXPECT_TRUE(lost->lost);
  EXPECT_EQ(lost->revision, last);
  const auto complete = store_->Watch("/a", last - 5, milliseconds(0));
  ASSERT_TRUE(complete.ok());
  EXPECT_FALSE(complete->lost);
  EXPECT_EQ(complete->changes.size(), 5u);
  EXPECT_FALSE(store_->Watch("/a", lost->revision, milliseconds(0))->lost);
}

TEST_P(StoreContract, Watch_FutureRevision_ReportsLost) {
  const Revision last = Put(*store_, "/a", "1");
  const auto batch = store_->Watch("/a", last + 1000, milliseconds(0));
  ASSERT_TRUE(batch.ok());
  EXPECT_TRUE(batch->lost);
  EXPECT_EQ(batch->revision, last);
}

TEST_P(StoreContract, Watch_AfterVeryManyChanges_ReturnsThemInBatches) {
  Transaction transaction;
  for (int i = 0; i < 6000; ++i) transaction.operations.push_back({MakeKey({"n", std::to_string(i)}), "1"});
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(store_->Commit(transaction).ok());
  std::size_t changes = 0;
  int batches = 0;
  for (Revision from = 0; changes < 24'000 && batches < 100; ++batches) {
    const auto batch = store_->Watch("/n", from, milliseconds(0));
    ASSERT_TRUE(batch.ok());
    ASSERT_FALSE(batch->lost);
    changes += batch->changes.size();
    from = batch->revision;
  }
  EXPECT_EQ(changes, 24'000u);
}

TEST_P(StoreContract, Commit_FromEightThreads_LosesNoUpdate) {
  constexpr int kThreads = 8;
  constexpr int kIncrements = 40;
  std::atomic<int> errors{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIncrements; ++i) {
        if (Increment(*store_, "/shared") < 0) ++errors;
        if (Increment(*store_, MakeKey({"own", std::to_string(t)})) < 0) ++errors;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(errors, 0);
  EXPECT_EQ(TextOf(*store_, "/shared"), std::to_string(kThreads * kIncrements));
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(TextOf(*store_, MakeKey({"own", std::to_string(t)})), std::to_string(kIncrements));
  }
  EXPECT_EQ(ReadOf(*store_)->revision(), static_cast<Revision>(2 * kThreads * kIncrements));
}

TEST_P(StoreContract, Commit_SeveralKeys_IsAtomicForReaders) {
  ASSERT_TRUE(store_->Commit({{}, {{"/l", "0"}, {"/m", "0"}, {"/r", "0"}}}).ok());
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!stop) {
        const auto snapshot = ReadOf(*store_);
        const auto left = snapshot->Get("/l").value();
        const auto middle = snapshot->Get("/m").value();
        const auto right = snapshot->Get("/r").value();
        if (left->text != right->text || left->text != middle->text || left->revision != right->revision) ++torn;
      }
    });
  }
  for (int i = 1; i <= 150; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_TRUE(store_->Commit({{}, {{"/l", text}, {"/m", text}, {"/r", text}}}).ok());
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace vexa::store
