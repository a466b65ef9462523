// Records of repositories: what can be added, removed and accepted, what is listed, and that names stay unique.
#include "host/storage/repository_records.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include "host/records/environment.h"
#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/run_record.h"
#include "host/storage/storage_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/racing_store.h"
#include "tests/support/record_test.h"

namespace vexa::storage {
namespace {

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kId[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";

class RepositoryRecords : public test::RecordTest {
 protected:
  RepositoryRecords() { host_.PutText("host", kHost, R"({"name":"nas-1"})"); }

  Result<void, Refusal> Add(const NewRepository& repository) {
    return AddRepository(host_.store(), repository, added_);
  }
  void ExpectAdded(const NewRepository& repository) {
    const auto refused = Add(repository);
    EXPECT_TRUE(refused.ok()) << refused.error().reason;
  }
  Result<void, Refusal> Remove(const std::string& id) { return RemoveRepository(host_.store(), id, name_); }
  Result<void, Refusal> Accept(const std::string& id) { return AcceptStorage(host_.store(), id, name_); }
  void ExpectRemoveRefused(const std::string& users, const std::string& way_out = "Delete the guests first") {
    ExpectRefused([&] { return Remove(kId); }, kRecordInUse,
                  "The repository 'pool' is used by " + users + ". " + way_out);
  }

  ListedRepository Only() {
    std::vector<ListedRepository> all = Require(ListRepositories(host_.store()));
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? ListedRepository() : std::move(all.front());
  }

  std::string added_;
  std::string name_;
};

TEST_F(RepositoryRecords, Add_Repository_IsListed) {
  ExpectAdded({"pool 1", kId, kHost});
  EXPECT_EQ(added_, kId);
  EXPECT_EQ(TextOf(records::ObjectKey("repository", kId)),
            R"({"host_id":")" + std::string(kHost) + R"(","name":"pool 1","state":"repo_online"})");
  EXPECT_EQ(TextOf("/name/repository/pool%201"), Quoted(kId));
  const ListedRepository listed = Only();
  EXPECT_EQ(listed.id, kId);
  EXPECT_EQ(listed.name, "pool 1");
  EXPECT_EQ(listed.host_id, kHost);
  EXPECT_EQ(listed.state, "repo_online");
  EXPECT_TRUE(listed.storage.isNull());
}

TEST_F(RepositoryRecords, Add_NoId_CreatesOne) {
  ExpectAdded({"a", "", kHost});
  const std::string first = added_;
  ExpectAdded({"b", "", kHost});
  EXPECT_EQ(first.size(), 36u);
  EXPECT_NE(first, added_);
}

TEST_F(RepositoryRecords, Add_Existing_IsRefused) {
  ExpectAdded({"pool", kId, kHost});
  const std::string id = kId;
  ExpectRefused(
      [&] {
        return Add({"other", kId, kHost});
      },
      kRecordExists, "There is a repository '" + id + "' already");
  ExpectRefused(
      [&] {
        return Add({"pool", "", kHost});
      },
      kRecordExists, "The repository '" + id + "' has the name 'pool'");
}

// The record named a host that nobody could start.
TEST_F(RepositoryRecords, Add_HostUnknown_IsRefused) {
  const std::string unknown = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e9";
  ExpectRefused(
      [&] {
        return Add({"pool", kId, unknown});
      },
      host_error::kNotFoundOrUnreadable,
      "There is no host '" + unknown +
          "' in this cluster: give the id of one that 'vexa host list' shows, or start the host first");
  // What remains of a host that was removed is not a host.
  Put(store::MakeKey({"dash", "host", unknown, "seen"}), "{}");
  EXPECT_EQ(Add({"pool", kId, unknown}).error().code, host_error::kNotFoundOrUnreadable);
}

TEST_F(RepositoryRecords, Add_HostRemovedBetweenReadAndCommit_IsRefused) {
  test::RacingStore store(host_.store(), [&] { host_.Remove("host", kHost); });
  std::string id;
  const auto refused = AddRepository(store, {"pool", kId, kHost}, id);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kNotFoundOrUnreadable);
  EXPECT_TRUE(Require(ListRepositories(host_.store())).empty());
}

TEST_F(RepositoryRecords, Add_HostWritesItsRecordMeanwhile_IsAccepted) {
  test::RacingStore store(host_.store(), [&] { host_.PutText("host", kHost, R"({"name":"nas-2"})"); });
  std::string id;
  const auto refused = AddRepository(store, {"pool", kId, kHost}, id);
  EXPECT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(store.commits(), 2);
}

TEST_F(RepositoryRecords, Check_InvalidArguments_AreRefused) {
  for (const std::string& name : {std::string(), std::string(129, 'x'), std::string("a\nb"), std::string("a\0b", 3),
                                  std::string("\xFF"), std::string("\x7F")}) {
    EXPECT_FALSE(CheckRepository({name, kId, kHost})) << name;
  }
  for (const char* id : {"../x", "00000000-0000-0000-0000-000000000000"}) {
    EXPECT_FALSE(CheckRepository({"pool", id, kHost})) << id;
    EXPECT_FALSE(CheckRepository({"pool", kId, id})) << id;
  }
  EXPECT_EQ(CheckRepository({"pool", kId, "nas-1"}).error().message(), "'nas-1' is not a host's id: give a UUID");
  EXPECT_TRUE(CheckRepository({"pool", "", ""}));
}

// Records of older versions have no keys of their names.
TEST_F(RepositoryRecords, Add_OlderRecordsExist_FindsTheirNamesAndAddsKeys) {
  host_.PutText("repository", "old", R"({"name":"old"})");
  ExpectRefused([&] { return Add({"old", "", kHost}); }, kRecordExists, "The repository 'old' has the name 'old'");
  ExpectAdded({"pool", kId, kHost});
  EXPECT_EQ(TextOf(records::NameKey("repository", "old")), Quoted("old"));
}

TEST_F(RepositoryRecords, Add_NameGivenBetweenScanAndCommit_IsFoundByASecondScan) {
  test::RacingStore store(host_.store(), [&] { ExpectAdded({"pool", kId, kHost}); });
  std::string id;
  const auto refused = AddRepository(store, {"pool", "", kHost}, id);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kRecordExists);
  EXPECT_EQ(store.commits(), 1);
  EXPECT_EQ(Only().id, kId);
}

TEST_F(RepositoryRecords, Add_EightConcurrentWithOneName_OneIsAccepted) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 5; ++round) {
    std::latch start(kThreads);
    std::vector<Result<void, Refusal>> results(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        std::string id;
        results[static_cast<std::size_t>(i)] =
            AddRepository(host_.store(), {"round " + std::to_string(round), "", kHost}, id);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(test::CountAccepted(results), 1);
    EXPECT_EQ(Require(ListRepositories(host_.store())).size(), static_cast<std::size_t>(round) + 1);
  }
}

