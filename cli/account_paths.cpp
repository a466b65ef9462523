#include "cli/account_paths.h"

#include <fmt/format.h>

#include <pwd.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <utility>

#include "cli/owner.h"
#include "cli/printable.h"
#include "host/base/data_folder.h"
#include "host/base/data_lock.h"
#include "host/base/files.h"
#include "host/cluster/account_migration.h"
#include "host/cluster/cluster_log.h"
#include "host/store/lmdb_store.h"
#include "host/store/lost_store.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::cli {
namespace {

Error DaemonRuns(const AccountPaths& paths) {
  return Error(ErrorCode::kBusy,
               fmt::format("A vexad uses the data folder '{}'. Stop it first, or leave out --local, --config, --data, "
                           "--store and --accounts to ask it",
                           paths.data_directory));
}

// Intentional: while a daemon runs, changes go through its API, which knows the caller and the right store.
Result<DataLock> LockOutDaemons(const AccountPaths& paths) {
  if (paths.running_daemon == RunningDaemon::kAllow) return DataLock();
  Result<DataLock> lock = DataLock::Share(paths.data_directory);
  if (!lock && lock.error().code() == ErrorCode::kBusy) return DaemonRuns(paths);
  return lock;
}

// The account that started this program, which may become another one later.
const std::string& OwnName() {
  static const std::string name = [] {
    const passwd* const entry = ::getpwuid(::geteuid());
    return entry && entry->pw_name ? std::string(entry->pw_name) : fmt::format("#{}", ::geteuid());
  }();
  return name;
}

// "" before the host's first start.
std::string OwnHostId(const AccountPaths& paths) {
  constexpr std::size_t kMaxBytes = 4096;
  Result<std::string> id = ReadFile(paths.data_directory + "/host-id", kMaxBytes);
  if (!id) return "";
  while (!id->empty() && id->back() == '\n') id->pop_back();
  return *id;
}

}  // namespace

cluster::AccountSource AccountSourceOf(const AccountPaths& paths) {
  return paths.source ? *paths.source : cluster::LoadAccountSource(paths.data_directory);
}

Result<LocalStore> OpenStore(const AccountPaths& paths, MissingStore missing) {
  (void)OwnName();
  if (const Status became = BecomeOwner(paths.data_directory); !became) return became.error();
  const Status exists = CheckOwner(paths.store_path() + "/data.mdb");
  if (!exists && exists.error().code() != ErrorCode::kNotFound) return exists.error();
  if (const Status safe = CheckDataFolder(paths.data_directory); !safe) return safe.error();
  ::signal(SIGXFSZ, SIG_IGN);  // a limit on the size of files is an error of the write
  const bool has_own_folder = !paths.store_folder.empty();
  if (has_own_folder) {
    // A folder that is not mounted must not get an empty store.
    const Status is_mounted = store::CheckPrimaryExists(paths.store_path(), paths.mirror_path());
    if (!is_mounted) return is_mounted.error();
  }
  const Status not_lost = store::CheckStoreNotLost(paths.data_directory, paths.store_path());
  if (!not_lost) return not_lost.error();
  if (!exists && missing == MissingStore::kRefuse) {
    return Error(
        ErrorCode::kNotFound,
        fmt::format("There are no accounts, because there is no store in '{}'. 'vexa user add' creates it, with "
                    "the same options",
                    paths.store_path()));
  }
  if (const Status owner = CheckOwnerOrFolder(paths.store_path()); !owner) return owner.error();
  Result<DataLock> lock = LockOutDaemons(paths);
  if (!lock) return lock.error();
  store::LmdbOptions options;
  options.directory = paths.store_path();
  auto store = store::OpenLmdbStore(options);
  if (!store) return store.error();
  if (has_own_folder && paths.running_daemon == RunningDaemon::kRefuse) {
    // When the right store is not mounted, the folder may contain an old one, which must not be changed.
    const Status newer = store::CheckPrimaryIsNotOlder(**store, paths.mirror_path());
    if (!newer) return newer.error();
  }
  if (missing == MissingStore::kCreate) {
    const Status marked = store::MarkStoreUsed(paths.data_directory, paths.store_path());
    if (!marked && marked.error().code() != ErrorCode::kNotFound) {
      std::cerr << Printable("A missing database will not be noticed later: " + marked.error().ToString()) << ".\n";
    }
  }
  return LocalStore{std::move(*lock), std::move(*store)};
}

Result<LocalAccounts> OpenAccounts(const AccountPaths& paths, MissingStore missing) {
  if (AccountSourceOf(paths) == cluster::AccountSource::kPam) {
    return Error(
        ErrorCode::kDenied,
        fmt::format("The daemon of '{}' takes its users from PAM. Change them with the operating system's tools, and "
                    "name them with --system in 'vexa user grant' and the other commands for grants",
                    paths.data_directory));
  }
  (void)OwnName();
  if (const Status became = BecomeOwner(paths.data_directory); !became) return became.error();
  const Status file = CheckOwner(paths.accounts_path());
  if (!file && file.error().code() != ErrorCode::kNotFound) return file.error();
  Result<LocalStore> opened = OpenStore(paths, missing);
  if (!opened) return opened.error();
  if (file) {
    const Status migrated =
        cluster::MigrateAccountFile(*opened->store, paths.accounts_path(), [](const std::string& sentence) {
          std::cerr << Printable(sentence) << ".\n";
          ::syslog(LOG_WARNING, "%s.", sentence.c_str());
        });
    if (!migrated) return migrated.error();
  }
  auto accounts = std::make_unique<cluster::AccountStore>(opened->store);
  return LocalAccounts{std::move(*opened), std::move(accounts)};
}

void LogLocalChange(const AccountPaths& paths, const LocalStore& opened, const std::string& sentence) {
  const std::string user = OwnName();
  ::syslog(LOG_NOTICE, "%s By user[%s] with vexa on this machine.", sentence.c_str(), user.c_str());
  cluster::LogEntry entry;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  entry.time_us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  entry.host_id = OwnHostId(paths);
  entry.user = user;
  entry.priority = VexaCCC::CLOG_PRIORITY_SUCCESS;
  entry.text = sentence;
  const Status added = cluster::AddLogEntry(*opened.store, std::move(entry));
  if (!added) std::cerr << "vexa: Cannot write to the cluster log: " << Printable(added.error().ToString()) << '\n';
}

}  // namespace vexa::cli
