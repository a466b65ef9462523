// Who belongs to the cluster, and whose certificates have been revoked.
#include "host/records/host_membership.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <utility>

#include "host/base/mutex.h"
#include "host/records/environment.h"
#include "host/records/keys.h"
#include "host/records/member_list.h"
#include "host/store/key.h"
#include "tests/support/racing_store.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "tests/support/waiting.h"

namespace vexa::records {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kClaim[] = R"({"incarnation":1})";
constexpr char kForgotten[] = R"({"incarnation":2,"forgotten":{"by":"root","time":1}})";

system_clock::time_point At(int time) { return system_clock::time_point(seconds(time)); }

class Membership : public testing::Test {
 protected:
  void Put(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  void PutClaim(const std::string& text) { Put(HostClaimKey(kHost), text); }
  void PutRevocation(const std::string& text) { Put(store::MakeKey({kRevocations, kHost}), text); }
  static bool Accepts(int issued) {
    return Require(MembershipOf(Require(Reader::OpenCurrent()), kHost)).Accepts(At(issued));
  }

  test::TestHost host_;
};

TEST_F(Membership, Host_UnknownOrForgotten_IsNotAccepted) {
  EXPECT_FALSE(Accepts(5));
  PutClaim(kClaim);
  EXPECT_TRUE(Accepts(5));
  PutClaim(kForgotten);
  EXPECT_FALSE(Accepts(5));
}

TEST_F(Membership, HostWithoutIntactClaim_IsAMemberByItsRecord) {
  host_.PutText("host", kHost, "{}");
  EXPECT_TRUE(Accepts(5)) << "of a version that does not claim ids";
  PutClaim("damaged");
  EXPECT_TRUE(Accepts(5));
  PutClaim(kForgotten);
  EXPECT_FALSE(Accepts(5));
}

TEST_F(Membership, Revocation_RefusesWhatWasIssuedBefore) {
  PutClaim(kClaim);
  PutRevocation(R"({"before":1000})");
  EXPECT_FALSE(Accepts(999));
  EXPECT_TRUE(Accepts(1000));
}

TEST_F(Membership, DamagedRevocation_RefusesEverything) {
  PutClaim(kClaim);
  for (const char* text : {"damaged", "[]", "5", R"({"before":"x"})", "{}"}) {
    PutRevocation(text);
    EXPECT_FALSE(Accepts(2'000'000'000)) << text;
  }
}

TEST_F(Membership, Revoke_Again_ReplacesTheTime) {
  EXPECT_EQ(RevokeCertificates(host_.store(), kHost, At(1000), {"root", At(900)}).error().code(), ErrorCode::kNotFound);
  PutClaim(kClaim);
  for (const int time : {4'000'000, 2000}) {
    ASSERT_TRUE(RevokeCertificates(host_.store(), kHost, At(time), {"root", At(900)}).ok());
    EXPECT_FALSE(Accepts(time - 1));
    EXPECT_TRUE(Accepts(time));
  }
}

TEST_F(Membership, MemberList_Changes_AreKnownSoon) {
  PutClaim(kClaim);
  MemberList members(CurrentEnvironment()->store);
  EXPECT_TRUE(members.Knows(kHost, At(5))) << "from the start";
  PutRevocation(R"({"before":1000})");
  EXPECT_FALSE(members.Accepts(kHost, At(5))) << "immediately";
  EXPECT_TRUE(test::Eventually([&] { return !members.Knows(kHost, At(5)); }));
  EXPECT_TRUE(members.Knows(kHost, At(1000)));
  Put(HostClaimKey("later"), kClaim);
  EXPECT_TRUE(test::Eventually([&] { return members.Knows("later", At(5)); }));
  PutClaim(kForgotten);
  EXPECT_TRUE(test::Eventually([&] { return !members.Knows(kHost, At(1000)); }));
}

TEST_F(Membership, MemberList_HostRecords_AreFollowed) {
  const MemberList members(CurrentEnvironment()->store);
  host_.PutText("host", kHost, "{}");
  EXPECT_TRUE(test::Eventually([&] { return members.Knows(kHost, At(5)); }));
  (void)Require(host_.store().Commit({{}, {{ObjectKey("host", kHost), std::nullopt}}}));
  EXPECT_TRUE(test::Eventually([&] { return !members.Knows(kHost, At(5)); }));
}

// The next call of the host has the limits of a member.
TEST_F(Membership, MemberList_Accepts_IsKnownImmediately) {
  MemberList members(CurrentEnvironment()->store);
  members.Stop();  // nobody else refreshes it
  host_.PutText("host", kHost, "{}");
  EXPECT_FALSE(members.Knows(kHost, At(5)));
  EXPECT_TRUE(members.Accepts(kHost, At(5)));
  EXPECT_TRUE(members.Knows(kHost, At(5)));
  PutRevocation(R"({"before":1000})");
  EXPECT_FALSE(members.Accepts(kHost, At(5)));
  EXPECT_FALSE(members.Knows(kHost, At(5)));
  EXPECT_TRUE(members.Knows(kHost, At(1000)));
  PutClaim(kForgotten);
  EXPECT_FALSE(members.Accepts(kHost, At(1000)));
  EXPECT_FALSE(members.Knows(kHost, At(1000)));
}

// Calls a function once, right after a snapshot has been taken, and reports no changes from then on.
class OvertakenStore : public test::RacingStore {
 public:
  using test::RacingStore::RacingStore;
  void AfterNextSnapshot(std::function<void()> call) {
    const MutexLock lock(mutex_);
    call_ = std::move(call);
  }
  Result<std::unique_ptr<store::Snapshot>> Read() const override {
    auto snapshot = test::RacingStore::Read();
    std::function<void()> call;
    {
      const MutexLock lock(mutex_);
      call.swap(call_);
      was_called_ |= call != nullptr;
    }
    if (call) call();
    return snapshot;
  }
  Result<store::ChangeBatch> Watch(std::string_view prefix, store::Revision from,
                                   std::chrono::milliseconds timeout) override {
    {
      const MutexLock lock(mutex_);
      if (was_called_) {
        ++failed_watches_;
        return Error(ErrorCode::kUnavailable, "no changes");
      }
    }
    return test::RacingStore::Watch(prefix, from, timeout);
  }
  int failed_watches() const {
    const MutexLock lock(mutex_);
    return failed_watches_;
  }

 private:
  mutable Mutex mutex_;
  mutable std::function<void()> call_ VEXA_GUARDED_BY(mutex_);
  mutable bool was_called_ VEXA_GUARDED_BY(mutex_) = false;
  int failed_watches_ VEXA_GUARDED_BY(mutex_) = 0;
};

TEST_F(Membership, MemberList_OvertakenRefresh_DoesNotUndoWhatAcceptsHasRead) {
  PutClaim(kClaim);
  const auto store = std::make_shared<OvertakenStore>(host_.store());
  MemberList members(store);
  store->AfterNextSnapshot([&] {
    PutClaim(kForgotten);
    EXPECT_FALSE(members.Accepts(kHost, At(5)));
  });
  PutRevocation(R"({"before":1})");  // the list is read again
  EXPECT_TRUE(test::Eventually([&] { return store->failed_watches() > 0; }));
  EXPECT_FALSE(members.Knows(kHost, At(5)));
}

TEST_F(Membership, MemberList_StoreUnreadable_DecidesByWhatItKnows) {
  PutClaim(kClaim);
  MemberList members(CurrentEnvironment()->store);
  host_.store().FailSnapshots();
  EXPECT_TRUE(members.Accepts(kHost, At(5)));
  EXPECT_FALSE(members.Accepts("stranger", At(5)));
  host_.store().Heal();
}

}  // namespace
}  // namespace vexa::records