TEST_F(RepositoryRecords, List_HostGone_IsShownAsMissing) {
  ExpectAdded({"pool", kId, kHost});
  const auto old = std::chrono::system_clock::now() - records::kHeartbeatTimeout - std::chrono::seconds(60);
  const auto time = std::chrono::duration_cast<std::chrono::seconds>(old.time_since_epoch()).count();
  Put(store::MakeKey({"dash", "host", kHost, "seen"}), R"({"time":)" + std::to_string(time) + "}");
  EXPECT_EQ(Only().state, "repo_inaccessible");
}

TEST_F(RepositoryRecords, List_DamagedRecords_AreShownWithTheirIds) {
  host_.PutText("repository", "x", R"({"name":7,"host_id":[],"state":{}})");
  host_.PutText("repository", "y", "[]");
  const std::vector<ListedRepository> all = Require(ListRepositories(host_.store()));
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].id, "x");
  EXPECT_EQ(all[0].name + all[0].host_id + all[0].state, "");
  EXPECT_EQ(all[1].id, "y");
}

TEST_F(RepositoryRecords, Remove_Repository_DeletesAllItsRecords) {
  ExpectAdded({"pool", kId, kHost});
  Put(StorageKey(kId), R"({"host_id":"h","folders":{"/srv/":"ino=2 fsid=1"}})");
  Put(RepositoryStateKey(kId), "\"repo_unavailable\"");
  host_.PutText("repository", std::string(kId) + "0", R"({"name":"beside"})");
  const auto refused = Remove(kId);
  EXPECT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(name_, "pool");
  EXPECT_EQ(TextOf(records::NameKey("repository", "pool")), "");
  EXPECT_THAT(Require(Require(host_.store().Read())->Children("/dash/repository")),
              ElementsAre(std::string(kId) + "0"));
}

