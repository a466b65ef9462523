#include "host/accounts/account_cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "host/accounts/account_local.h"
#include "host/base/files.h"
#include "tests/support/waiting.h"
#include "tests/unit/storage/temporary_folder.h"

namespace vexa::accounts {
namespace {

using std::chrono::milliseconds;
using test::Eventually;

constexpr milliseconds kLong{3'600'000};

template <class Value>
ErrorCode CodeOf(const Result<Value>& result) {
  return result.ok() ? ErrorCode::kInternal : result.error().code();
}

// A directory whose look-ups can hang or fail.
class Directory : public AccountProvider {
 public:
  static constexpr const char* kWrong = "wrong";

  ~Directory() override { SetHangs(false); }

  Result<User> FindUser(const std::string& name) const override {
    std::unique_lock lock(mutex_);
    ++asked_;
    ++running_;
    most_running_ = std::max(most_running_, running_);
    changed_.notify_all();
    if (hangs_) changed_.wait(lock, [this] { return !holds_; });
    --running_;
    if (fails_) return Error(ErrorCode::kUnavailable, "it fails");
    if (!uids_.contains(name)) return Error(ErrorCode::kNotFound, "There is no such user");
    return User{name, uids_.at(name), 100, {{"staff", 100}}, false, stamp_};
  }
  Result<User> FindUserByUid(std::uint32_t uid) const override { return FindUser("uid" + std::to_string(uid)); }
  Result<Group> FindGroupByGid(std::uint32_t gid) const override {
    const auto user = FindUser("gid" + std::to_string(gid));
    if (!user) return user.error();
    return Group{user->name, gid};
  }
  // Does not hang: it is PAM that checks passwords.
  Result<User> VerifyPassword(const std::string& name, const std::string& password) const override {
    const std::lock_guard lock(mutex_);
    ++asked_;
    if (password == kWrong) return Error(ErrorCode::kDenied, "The name or the password is wrong");
    // As in a directory that ignores case.
    return User{LowerCaseName(name), uids_.at(LowerCaseName(name)), 100, {{"staff", 100}}, false, stamp_};
  }

  void SetHangs(bool hangs) {
    const std::lock_guard lock(mutex_);
    hangs_ = hangs;
    holds_ = hangs;
    changed_.notify_all();
  }
  // It answers again, but those who have asked before get no answer until SetHangs(false).
  void AnswerNewLookUps() {
    const std::lock_guard lock(mutex_);
    hangs_ = false;
  }
  void SetFails(bool fails) {
    const std::lock_guard lock(mutex_);
    fails_ = fails;
  }
  void Set(const std::string& name, std::uint32_t uid) {
    const std::lock_guard lock(mutex_);
    uids_[name] = uid;
  }
  void SetStamp(const std::string& stamp) {
    const std::lock_guard lock(mutex_);
    stamp_ = stamp;
  }
  void Remove(const std::string& name) {
    const std::lock_guard lock(mutex_);
    uids_.erase(name);
  }
  int asked() const { return Locked(asked_); }
  int running() const { return Locked(running_); }
  int most_running() const { return Locked(most_running_); }

 private:
  int Locked(const int& number) const {
    const std::lock_guard lock(mutex_);
    return number;
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  mutable int asked_ = 0;
  mutable int running_ = 0;
  mutable int most_running_ = 0;
  bool hangs_ = false;  // look-ups that begin now
  bool holds_ = false;  // look-ups that have begun to hang
  bool fails_ = false;
  std::string stamp_ = "day-1";
  std::map<std::string, std::uint32_t> uids_ = {{"alice", 5}, {"uid5", 5}, {"gid7", 7}};
};

class AccountCache : public testing::Test {
 protected:
  AccountCache() {
    EXPECT_TRUE(
        WriteFileAtomically(folder_.Path("passwd"), "root:x:0:0::/root:/bin/sh\nlocal:x:900:90::/:/bin/sh\n", 0644)
            .ok());
    EXPECT_TRUE(WriteFileAtomically(folder_.Path("group"),
                                    "root:x:0:\nadministrators:x:91:other,local\nmain:x:90:\nnone:x:92:other\n", 0644)
                    .ok());
    EXPECT_TRUE(
        WriteFileAtomically(folder_.Path("shadow"), "root:*:19000:0:99999:7:::\nlocal:$y$x:19700:0:99999:7:::\n", 0600)
            .ok());
    options_.fresh = kLong;
    options_.patience = milliseconds(50);
  }
  ~AccountCache() override {
    directory_->SetHangs(false);
    // Its threads use what belongs to this test.
    EXPECT_TRUE(Eventually([&] { return directory_->running() == 0; }));
  }

