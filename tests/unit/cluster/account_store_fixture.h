// A store of its own with accounts, for the tests of accounts.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/cluster/account_store.h"
#include "host/records/guest_admin.h"
#include "host/store/lmdb_store.h"
#include "tests/support/faulty_store.h"
#include "tests/support/require.h"
#include "tests/unit/storage/temporary_folder.h"

namespace vexa::cluster {

constexpr const char* kPassword = "correct horse battery";

class AccountStoreTest : public testing::Test {
 protected:
  static std::shared_ptr<store::Store> OpenStore(const std::string& folder) {
    store::LmdbOptions options;
    options.directory = folder;
    return test::Require(store::OpenLmdbStore(options));
  }

  void Add(const std::string& name, std::vector<std::string> groups = {},
           std::optional<std::uint32_t> uid = std::nullopt) {
    const Status status = accounts_.AddUser({name, kPassword, std::move(groups), uid});
    ASSERT_TRUE(status.ok()) << status.error().ToString();
  }
  template <class T>
  static ErrorCode CodeOf(const Result<T>& result) {
    EXPECT_FALSE(result.ok());
    return result.ok() ? ErrorCode::kInternal : result.error().code();
  }
  static std::vector<std::string> GroupNames(const accounts::User& user) {
    std::vector<std::string> names;
    for (const accounts::Group& group : user.groups) names.push_back(group.name);
    return names;
  }

  void Put(const std::string& key, const std::string& text) { (void)test::Require(real_->Commit({{}, {{key, text}}})); }
  // "absent" when it does not exist.
  std::string Text(const std::string& key) const {
    const auto snapshot = test::Require(real_->Read());
    const auto value = test::Require(snapshot->Get(key));
    return value ? std::string(value->text) : "absent";
  }
  static std::string GrantsKey(std::uint32_t uid) {
    return records::GuestAdminKey(records::GuestAdminIdentifier(records::kUsersKind, uid));
  }
  store::Revision Revision() const { return test::Require(real_->Read())->revision(); }

  TemporaryFolder folder_;
  std::shared_ptr<store::Store> real_ = OpenStore(folder_.Path("store"));
  std::shared_ptr<test::FaultyStore> store_ = std::make_shared<test::FaultyStore>(real_);
  AccountStore accounts_{store_};
};

}  // namespace vexa::cluster
