// The rights of users and groups on one guest, set together.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/request_scope.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::platform {
namespace {

using test::TestHost;
using VexaCCC::gaGuestSet;
using VexaCCC::tagGuestAdminRule;

using Texts = std::vector<std::string>;

const std::string kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";

tagGuestAdminRule User(std::uint32_t id, bool allow, const std::string& name = "") {
  return {"users", "", name, "", id, allow};
}
tagGuestAdminRule Group(std::uint32_t id, bool allow, const std::string& name = "") {
  return {"groups", "", name, "", id, allow};
}

class GuestAdminGuest : public testing::Test {
 protected:
  static Texts Granted(const std::string& user) {
    std::set<std::string> ids;
    EXPECT_EQ(VexaCCC::gaUserListAvail(user, "guest", ids), 0);
    return {ids.begin(), ids.end()};
  }
  std::string Text(const std::string& identifier) {
    const auto snapshot = host_.store().Read();
    const auto value = (*snapshot)->Get(records::GuestAdminKey(identifier));
    return value->has_value() ? std::string((*value)->text) : "absent";
  }
  store::Revision Revision() { return (*host_.store().Read())->revision(); }

  // What failed, or {"fine"}.
  static Texts Set(const std::vector<tagGuestAdminRule>& rules, const std::string& guest = kGuest) {
    Texts failed{"what was there before"};
    const int result = gaGuestSet(guest, rules, failed);
    EXPECT_LE(result, 0);
    EXPECT_EQ(result < 0, !failed.empty());
    return result == 0 ? Texts{"fine"} : failed;
  }

  TestHost host_;
  const std::uint32_t alice_ = host_.AddUser("alice", {"team"});
  const std::uint32_t bob_ = host_.AddUser("bob", {"team"});
  const std::uint32_t team_ = host_.GroupId("alice", "team");
};

const Texts kFine{"fine"};

TEST_F(GuestAdminGuest, Set_Rules_ChangeUsersAndGroups) {
  host_.PutGuestAdmin("users", bob_, "advanced", {"other", kGuest});
  EXPECT_EQ(Set({User(alice_, true), User(bob_, false)}), kFine);
  EXPECT_EQ(Granted("alice"), Texts{kGuest});
  EXPECT_EQ(Granted("bob"), Texts{"other"});
  EXPECT_EQ(VexaCCC::gaIsAdvancedUser("alice"), 0);
  EXPECT_EQ(VexaCCC::gaIsAdvancedUser("bob"), 1) << "the level stays";
  EXPECT_EQ(Set({Group(team_, true)}), kFine);
  EXPECT_EQ(Granted("bob"), (Texts{kGuest, "other"}));
  EXPECT_EQ(Set({Group(team_, false)}), kFine);
  EXPECT_EQ(Granted("alice"), Texts{kGuest}) << "her own";
  EXPECT_EQ(Granted("bob"), Texts{"other"});
}

TEST_F(GuestAdminGuest, Set_NewRecord_HasUsualForm) {
  ASSERT_EQ(Set({User(alice_, true)}), kFine);
  EXPECT_EQ(Parsed(Text(records::GuestAdminIdentifier(records::kUsersKind, alice_))),
            Parsed(R"({"authlevel":"user","name":"alice","guests":{")" + kGuest + "\":true}}"));
}

TEST_F(GuestAdminGuest, Set_UserAndGroupOfSameNumber_AreDistinct) {
  ASSERT_EQ(Set({User(alice_, true)}), kFine);
  EXPECT_EQ(Text(records::GuestAdminIdentifier(records::kGroupsKind, alice_)), "absent");
}

TEST_F(GuestAdminGuest, Set_NothingToChange_WritesNothing) {
  ASSERT_EQ(Set({User(alice_, true)}), kFine);
  const auto before = Revision();
  EXPECT_EQ(Set({}), kFine);
  EXPECT_EQ(Set({User(alice_, true), User(bob_, false), Group(team_, false)}), kFine);
  EXPECT_EQ(Set({User(bob_, true), User(bob_, false)}), kFine);
  EXPECT_EQ(Revision(), before);
}

TEST_F(GuestAdminGuest, Set_Changes_AreInTheSystemLogWithActor) {
  records::Environment environment = *records::CurrentEnvironment();
  environment.acting_user = []() -> std::string_view { return "eve"; };
  records::InstallEnvironment(std::move(environment));
  ASSERT_EQ(Set({User(bob_, true)}), kFine);
  test::ClearCapturedSyslog();
  ASSERT_EQ(Set({User(alice_, true), User(bob_, false), Group(team_, true), User(UINT32_MAX, true, "x")}), Texts{"x"});
  const auto lines = test::CapturedSyslog();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "User[eve] has changed the rights on the virtual machine [" + kGuest +
                               "]: the group [team] may use it, the user [alice] may use it, the user [bob] may no "
                               "longer use it.");
  ASSERT_EQ(Set({User(alice_, true)}), kFine);
  EXPECT_EQ(test::CapturedSyslog().size(), 1u) << "nothing has changed";
  host_.store().FailCommits();
  EXPECT_NE(Set({User(alice_, false)}), kFine);
  EXPECT_EQ(test::CapturedSyslog().size(), 1u);
}

TEST_F(GuestAdminGuest, Set_ManyChanges_AreOneCommit) {
  const auto before = Revision();
  EXPECT_EQ(Set({User(alice_, true), User(bob_, true), Group(team_, true)}), kFine);
  EXPECT_EQ(Revision(), before + 1);
}