  std::unique_ptr<AccountProvider> Local() const {
    return MakeLocalAccounts({folder_.Path("passwd"), folder_.Path("group"), folder_.Path("shadow"), "administrators"});
  }
  std::unique_ptr<AccountProvider> Make() const { return MakeCachedAccounts(directory_, Local(), options_); }

  TemporaryFolder folder_;
  LookupOptions options_;
  const std::shared_ptr<Directory> directory_ = std::make_shared<Directory>();
};

TEST_F(AccountCache, SeveralLookUps_AskOnce) {
  options_.patience = kLong;
  const auto accounts = Make();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(accounts->FindUser("alice")->uid, 5U);
    EXPECT_EQ(accounts->FindUserByUid(5)->name, "uid5");
    EXPECT_EQ(accounts->FindGroupByGid(7)->name, "gid7");
    EXPECT_EQ(CodeOf(accounts->FindUser("nobody")), ErrorCode::kNotFound);
  }
  EXPECT_EQ(directory_->asked(), 4);
  EXPECT_EQ(accounts->VerifyPassword("alice", "x")->uid, 5U);
  EXPECT_EQ(directory_->asked(), 5) << "passwords are always checked";
}

TEST_F(AccountCache, VerifyPassword_AfterPasswordChange_UserIsFoundWithTheNewStamp) {
  options_.patience = kLong;
  const auto accounts = Make();
  EXPECT_EQ(accounts->FindUser("alice")->stamp, "day-1");
  directory_->SetStamp("day-2");
  EXPECT_EQ(CodeOf(accounts->VerifyPassword("alice", Directory::kWrong)), ErrorCode::kDenied);
  EXPECT_EQ(accounts->FindUser("alice")->stamp, "day-1") << "a wrong password changes nothing";
  EXPECT_EQ(accounts->VerifyPassword("ALICE", "x")->stamp, "day-2");
  EXPECT_EQ(accounts->FindUser("alice")->stamp, "day-2");
  EXPECT_EQ(directory_->asked(), 3) << "the user was not looked up again";
}

// The look-up that hangs began before the password was changed, so its answer is older than that of the login.
TEST_F(AccountCache, VerifyPassword_WhileLookUpHangs_IsNotReplacedByItsAnswer) {
  options_.fresh = milliseconds(0);
  const auto warm = Make();
  ASSERT_TRUE(Eventually([&] { return warm->FindUser("alice").ok(); }));
  directory_->SetHangs(true);
  EXPECT_EQ(warm->FindUser("alice")->stamp, "day-1");
  ASSERT_TRUE(Eventually([&] { return directory_->running() == 1; }));
  directory_->SetStamp("day-2");
  ASSERT_TRUE(warm->VerifyPassword("alice", "x").ok());
  EXPECT_EQ(warm->FindUser("alice")->stamp, "day-2") << "while the look-up hangs";
  directory_->SetStamp("day-1");
  directory_->SetHangs(false);
  ASSERT_TRUE(Eventually([&] { return directory_->running() == 0; }));
  directory_->SetFails(true);
  EXPECT_EQ(warm->FindUser("alice")->stamp, "day-2");
  EXPECT_EQ(warm->FindUser("alice")->stamp, "day-2");
}

TEST_F(AccountCache, AnswerThatIsNotFresh_IsAskedForAgain) {
  options_.patience = kLong;
  options_.fresh = milliseconds(0);
  const auto accounts = Make();
  EXPECT_EQ(accounts->FindUser("alice")->uid, 5U);
  directory_->Set("alice", 6);
  EXPECT_EQ(accounts->FindUser("alice")->uid, 6U);
  directory_->Remove("alice");
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kNotFound);
}

TEST_F(AccountCache, DirectoryHangsOrFails_KnownUsersAreFoundUntilTheirAnswerIsStale) {
  options_.fresh = milliseconds(0);
  options_.patience = kLong;
  const auto known = Make();
  ASSERT_TRUE(known->FindUser("alice").ok());
  directory_->SetFails(true);
  EXPECT_EQ(known->FindUser("alice")->uid, 5U);
  options_.stale = std::chrono::minutes(0);
  const auto strict = Make();
  EXPECT_EQ(CodeOf(strict->FindUser("alice")), ErrorCode::kUnavailable);
  directory_->SetFails(false);

  options_.stale = std::chrono::minutes(60);
  options_.patience = milliseconds(50);
  const auto patient = Make();
  ASSERT_TRUE(Eventually([&] { return patient->FindUser("alice").ok(); }));
  directory_->SetHangs(true);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(patient->FindUser("alice")->uid, 5U);
  EXPECT_TRUE(Eventually([&] { return directory_->running() == 1; }));
  EXPECT_EQ(directory_->most_running(), 1) << "one look-up at a time";
}

TEST_F(AccountCache, DirectoryHangs_UnknownNamesLeaveThreadsForKnownOnes) {
  options_.fresh = milliseconds(0);
  options_.patience = kLong;
  options_.max_threads = 8;
  options_.max_unknown_threads = 6;
  const auto warm = Make();
  ASSERT_TRUE(warm->FindUser("alice").ok());
  directory_->SetHangs(true);
  std::vector<std::thread> callers;
  std::atomic<int> refused = 0;
  for (int i = 0; i < 33; ++i) {
    callers.emplace_back([&, i] {
      if (CodeOf(warm->FindUser("unknown" + std::to_string(i))) == ErrorCode::kUnavailable) ++refused;
    });
  }
  EXPECT_TRUE(Eventually([&] { return refused == 33 - 6; }));
  EXPECT_TRUE(Eventually([&] { return directory_->running() == 6; }));
  std::thread known([&] { EXPECT_EQ(warm->FindUser("alice")->uid, 5U); });
  EXPECT_TRUE(Eventually([&] { return directory_->running() == 7; })) << "the known name is looked up";
  directory_->SetHangs(false);
  known.join();
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(directory_->most_running(), 7);
}

TEST_F(AccountCache, ManyCallersOfOneName_ShareOneLookUp) {
  options_.patience = kLong;
  const auto accounts = Make();
  directory_->SetHangs(true);
  std::vector<std::thread> callers;
  for (int i = 0; i < 16; ++i) callers.emplace_back([&] { EXPECT_EQ(accounts->FindUser("alice")->uid, 5U); });
  ASSERT_TRUE(Eventually([&] { return directory_->running() == 1; }));
  directory_->SetHangs(false);
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(directory_->asked(), 1);
}

TEST_F(AccountCache, LookUpNeverReturns_NameIsAskedForAgain) {
  options_.give_up = milliseconds(0);
  const auto accounts = Make();
  directory_->SetHangs(true);
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable);
  ASSERT_TRUE(Eventually([&] { return directory_->running() == 1; }));
  directory_->AnswerNewLookUps();
  EXPECT_TRUE(Eventually([&] { return accounts->FindUser("alice").ok(); }));
  EXPECT_TRUE(Eventually([&] { return directory_->running() == 1; })) << "the one that was given up still hangs";