TEST_F(RepositoryRecords, Remove_StateWrittenBeforeCommit_IsRemoved) {
  ExpectAdded({"pool", kId, kHost});
  test::RacingStore store(host_.store(), [&] {
    Put(StorageKey(kId), "{}");
    Put(RepositoryStateKey(kId), "\"repo_full\"");
  });
  EXPECT_TRUE(RemoveRepository(store, kId, name_).ok());
  EXPECT_TRUE(Require(Require(host_.store().Read())->Children("/dash/repository")).empty());
}

TEST_F(RepositoryRecords, Remove_UnknownRepository_IsRefused) {
  ExpectRefused([&] { return Remove("poo"); }, host_error::kNotFoundOrUnreadable, "There is no repository 'poo'");
  EXPECT_EQ(name_, "");
}

TEST_F(RepositoryRecords, Remove_RepositoryInUse_IsRefusedNamingUsers) {
  ExpectAdded({"pool", kId, kHost});
  const std::string here = R"("repository_id":")" + std::string(kId) + "\"";
  host_.PutText("guest", kGuest, R"({"name":"web",)" + here + "}");
  host_.PutText("vdisk", "d1", R"({"guest_id":")" + std::string(kGuest) + "\"," + here + "}");
  ExpectRemoveRefused("the guest 'web'");
  EXPECT_EQ(name_, "pool");
  host_.PutText("vdisk", "d2", R"({"guest_id":"another",)" + here + "}");
  const std::string disks =
      "Remove the disks from their guests first; records of disks without a guest have to be repaired";
  ExpectRemoveRefused("the guest 'web', the disk 'd2' without a guest", "Delete the guests first. " + disks);
  host_.PutText("guest", "another", R"({"name":"shop","repository_id":"other"})");
  host_.Remove("guest", kGuest);
  ExpectRemoveRefused("the disk 'd1' without a guest, the disk 'd2' of the guest 'shop'", disks);
  host_.Remove("vdisk", "d1");
  host_.Remove("vdisk", "d2");
  Put(store::MakeKey({"dash", "guest", kGuest, "object"}), R"({"name":"web"})");
  Put(store::MakeKey({"dash", "guest", kGuest, "repository_id"}), Quoted(kId));
  ExpectRemoveRefused("the guest 'web'");
  Delete(store::MakeKey({"dash", "guest", kGuest, "repository_id"}));
  for (const std::string& key : {records::DeletionKey(kGuest), store::MakeKey({"leftover", kHost, kGuest})}) {
    Put(key, "{" + here + "}");
    ExpectRemoveRefused("the unfinished deletion of the guest '" + std::string(kGuest) + "'",
                        "Deletions finish on their own once the hosts that hold the files are back");
    Delete(key);
  }
  host_.PutText("guest", kGuest, R"({"name":"web","desc":")" + std::string(kId) + R"(","repository_id":"other"})");
  EXPECT_TRUE(Remove(kId).ok());
}

TEST_F(RepositoryRecords, Remove_RepositoryOfManyGuests_NamesTen) {
  ExpectAdded({"pool", kId, kHost});
  for (int i = 10; i < 22; ++i) {
    const std::string number = std::to_string(i);
    host_.PutText("guest", "g" + number, R"({"name":"web-)" + number + R"(","repository_id":")" + kId + "\"}");
  }
  ExpectRemoveRefused(
      "the guest 'web-10', the guest 'web-11', the guest 'web-12', the guest 'web-13', the guest 'web-14', "
      "the guest 'web-15', the guest 'web-16', the guest 'web-17', the guest 'web-18', the guest 'web-19' and 2 more");
}

