// Where the account commands work: the data folder of a daemon, and its store.
#pragma once

#include <memory>
#include <string>

#include "host/base/result.h"
#include "host/cluster/account_store.h"
#include "host/store/store.h"

namespace vexa::cli {

struct AccountPlaces {
  std::string data_directory = "/var/lib/vexa";
  std::string other_store;          // "": "store" in the data folder
  std::string other_accounts_path;  // of an account file to take over; "": accounts.json in the data folder

  std::string store_path() const { return other_store.empty() ? data_directory + "/store" : other_store; }
  std::string accounts_path() const {
    return other_accounts_path.empty() ? data_directory + "/accounts.json" : other_accounts_path;
  }
};

enum class MissingStore { kRefuse, kCreate };

// The daemon's store. kNotFound when it does not exist and `missing` refuses; kDenied when another account owns it.
Result<std::shared_ptr<store::Store>> OpenStore(const AccountPlaces& places, MissingStore missing);

// The accounts in it, after an account file of an older version has been taken over; such a file may create the store,
// too. What the file's people should know goes to standard error and the system log.
// kDenied when the daemon takes its users from PAM, or when another account owns the files; kCorrupt and others as
// cluster::TakeOverAccountFile.
Result<std::unique_ptr<cluster::AccountStore>> OpenAccounts(const AccountPlaces& places, MissingStore missing);

}  // namespace vexa::cli
