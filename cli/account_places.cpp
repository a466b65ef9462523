#include "cli/account_places.h"

#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <utility>

#include "cli/owner.h"
#include "cli/printable.h"
#include "host/base/data_lock.h"
#include "host/base/files.h"
#include "host/cluster/account_take_over.h"
#include "host/cluster/cluster_log.h"
#include "host/store/lmdb_store.h"
#include "host/store/mirrored_store.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::cli {
namespace {

Error DaemonRuns(const AccountPlaces& places) {
  return Error(ErrorCode::kBusy, "A vexad uses the data folder '" + places.data_directory +
                                     "': ask it, without --local, --config, --data, --store and --accounts, or stop it "
                                     "first");
}

// Beside a daemon there is its API, which knows who asks and which store is meant.
Result<DataLock> LockOutDaemons(const AccountPlaces& places) {
  if (places.daemon == BesideDaemon::kAllow) return DataLock();
  Result<DataLock> lock = DataLock::Share(places.data_directory);
  if (!lock && lock.error().code() == ErrorCode::kBusy) return DaemonRuns(places);
  return lock;
}

std::string OwnName() {
  const passwd* const entry = ::getpwuid(::geteuid());
  return entry && entry->pw_name ? entry->pw_name : "#" + std::to_string(::geteuid());
}

// "" before the host's first start.
std::string OwnHostId(const AccountPlaces& places) {
  constexpr std::size_t kMaxBytes = 4096;
  Result<std::string> id = ReadFile(places.data_directory + "/host-id", kMaxBytes);
  if (!id) return "";
  while (!id->empty() && id->back() == '\n') id->pop_back();
  return *id;
}

}  // namespace

cluster::AccountSource SourceOf(const AccountPlaces& places) {
  return places.source ? *places.source : cluster::KnownAccountSource(places.data_directory);
}

Result<LocalStore> OpenStore(const AccountPlaces& places, MissingStore missing) {
  const Status exists = CheckOwner(places.store_path() + "/data.mdb");
  if (!exists && exists.error().code() != ErrorCode::kNotFound) return exists.error();
  const bool is_elsewhere = !places.other_store.empty();
  if (is_elsewhere) {
    // A folder that is not mounted must not get an empty store.
    const Status there = store::CheckPrimaryIsThere(places.store_path(), places.mirror_path());
    if (!there) return there.error();
  }
  if (!exists && missing == MissingStore::kRefuse) {
    return Error(ErrorCode::kNotFound, "There are no accounts, since there is no store in '" + places.store_path() +
                                           "'; 'vexa user add' creates it, with the same options");
  }
  if (const Status owner = CheckOwnerOrFolder(places.store_path()); !owner) return owner.error();
  Result<DataLock> lock = LockOutDaemons(places);
  if (!lock) return lock.error();
  store::LmdbOptions options;
  options.directory = places.store_path();
  auto store = store::OpenLmdbStore(options);
  if (!store) return store.error();
  if (is_elsewhere && places.daemon == BesideDaemon::kRefuse) {
    // Nor may an old database be changed that is below the folder where the right one is not mounted.
    const Status newer = store::CheckPrimaryIsNotOlder(**store, places.mirror_path());
    if (!newer) return newer.error();
  }
  return LocalStore{std::move(*lock), std::move(*store)};
}

Result<LocalAccounts> OpenAccounts(const AccountPlaces& places, MissingStore missing) {
  if (SourceOf(places) == cluster::AccountSource::kPam) {
    return Error(ErrorCode::kDenied,
                 "The daemon of '" + places.data_directory +
                     "' takes its users from PAM: change them with the machine's own tools, and name them with "
                     "--system in 'vexa user grant' and the other commands for grants");
  }
  const Status file = CheckOwner(places.accounts_path());
  if (!file && file.error().code() != ErrorCode::kNotFound) return file.error();
  Result<LocalStore> opened = OpenStore(places, missing);
  if (!opened) return opened.error();
  if (file) {
    const Status taken =
        cluster::TakeOverAccountFile(*opened->store, places.accounts_path(), [](const std::string& sentence) {
          std::cerr << Printable(sentence) << ".\n";
          ::syslog(LOG_WARNING, "%s.", sentence.c_str());
        });
    if (!taken) return taken.error();
  }
  auto accounts = std::make_unique<cluster::AccountStore>(opened->store);
  return LocalAccounts{std::move(*opened), std::move(accounts)};
}

void LogLocalChange(const AccountPlaces& places, const LocalStore& opened, const std::string& sentence) {
  const std::string user = OwnName();
  ::syslog(LOG_NOTICE, "%s By user[%s] with vexa on this machine.", sentence.c_str(), user.c_str());
  cluster::LogEntry entry;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  entry.time_us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  entry.host_id = OwnHostId(places);
  entry.user = user;
  entry.priority = VexaCCC::CLOG_PRIORITY_SUCCESS;
  entry.text = sentence;
  const Status added = cluster::AddLogEntry(*opened.store, std::move(entry));
  if (!added) std::cerr << "vexa: The cluster log cannot be written: " << Printable(added.error().ToString()) << '\n';
}

}  // namespace vexa::cli
