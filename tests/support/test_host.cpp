#include "tests/support/test_host.h"

#include <cstdlib>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/require.h"

namespace vexa::test {

TestHost::TestHost() {
  store::LmdbOptions options;
  options.directory = folder_.File("store");
  const auto store = Require(store::OpenLmdbStore(options));
  store_ = std::make_shared<FaultyStore>(store);
  // Without the faults, which are only for the code under test.
  accounts_ = std::make_shared<cluster::AccountStore>(store);
  records::Environment environment;
  environment.store = store_;
  environment.accounts = accounts_;
  environment.host_id = "11111111-2222-4333-8444-555555555555";
  environment.cache_directory = folder_.File("cache");
  records::InstallEnvironment(std::move(environment));
}

TestHost::~TestHost() { records::RemoveEnvironment(); }

std::uint32_t TestHost::AddUser(const std::string& name, const std::vector<std::string>& groups) {
  cluster::AccountStore::NewUser user;
  user.name = name;
  user.password = "correct horse";
  user.groups = groups;
  Require(accounts_->AddUser(user));
  return Require(accounts_->FindUser(name)).uid;
}

std::uint32_t TestHost::GroupId(const std::string& user, const std::string& group) {
  for (const accounts::Group& candidate : Require(accounts_->FindUser(user)).groups) {
    if (candidate.name == group) return candidate.gid;
  }
  std::abort();
}

void TestHost::Put(const std::string& category, const std::string& id, const Json::Value& record) {
  PutText(category, id, VexaVirtualization::json::ToText(record));
}

void TestHost::PutText(const std::string& category, const std::string& id, const std::string& text) {
  (void)Require(store_->Commit({{}, {{ObjectKey(category, id), text}}}));
}

void TestHost::Remove(const std::string& category, const std::string& id) {
  (void)Require(store_->Commit({{}, {{ObjectKey(category, id), std::nullopt}}}));
}

void TestHost::PutGuestAdmin(const std::string& kind, std::uint32_t id, const std::string& level,
                             const std::vector<std::string>& guests) {
  Json::Value record(Json::objectValue);
  record["authlevel"] = level;
  record["guests"] = Json::Value(Json::objectValue);
  for (const std::string& guest : guests) record["guests"][guest] = true;
  Put("guest_admin", records::GuestAdminIdentifier(kind, id), record);
}

std::string TestHost::ObjectKey(const std::string& category, const std::string& id) {
  return store::MakeKey({"dash", category, id, "object"});
}

VEXA::APIRequest UserRequest(const Json::Value& parameters, const std::string& user) {
  return VEXA::APIRequest(parameters, user, VEXA::APIRequest::Privilege::kOrdinary);
}

VEXA::APIRequest AdministratorRequest(const Json::Value& parameters) {
  return VEXA::APIRequest(parameters, "root", VEXA::APIRequest::Privilege::kAdministrator);
}

Json::Value Parsed(const std::string& text) { return Require(ParseJson(text)); }

}  // namespace vexa::test