TEST_F(GuestAdminGuest, Set_SeveralRulesForOnePrincipal_LastCounts) {
  EXPECT_EQ(Set({User(alice_, true), User(bob_, true), User(alice_, false), User(bob_, false), User(bob_, true)}),
            kFine);
  EXPECT_EQ(Granted("alice"), Texts{});
  EXPECT_EQ(Granted("bob"), Texts{kGuest});
}

TEST_F(GuestAdminGuest, Set_UnknownPrincipals_AreReportedAndOthersApplied) {
  EXPECT_EQ(
      Set({User(UINT32_MAX, true, "eve"), User(4'000'000'000u, true), User(alice_, true), Group(alice_, true, "g"),
           User(team_, false, "t"), User(UINT32_MAX, false, "eve"), Group(UINT32_MAX, true)}),
      (Texts{"4000000000", "4294967295", "eve", "g", "t"}));
  EXPECT_EQ(Granted("alice"), Texts{kGuest});
}

TEST_F(GuestAdminGuest, Set_OtherKinds_AreUnknownPrincipals) {
  for (const std::string& kind : Texts{"", "user", "Users", "groups ", {"users\0", 6}, "../users"}) {
    EXPECT_EQ(Set({{kind, "", "x", "", alice_, true}}), Texts{"x"}) << kind;
  }
  EXPECT_EQ(Granted("alice"), Texts{});
}

TEST_F(GuestAdminGuest, Set_TypeAndExtra_AreIgnored) {
  EXPECT_EQ(Set({{"users", "\xff", "alice", "../..", alice_, true}}), kFine);
  EXPECT_EQ(Granted("alice"), Texts{kGuest});
}

TEST_F(GuestAdminGuest, Set_DeletedAccount_IsUnknownPrincipal) {
  ASSERT_TRUE(host_.accounts().DeleteUser("bob").ok());
  EXPECT_EQ(Set({User(bob_, true, "bob"), User(alice_, true)}), Texts{"bob"});
  EXPECT_EQ(Granted("alice"), Texts{kGuest});
}

TEST_F(GuestAdminGuest, Set_DamagedRecord_IsReportedUnchangedAndOthersApplied) {
  const std::string identifier = records::GuestAdminIdentifier(records::kUsersKind, bob_);
  for (const char* text : {"{", "", "[]", "null", R"({"guests":[1]})", R"({"guests":"a"})"}) {
    host_.PutText("guest_admin", identifier, text);
    ASSERT_EQ(Set({User(alice_, false)}), kFine);
    EXPECT_EQ(Set({User(bob_, true, "bob"), User(alice_, true)}), Texts{"bob"}) << text;
    EXPECT_EQ(Text(identifier), text);
    EXPECT_EQ(Granted("alice"), Texts{kGuest});
  }
}

TEST_F(GuestAdminGuest, Set_InvalidGuestId_GrantsNothing) {
  const auto before = Revision();
  for (const std::string& guest : Texts{"", "\xff", std::string(1 << 20, 'g')}) {
    EXPECT_EQ(Set({User(alice_, true, "alice")}, guest), Texts{"alice"}) << guest.substr(0, 10);
  }
  EXPECT_EQ(Revision(), before);
}

TEST_F(GuestAdminGuest, Set_StoreFails_ChangesNothing) {
  const std::vector<tagGuestAdminRule> rules{User(alice_, true, "alice"), User(bob_, true), User(5, true, "x")};
  const Texts all{std::to_string(bob_), "alice", "x"};
  host_.store().FailCommits();
  EXPECT_EQ(Set(rules), all);
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_EQ(Set(rules), all);
  host_.store().Heal();
  host_.store().FailReadsOf(records::GuestAdminKey(records::GuestAdminIdentifier(records::kUsersKind, bob_)));
  EXPECT_EQ(Set(rules), all);
  host_.store().Heal();
  EXPECT_EQ(Granted("alice"), Texts{});
  host_.store().ConflictCommits(5);
  EXPECT_EQ(Set({User(alice_, true)}), kFine) << "tried again";
  EXPECT_EQ(Granted("alice"), Texts{kGuest});
}

TEST_F(GuestAdminGuest, Set_InRequest_IsVisibleToIt) {
  const records::RequestScope scope;
  EXPECT_EQ(Granted("alice"), Texts{});
  ASSERT_EQ(Set({User(alice_, true)}), kFine);
  EXPECT_EQ(Granted("alice"), Texts{kGuest});
}

TEST_F(GuestAdminGuest, Set_FourThreads_LoseNoGrant) {
  constexpr int kEach = 15;
  std::atomic<int> failed{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        for (int n = 0; n < kEach; ++n) {
          Texts names;
          const std::string guest = std::to_string(i) + "-" + std::to_string(n);
          if (gaGuestSet(guest, {User(alice_, true), Group(team_, true)}, names) != 0) ++failed;
        }
      });
    }
  }
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(Granted("alice").size(), 4u * kEach);
  EXPECT_EQ(Granted("bob").size(), 4u * kEach);
}

TEST(GuestAdminGuestWithoutHost, Set_NoHost_Fails) {
  Texts failed;
  EXPECT_LT(gaGuestSet(kGuest, {}, failed), 0);
}

}  // namespace
}  // namespace vexa::platform
