// Where the account commands work when they do not ask a daemon: its data folder, and its store.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/base/data_lock.h"
#include "host/base/result.h"
#include "host/cluster/account_source.h"
#include "host/cluster/account_store.h"
#include "host/store/store.h"

namespace vexa::cli {

enum class BesideDaemon { kRefuse, kAllow };

struct AccountPlaces {
  std::string data_directory = "/var/lib/vexa";
  std::string other_store;          // "": "store" in the data folder
  std::string other_accounts_path;  // of an account file to take over; "": accounts.json in the data folder
  // What the daemon's configuration says; without it what its last start has noted in the data folder.
  std::optional<cluster::AccountSource> source;
  BesideDaemon daemon = BesideDaemon::kRefuse;  // whether the store may be opened while the folder's daemon runs

  std::string store_path() const { return other_store.empty() ? data_directory + "/store" : other_store; }
  std::string mirror_path() const { return data_directory + "/mirror"; }
  std::string accounts_path() const {
    return other_accounts_path.empty() ? data_directory + "/accounts.json" : other_accounts_path;
  }
};

// Where the daemon's users are.
cluster::AccountSource SourceOf(const AccountPlaces& places);

enum class MissingStore { kRefuse, kCreate };

// The places that the daemon's configuration file at `path` names. An empty path is the usual file, which may be
// missing. Flags in the daemon's unit are not known here.
// kNotFound, kDenied or kInvalid when the file cannot be read.
Result<AccountPlaces> PlacesInConfiguration(const std::string& path);

// While it lives no daemon starts on the data folder, except beside one that was allowed.
struct LocalStore {
  DataLock lock;
  std::shared_ptr<store::Store> store;
};

// The daemon's store. Not to be kept while somebody is asked for a password. kNotFound when it does not exist and
// `missing` refuses; kDenied when another account owns it; kBusy when a daemon runs; kUnavailable when this host had a
// store there that is gone, and kConflict when it had a newer one.
Result<LocalStore> OpenStore(const AccountPlaces& places, MissingStore missing);

struct LocalAccounts {
  LocalStore opened;
  std::unique_ptr<cluster::AccountStore> accounts;
};

// The accounts in the store, after an account file of an older version has been taken over. What the file's people
// should know goes to standard error and the system log. kDenied when the daemon takes its users from PAM, or when
// another account owns the files; kCorrupt and others as cluster::TakeOverAccountFile; those of OpenStore.
Result<LocalAccounts> OpenAccounts(const AccountPlaces& places, MissingStore missing);

// Writes what was changed, a sentence, to the system log and the cluster log, in the name of this program's user.
void LogLocalChange(const AccountPlaces& places, const LocalStore& opened, const std::string& sentence);

}  // namespace vexa::cli
