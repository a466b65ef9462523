#include "bench/http_bench_data.h"

#include <json/value.h>

#include "bench/bench_util.h"
#include "bench/guest_records.h"
#include "host/base/files.h"
#include "host/cluster/account_store.h"
#include "host/records/guest_admin.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"

namespace vexa::bench {
namespace {

constexpr int kGuestsPerCommit = 100;

void AddGuest(int number, store::Transaction& transaction) {
  const std::string id = Id(0, number);
  Json::Value guest = GuestRecord(number);
  for (int device = 2 * number; device < 2 * number + 2; ++device) {
    guest["vdisks"].append(Id(1, device));
    guest["vnics"].append(Id(2, device));
    transaction.operations.push_back(Put("vdisk", Id(1, device), DiskRecord(id, device)));
    transaction.operations.push_back(Put("vnic", Id(2, device), NicRecord(id)));
  }
  transaction.operations.push_back(Put("guest", id, guest));
}

std::uint32_t AddUser(cluster::AccountStore& accounts, const char* name, std::vector<std::string> groups) {
  cluster::AccountStore::NewUser user;
  user.name = name;
  user.password = kPassword;
  user.groups = std::move(groups);
  if (const Status added = accounts.AddUser(user); !added) Fail(added.error().ToString());
  return Require(accounts.FindUser(name)).uid;
}

store::Operation Grant(std::uint32_t uid, int guests) {
  Json::Value record(Json::objectValue);
  record["authlevel"] = "user";
  for (int number = 0; number < guests; ++number) record["guests"][Id(0, number)] = true;
  return {records::GuestAdminKey(records::GuestAdminIdentifier("users", uid)),
          VexaVirtualization::json::ToText(record)};
}

}  // namespace

std::vector<std::string> GuestIds() {
  std::vector<std::string> ids;
  for (int number = 0; number < kGuests; ++number) ids.push_back(Id(0, number));
  return ids;
}

void Seed(const std::string& folder) {
  if (const Status made = CreateDirectories(folder, 0700); !made) Fail(made.error().ToString());
  store::LmdbOptions options;
  options.directory = folder + "/store";
  const auto store = Require(store::OpenLmdbStore(options));
  cluster::AccountStore accounts(store);
  AddUser(accounts, kAdministrator, {"administrators"});
  store::Transaction grants;
  grants.operations = {Grant(AddUser(accounts, kUserWithSomeGuests, {}), kGrantedGuests),
                       Grant(AddUser(accounts, kUserWithAllGuests, {}), kGuests)};
  (void)Require(store->Commit(grants));
  for (int first = 0; first < kGuests; first += kGuestsPerCommit) {
    store::Transaction transaction;
    for (int number = first; number < first + kGuestsPerCommit; ++number) AddGuest(number, transaction);
    (void)Require(store->Commit(transaction));
  }
}

}  // namespace vexa::bench
