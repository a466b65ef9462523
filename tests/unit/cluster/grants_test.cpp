// Grants: what a change leaves in the record, whom it refuses, and what can be read of all records.
#include "host/cluster/grants.h"

#include <thread>

#include "host/cluster/console_right.h"
#include "host/records/guest_admin.h"
#include "tests/support/matchers.h"
#include "tests/unit/cluster/account_store_fixture.h"

namespace vexa::cluster {
namespace {

constexpr const char* kFirst = "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55";
constexpr const char* kSecond = "00000000-0000-4000-8000-00000000000a";
constexpr std::uint32_t kAlice = 1026;

class Grants : public AccountStoreTest {
 protected:
  Grants() { Add("alice", {"staff"}, kAlice); }

  GrantPrincipal Find(records::AccountKind kind, const PrincipalNameOrId& word) const {
    return test::Require(FindPrincipal(accounts_, *store_, kind, word));
  }
  GrantPrincipal Alice() const { return Find(records::AccountKind::kUser, "alice"); }
  GrantPrincipal Staff() const { return Find(records::AccountKind::kGroup, "staff"); }
  std::string RecordOfAlice() const { return Text(GrantsKey(kAlice)); }
  static std::string GroupKey(std::uint32_t gid) {
    return records::GuestAdminKey(records::GuestAdminIdentifier(records::kGroupsKind, gid));
  }
  AllGrants ReadAll() const { return test::Require(ReadAllGrants(*test::Require(real_->Read()))); }
};

TEST_F(Grants, GrantAndRevoke_EditTheRecordAndKeepTheRest) {
  ASSERT_TRUE(GrantGuests(*store_, Alice(), {kFirst, kSecond}).ok());
  EXPECT_EQ(RecordOfAlice(), std::string(R"({"authlevel":"user","guests":{")") + kSecond + R"(":true,")" + kFirst +
                                 R"(":true},"name":"alice"})");
  Put(GrantsKey(kAlice), std::string(R"({"authlevel":"user","more":[1],"guests":{")") + kFirst + R"(":false}})");
  ASSERT_TRUE(SetGrantLevel(*store_, Alice(), GrantLevel::kAdvanced).ok());
  ASSERT_TRUE(RevokeGuests(*store_, Alice(), {kFirst, kSecond}).ok());
  EXPECT_EQ(RecordOfAlice(), R"({"authlevel":"advanced","guests":{},"more":[1],"name":"alice"})");
  ASSERT_TRUE(SetGrantLevel(*store_, Alice(), GrantLevel::kUser).ok());
  EXPECT_THAT(RecordOfAlice(), HasSubstr(R"("authlevel":"user")"));
}

TEST_F(Grants, Consoles_AreGrantedWithGuestAndRevokedAloneOrTogether) {
  const auto may_open = [this](const char* guest) {
    const auto user = accounts_.FindUser("alice");
    const auto allowed = MayOpenConsole(*test::Require(real_->Read()), *user, guest);
    EXPECT_TRUE(allowed.ok());
    return allowed.ok() && *allowed;
  };
  const std::string first = std::string("{\"") + kFirst + "\":true}";
  ASSERT_TRUE(GrantGuests(*store_, Alice(), {kFirst}).ok());
  EXPECT_FALSE(may_open(kFirst)) << "the guest alone does not include its console";
  ASSERT_TRUE(GrantConsoles(*store_, Alice(), {"6F1C2A0E-4A57-4F0C-8B2E-0D9B1F6F3C55"}).ok());
  EXPECT_EQ(RecordOfAlice(),
            R"({"authlevel":"user","consoles":)" + first + R"(,"guests":)" + first + R"(,"name":"alice"})");
  EXPECT_TRUE(may_open(kFirst));
  EXPECT_FALSE(may_open(kSecond));
  ASSERT_TRUE(RevokeConsoles(*store_, Alice(), {kFirst, kSecond}).ok());
  EXPECT_EQ(RecordOfAlice(), R"({"authlevel":"user","guests":)" + first + R"(,"name":"alice"})");
  EXPECT_FALSE(may_open(kFirst));
  ASSERT_TRUE(GrantConsoles(*store_, Alice(), {kFirst}).ok());
  EXPECT_EQ(ReadAll().records.at(0).console_ids, std::vector<std::string>{kFirst});
  ASSERT_TRUE(RevokeGuests(*store_, Alice(), {kFirst}).ok());
  EXPECT_EQ(RecordOfAlice(), R"({"authlevel":"user","guests":{},"name":"alice"})");
  ASSERT_TRUE(GrantGuests(*store_, Alice(), {kFirst}).ok());
  EXPECT_FALSE(may_open(kFirst)) << "the console does not come back with the guest";
}

TEST_F(Grants, Console_CountsOnlyWithGuestAndForItsPrincipal) {
  const auto may_open = [this] {
    const auto user = accounts_.FindUser("alice");
    const auto allowed = MayOpenConsole(*test::Require(real_->Read()), *user, kFirst);
    EXPECT_TRUE(allowed.ok());
    return allowed.ok() && *allowed;
  };
  const std::string first = std::string("{\"") + kFirst + "\":true}";
  Put(GrantsKey(kAlice), R"({"consoles":)" + first + R"(,"guests":{}})");
  EXPECT_FALSE(may_open());
  ASSERT_TRUE(GrantGuests(*store_, Staff(), {kFirst}).ok());
  EXPECT_TRUE(may_open()) << "the guest through the group, the console through the user";
  Put(GrantsKey(kAlice), R"({"consoles":)" + first + R"(,"guests":{},"name":"bob"})");
  EXPECT_FALSE(may_open()) << "given to another name";
  Put(GrantsKey(kAlice), R"({"consoles":7,"guests":[]})");
  EXPECT_FALSE(may_open());
  accounts::User root{"root", 0, 0, {}, true};
  EXPECT_TRUE(*MayOpenConsole(*test::Require(real_->Read()), root, kFirst));
}

TEST_F(Grants, Console_OfDeletedGuest_IsRemoved) {
  ASSERT_TRUE(GrantConsoles(*store_, Alice(), {kFirst, kSecond}).ok());
  store::Transaction transaction;
  std::vector<Error> damage;
  ASSERT_TRUE(records::AddGrantRemovals(*test::Require(real_->Read()), kFirst, transaction, damage).ok());
  ASSERT_TRUE(store_->Commit(transaction).ok());
  const std::string second = std::string("{\"") + kSecond + "\":true}";
  EXPECT_EQ(RecordOfAlice(),
            R"({"authlevel":"user","consoles":)" + second + R"(,"guests":)" + second + R"(,"name":"alice"})");
}

TEST_F(Grants, Grant_GuestIdInUpperCase_IsStoredInLowerCase) {
  const std::string upper = "6F1C2A0E-4A57-4F0C-8B2E-0D9B1F6F3C55";
  ASSERT_TRUE(GrantGuests(*store_, Alice(), {upper}).ok());
  EXPECT_EQ(RecordOfAlice(), std::string(R"({"authlevel":"user","guests":{")") + kFirst + R"(":true},"name":"alice"})");
  Put(GrantsKey(kAlice),
      R"({"authlevel":"user","guests":{")" + upper + R"(":true,")" + kFirst + R"(":true,"g":true}})");
  ASSERT_TRUE(RevokeGuests(*store_, Alice(), {"6F1C2A0e-4a57-4f0c-8b2e-0d9b1f6f3c55"}).ok());
  EXPECT_EQ(RecordOfAlice(), R"({"authlevel":"user","guests":{"g":true},"name":"alice"})");
}

TEST_F(Grants, Grant_ToGroup_IsStoredUnderGroupId) {
  const GrantPrincipal staff = Staff();
  ASSERT_TRUE(GrantGuests(*store_, staff, {kFirst}).ok());
  EXPECT_THAT(Text(GroupKey(staff.id)), AllOf(HasSubstr(kFirst), HasSubstr(R"("name":"staff")")));
  EXPECT_EQ(RecordOfAlice(), "absent");
}

TEST_F(Grants, Principals_ByNameInAnyCaseOrId_AreFound) {
  const GrantPrincipal by_name = Find(records::AccountKind::kUser, "ALICE");
  EXPECT_EQ(by_name.name, "alice");
  EXPECT_EQ(by_name.id, kAlice);
  EXPECT_EQ(Find(records::AccountKind::kUser, kAlice).name, "alice");
  EXPECT_EQ(Find(records::AccountKind::kGroup, Staff().id).name, "staff");
  EXPECT_EQ(CodeOf(FindPrincipal(accounts_, *store_, records::AccountKind::kUser, "staff")), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(FindPrincipal(accounts_, *store_, records::AccountKind::kGroup, kAlice)), ErrorCode::kNotFound);
}

TEST_F(Grants, SystemPrincipals_ByNameOrId_AreFound) {
  for (const records::AccountKind kind : {records::AccountKind::kUser, records::AccountKind::kGroup}) {
    const GrantPrincipal by_name = test::Require(FindSystemPrincipal(kind, "root"));
    EXPECT_EQ(by_name.id, 0U);
    EXPECT_EQ(test::Require(FindSystemPrincipal(kind, std::uint32_t{0})).name, "root");
    EXPECT_EQ(CodeOf(FindSystemPrincipal(kind, "nobody-of-this-name")), ErrorCode::kNotFound);
    ASSERT_TRUE(GrantGuests(*store_, by_name, {kFirst}).ok());
  }
  EXPECT_THAT(Text(GrantsKey(0)), HasSubstr(R"("name":"root")"));
  EXPECT_THAT(Text(GroupKey(0)), HasSubstr(R"("name":"root")"));
}

// Directories have names that accounts of the store cannot have.
TEST_F(Grants, SystemPrincipals_NamesInvalidForAccounts_AreLookedUp) {
  for (const records::AccountKind kind : {records::AccountKind::kUser, records::AccountKind::kGroup}) {
    const auto found = FindSystemPrincipal(kind, "NO-SUCH-DOMAIN\\domain users");
    EXPECT_EQ(CodeOf(found), ErrorCode::kNotFound);
    EXPECT_THAT(found.error().ToString(), HasSubstr("'NO-SUCH-DOMAIN\\domain users'"));
    for (const std::string& name : {std::string(), std::string("a\nb"), std::string("\xff"), std::string(257, 'a')}) {
      EXPECT_THAT(FindSystemPrincipal(kind, name).error().ToString(), HasSubstr("name is invalid"));
    }
  }
}

TEST_F(Grants, Grants_RecordOfOtherName_CannotBeChangedButDropped) {
  const char* text = R"({"authlevel":"user","guests":{"g":true},"name":"bob"})";
  Put(GrantsKey(kAlice), text);
  const GrantPrincipal alice = Alice();
  for (const Status& status : {GrantGuests(*store_, alice, {kFirst}), RevokeGuests(*store_, alice, {kFirst}),
                               SetGrantLevel(*store_, alice, GrantLevel::kAdvanced)}) {
    EXPECT_EQ(CodeOf(status), ErrorCode::kDenied);
    EXPECT_THAT(status.error().ToString(), AllOf(HasSubstr("'bob'"), HasSubstr("'alice'"), HasSubstr("drop-grants")));
  }
  EXPECT_EQ(RecordOfAlice(), text);
  ASSERT_TRUE(DropGrants(*store_, records::AccountKind::kUser, kAlice).ok());
  EXPECT_EQ(RecordOfAlice(), "absent");
  EXPECT_TRUE(DropGrants(*store_, records::AccountKind::kUser, kAlice).ok()) << "there is nothing left to drop";
  EXPECT_TRUE(GrantGuests(*store_, alice, {kFirst}).ok());
}

TEST_F(Grants, DamagedRecord_IsReportedAndNotOverwritten) {
  for (const char* text : {"[]", "\"x\"", R"({"guests":[]})", R"({"guests":"x"})"}) {
    Put(GrantsKey(kAlice), text);
    EXPECT_EQ(CodeOf(GrantGuests(*store_, Alice(), {kFirst})), ErrorCode::kCorrupt) << text;
    EXPECT_EQ(RecordOfAlice(), text);
    EXPECT_EQ(CodeOf(ReadGrants(*test::Require(real_->Read()), records::AccountKind::kUser, kAlice)),
              ErrorCode::kCorrupt);
    EXPECT_THAT(ReadAll().damaged, ElementsAre("users-1026"));
  }
}

TEST_F(Grants, Grant_PrincipalDeletedSinceLookUp_IsRefused) {
  const GrantPrincipal alice = Alice();
  const GrantPrincipal staff = Staff();
  ASSERT_TRUE(accounts_.DeleteUser("alice").ok());
  ASSERT_TRUE(accounts_.DeleteGroup("staff").ok());
  EXPECT_EQ(CodeOf(GrantGuests(*store_, alice, {kFirst})), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(SetGrantLevel(*store_, staff, GrantLevel::kAdvanced)), ErrorCode::kNotFound);
  EXPECT_EQ(RecordOfAlice(), "absent");
  EXPECT_EQ(Text(GroupKey(staff.id)), "absent");
}

TEST_F(Grants, Grant_Concurrent_NoneIsLost) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i] {
      const std::string id = "00000000-0000-4000-8000-00000000000" + std::to_string(i);
      const Status granted = GrantGuests(*store_, Alice(), {id});
      EXPECT_TRUE(granted.ok()) << granted.error().ToString();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < 8; ++i) EXPECT_THAT(RecordOfAlice(), HasSubstr("-00000000000" + std::to_string(i)));
}