  directory_->Set("alice", 6);
  directory_->SetHangs(false);
  EXPECT_TRUE(Eventually([&] { return directory_->running() == 0; }));
  EXPECT_EQ(accounts->FindUser("alice")->uid, 5U) << "a late answer replaces no newer one";
}

TEST_F(AccountCache, LookUpThatHangs_IsNotRepeatedBeforeItIsGivenUp) {
  options_.give_up = kLong;
  const auto accounts = Make();
  directory_->SetHangs(true);
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable);
  ASSERT_TRUE(Eventually([&] { return directory_->running() == 1; }));
  directory_->AnswerNewLookUps();
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable);
  EXPECT_EQ(directory_->asked(), 1);
}

TEST_F(AccountCache, LookUpsThatWereGivenUp_LeaveTheirThreadsUpToABound) {
  options_.give_up = milliseconds(0);
  options_.max_threads = 2;
  options_.max_unknown_threads = 1;
  options_.max_given_up_threads = 3;
  const auto accounts = Make();
  directory_->SetHangs(true);
  for (int i = 0; i < 8; ++i) (void)accounts->FindUser("unknown" + std::to_string(i));
  EXPECT_TRUE(Eventually([&] { return directory_->running() == 5; }));
  EXPECT_EQ(directory_->asked(), 5);
  directory_->AnswerNewLookUps();
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable) << "no thread is left";
  directory_->SetHangs(false);
  EXPECT_TRUE(Eventually([&] { return accounts->FindUser("alice").ok(); }));
}