// As an import commits it.
TEST_F(RepositoryRecords, Remove_GuestAddedBetweenScanAndCommit_IsRefused) {
  ExpectAdded({"pool", kId, kHost});
  test::RacingStore store(host_.store(), [&] {
    (void)Require(host_.store().Commit(
        {{},
         {{records::ObjectKey("guest", kGuest), R"({"name":"web","repository_id":")" + std::string(kId) + "\"}"},
          {records::FileReferencesGuardKey(), Quoted(kGuest)}}}));
  });
  const auto refused = RemoveRepository(store, kId, name_);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kRecordInUse);
  EXPECT_EQ(Only().id, kId);
}

class UnavailableRepository : public RepositoryRecords {
 protected:
  UnavailableRepository() {
    ExpectAdded({"pool", kId, kHost});
    Put(StorageKey(kId), R"({"host_id":"h","folders":{"/srv/":"ino=2 fsid=1"},"not_mounted":["/srv/"],)"
                         R"("reason":"why","since":1700000000})");
    Put(RepositoryStateKey(kId), "\"repo_unavailable\"");
  }
};

TEST_F(UnavailableRepository, List_ShowsLiveStateAndUnmountedFolders) {
  const ListedRepository listed = Only();
  EXPECT_EQ(listed.state, "repo_unavailable");
  EXPECT_EQ(VexaVirtualization::json::ToText(listed.storage),
            R"({"folders":{"/srv/":"ino=2 fsid=1"},"not_mounted":["/srv/"],"reason":"why","since":1700000000,)"
            R"("trouble":"repo_unavailable"})");
}

TEST_F(UnavailableRepository, Accept_Unavailable_RemovesStorageRecordAndState) {
  EXPECT_TRUE(Accept(kId).ok());
  EXPECT_EQ(name_, "pool");
  EXPECT_EQ(TextOf(StorageKey(kId)), "");
  EXPECT_EQ(TextOf(RepositoryStateKey(kId)), "");
  EXPECT_EQ(Only().state, "repo_online");
  Put(RepositoryStateKey(kId), "\"repo_unavailable\"");
  EXPECT_TRUE(Accept(kId).ok());
  EXPECT_NE(TextOf(RepositoryStateKey(kId)), "") << "written by another host the second time";
}

TEST_F(UnavailableRepository, Accept_DamagedRecord_RemovesIt) {
  Put(StorageKey(kId), "[]");
  EXPECT_THAT(VexaVirtualization::json::ToText(Only().storage), HasSubstr("Repair or delete it"));
  EXPECT_TRUE(Accept(kId).ok());
  EXPECT_EQ(TextOf(StorageKey(kId)), "");
}

TEST_F(UnavailableRepository, Accept_UnknownRepository_ChangesNothing) {
  ExpectRefused([&] { return Accept("pool"); }, host_error::kNotFoundOrUnreadable, "There is no repository 'pool'");
}

TEST_F(UnavailableRepository, Calls_StoreFails_AreReportedAndChangeNothing) {
  host_.store().FailCommits();
  EXPECT_EQ(Add({"b", "", kHost}).error().code, kRecordFailed);
  EXPECT_EQ(Remove(kId).error().code, kRecordFailed);
  EXPECT_EQ(Accept(kId).error().code, kRecordFailed);
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_EQ(Add({"b", "", kHost}).error().code, kRecordFailed);
  EXPECT_EQ(Remove(kId).error().code, kRecordFailed);
  EXPECT_EQ(Accept(kId).error().code, kRecordFailed);
  EXPECT_FALSE(ListRepositories(host_.store()));
  host_.store().Heal();
  EXPECT_EQ(Only().state, "repo_unavailable");
}

}  // namespace
}  // namespace vexa::storage