TEST_F(Grants, Read_ReportsLevelGuestsAndName) {
  const auto snapshot = [this] { return test::Require(real_->Read()); };
  EXPECT_FALSE(test::Require(ReadGrants(*snapshot(), records::AccountKind::kUser, kAlice)).has_value());
  ASSERT_TRUE(GrantGuests(*store_, Alice(), {kFirst, kSecond}).ok());
  ASSERT_TRUE(SetGrantLevel(*store_, Staff(), GrantLevel::kAdvanced).ok());
  const auto record = test::Require(ReadGrants(*snapshot(), records::AccountKind::kUser, kAlice));
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->name, "alice");
  EXPECT_EQ(record->level, GrantLevel::kUser);
  EXPECT_THAT(record->guest_ids, ElementsAre(kSecond, kFirst));
  Put(records::GuestAdminKey("users-01026"), "{}");
  const AllGrants all = ReadAll();
  ASSERT_EQ(all.records.size(), 2U);
  EXPECT_EQ(all.records[0].id, kAlice);
  EXPECT_EQ(all.records[1].kind, records::AccountKind::kGroup);
  EXPECT_EQ(all.records[1].level, GrantLevel::kAdvanced);
  EXPECT_THAT(all.records[1].guest_ids, IsEmpty());
  EXPECT_THAT(all.damaged, ElementsAre("users-01026"));
}