TEST_F(AccountCache, DirectoryHangs_LocalAccountsAreFound) {
  const auto accounts = Make();
  directory_->SetHangs(true);
  EXPECT_EQ(accounts->FindUser("local")->uid, 900U);
  EXPECT_EQ(accounts->FindUser("local")->stamp, "day-19700") << "so its sessions go on";
  EXPECT_EQ(accounts->FindUserByUid(0)->name, "root");
  EXPECT_EQ(accounts->FindGroupByGid(90)->name, "main");
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable) << "she may be in the directory";
}

TEST_F(AccountCache, MoreNamesThanEntries_AreAnsweredAndBounded) {
  options_.patience = kLong;
  options_.max_entries = 2;
  const auto accounts = Make();
  for (const char* name : {"alice", "b", "alice", "c", "alice", "d"}) (void)accounts->FindUser(name);
  EXPECT_EQ(directory_->asked(), 4) << "the name in use stays";
  EXPECT_EQ(CodeOf(accounts->FindUser("b")), ErrorCode::kNotFound);
  EXPECT_EQ(directory_->asked(), 5);
}

TEST_F(AccountCache, Destroyed_WhileLookUpHangs_DoesNotWait) {
  {
    const auto accounts = Make();
    directory_->SetHangs(true);
    EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable);
  }
  EXPECT_TRUE(Eventually([&] { return directory_->running() == 1; }));
}

TEST_F(AccountCache, LocalAccounts_HaveGroupsOfFiles) {
  const auto local = Local();
  const auto user = local->FindUser("local");
  ASSERT_TRUE(user.ok());
  ASSERT_EQ(user->groups.size(), 2U);
  EXPECT_EQ(user->groups[0].name, "main") << "the primary group comes first";
  EXPECT_EQ(user->groups[1].name, "administrators");
  EXPECT_TRUE(user->is_administrator);
  EXPECT_TRUE(local->FindUser("root")->is_administrator);
  EXPECT_EQ(CodeOf(local->FindUser("alice")), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(local->FindUserByUid(5)), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(local->FindGroupByGid(5)), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(local->VerifyPassword("local", "x")), ErrorCode::kUnavailable);
  const auto missing =
      MakeLocalAccounts({folder_.Path("no"), folder_.Path("no"), folder_.Path("no"), "administrators"});
  EXPECT_EQ(CodeOf(missing->FindUser("root")), ErrorCode::kUnavailable);
  EXPECT_EQ(CodeOf(missing->FindGroupByGid(0)), ErrorCode::kUnavailable);
}

}  // namespace
}  // namespace vexa::accounts
