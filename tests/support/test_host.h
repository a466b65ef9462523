// The environment of a host for tests of the library: a real store with accounts in a folder of its own.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

#include "host/cluster/account_store.h"
#include "tests/support/faulty_store.h"
#include "tests/support/temp_dir.h"
#include "webapi/platform/webapi.h"

namespace vexa::test {

// Installed while it lives. AddUser adds users, also "root-like" administrators.
class TestHost {
 public:
  TestHost();
  ~TestHost();

  // With an unused password; returns the user's id.
  std::uint32_t AddUser(const std::string& name, const std::vector<std::string>& groups = {});
  std::uint32_t GroupId(const std::string& user, const std::string& group);

  // Stores `record` as the object of `category` and `id`.
  void Put(const std::string& category, const std::string& id, const Json::Value& record);
  // Stores the text unchanged, even when it is not JSON.
  void PutText(const std::string& category, const std::string& id, const std::string& text);
  void Remove(const std::string& category, const std::string& id);

  // The guest-admin record of a user or group; `kind` is "users" or "groups".
  void PutGuestAdmin(const std::string& kind, std::uint32_t id, const std::string& level,
                     const std::vector<std::string>& guests);

  static std::string ObjectKey(const std::string& category, const std::string& id);

  FaultyStore& store() { return *store_; }
  cluster::AccountStore& accounts() { return *accounts_; }
  const TempDir& folder() const { return folder_; }

 private:
  TempDir folder_;
  std::shared_ptr<FaultyStore> store_;
  std::shared_ptr<cluster::AccountStore> accounts_;
};

// A request as an ordinary user or administrator would send it.
VEXA::APIRequest UserRequest(const Json::Value& parameters, const std::string& user);
VEXA::APIRequest AdministratorRequest(const Json::Value& parameters);

// The JSON value of `text`; the test program ends when it is not valid.
Json::Value Parsed(const std::string& text);

}  // namespace vexa::test

namespace vexa {
using test::Parsed;  // so that the tests of every room see it
}