TEST_F(Grants, Grants_StoreUnreadable_IsAnError) {
  const GrantPrincipal alice = Alice();
  store_->FailSnapshots();
  EXPECT_FALSE(GrantGuests(*store_, alice, {kFirst}).ok());
  EXPECT_FALSE(FindPrincipal(accounts_, *store_, records::AccountKind::kUser, "alice").ok());
  EXPECT_EQ(RecordOfAlice(), "absent");
}

class AccountGroups : public AccountStoreTest {};

TEST_F(AccountGroups, List_HasMembersInOrderAndEmptyGroups) {
  Add("bob", {"staff", "crew"});
  Add("alice", {"staff"});
  ASSERT_TRUE(accounts_.SetGroups("bob", {"staff"}).ok());
  const auto groups = test::Require(accounts_.ListGroups());
  std::vector<std::string> shown;
  for (const auto& [group, members] : groups) {
    shown.push_back(group.name + ":");
    for (const std::string& member : members) shown.back() += " " + member;
  }
  EXPECT_THAT(shown, ElementsAre("administrators:", "crew:", "staff: alice bob", "users: alice bob"));
}

TEST_F(AccountGroups, DeleteGroup_Empty_RemovesItsGrantsToo) {
  Add("bob", {"staff"});
  const accounts::Group staff = test::Require(accounts_.FindGroup("staff"));
  const std::string key = records::GuestAdminKey(records::GuestAdminIdentifier(records::kGroupsKind, staff.gid));
  Put(key, R"({"guests":{"g":true},"name":"staff"})");
  const Status refused = accounts_.DeleteGroup("staff");
  EXPECT_EQ(CodeOf(refused), ErrorCode::kDenied);
  EXPECT_THAT(refused.error().ToString(), AllOf(HasSubstr("'bob'"), HasSubstr("vexa user group")));
  EXPECT_NE(Text(key), "absent");
  ASSERT_TRUE(accounts_.SetGroups("bob", {}).ok());
  ASSERT_TRUE(accounts_.DeleteGroup("STAFF").ok());
  EXPECT_EQ(CodeOf(accounts_.FindGroup("staff")), ErrorCode::kNotFound);
  EXPECT_EQ(Text(key), "absent");
  EXPECT_EQ(CodeOf(accounts_.DeleteGroup("staff")), ErrorCode::kNotFound);
  ASSERT_TRUE(accounts_.SetGroups("bob", {"staff"}).ok());
  EXPECT_NE(test::Require(accounts_.FindGroup("staff")).gid, staff.gid) << "an id is given once";
}

TEST_F(AccountGroups, DeleteGroup_BuiltIn_IsRefused) {
  Add("bob");
  for (const char* name : {"administrators", "users", "Users"}) {
    EXPECT_EQ(CodeOf(accounts_.DeleteGroup(name)), ErrorCode::kDenied) << name;
  }
}

TEST_F(AccountGroups, DeleteGroup_SomeUserDamaged_IsRefused) {
  Add("bob", {"staff"});
  ASSERT_TRUE(accounts_.SetGroups("bob", {}).ok());
  Put(records::AccountKey(records::AccountKind::kUser, test::Require(accounts_.FindUser("bob")).uid), "[]");
  EXPECT_EQ(CodeOf(accounts_.DeleteGroup("staff")), ErrorCode::kCorrupt);
  EXPECT_EQ(CodeOf(accounts_.DeleteGroup("unknown")), ErrorCode::kCorrupt) << "its record may be the damaged one";
}

}  // namespace
}  // namespace vexa::cluster
