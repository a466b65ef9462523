// The daemon's data folder and store, on which the account commands work with --local instead of calling the daemon.
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

enum class RunningDaemon { kRefuse, kAllow };

struct AccountPaths {
  std::string data_directory = "/var/lib/vexa";
  std::string store_folder;       // "": "store" in the data folder
  std::string account_file_path;  // an account file to migrate; "": accounts.json in the data folder
  // From the daemon's configuration. Not set: the source that the daemon's last start recorded in the data folder.
  std::optional<cluster::AccountSource> source;
  RunningDaemon running_daemon = RunningDaemon::kRefuse;  // whether the store may be opened while a daemon uses it

  std::string store_path() const { return store_folder.empty() ? data_directory + "/store" : store_folder; }
  std::string mirror_path() const { return data_directory + "/mirror"; }
  std::string accounts_path() const {
    return account_file_path.empty() ? data_directory + "/accounts.json" : account_file_path;
  }
};

// Where the daemon takes its users from: the store or PAM.
cluster::AccountSource AccountSourceOf(const AccountPaths& paths);

enum class MissingStore { kRefuse, kCreate };

// The paths that the daemon's configuration file at `path` names. An empty path means the default file, which may be
// missing. Flags in the daemon's unit are not known here. kNotFound, kDenied or kInvalid when the file cannot be read.
Result<AccountPaths> PathsInConfiguration(const std::string& path);

// An open store. As long as it exists, no daemon starts on the data folder, unless RunningDaemon::kAllow was set.
struct LocalStore {
  DataLock lock;
  std::shared_ptr<store::Store> store;
};

// Opens the daemon's store. Close it before a password prompt. kNotFound when it does not exist and `missing` refuses;
// kDenied when another account owns it; kBusy when a daemon runs; kUnavailable when this host had a store there that is
// gone; kConflict when it had a newer one.
Result<LocalStore> OpenStore(const AccountPaths& paths, MissingStore missing);

struct LocalAccounts {
  LocalStore opened;
  std::unique_ptr<cluster::AccountStore> accounts;
};

// Opens the accounts in the store, after migrating an account file of an older version. Notices about the migration go
// to standard error and the system log. kDenied when the daemon takes its users from PAM, or when another account owns
// the files; also the errors of cluster::MigrateAccountFile and OpenStore.
Result<LocalAccounts> OpenAccounts(const AccountPaths& paths, MissingStore missing);

// Writes a sentence about a change to the system log and the cluster log, in the name of this program's user.
void LogLocalChange(const AccountPaths& paths, const LocalStore& opened, const std::string& sentence);

}  // namespace vexa::cli
