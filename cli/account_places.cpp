#include "cli/account_places.h"

#include <syslog.h>

#include <iostream>

#include "cli/owner.h"
#include "cli/printable.h"
#include "host/cluster/account_source.h"
#include "host/cluster/account_take_over.h"
#include "host/store/lmdb_store.h"

namespace vexa::cli {

Result<std::shared_ptr<store::Store>> OpenStore(const AccountPlaces& places, MissingStore missing) {
  const Status exists = CheckOwner(places.store_path() + "/data.mdb");
  if (!exists && exists.error().code() != ErrorCode::kNotFound) return exists.error();
  if (!exists && missing == MissingStore::kRefuse) {
    return Error(ErrorCode::kNotFound, "There are no accounts, since there is no store in '" + places.store_path() +
                                           "'; 'vexa user add' creates it");
  }
  if (const Status owner = CheckOwnerOrFolder(places.store_path()); !owner) return owner.error();
  store::LmdbOptions options;
  options.directory = places.store_path();
  return store::OpenLmdbStore(options);
}

Result<std::unique_ptr<cluster::AccountStore>> OpenAccounts(const AccountPlaces& places, MissingStore missing) {
  if (cluster::KnownAccountSource(places.data_directory) == cluster::AccountSource::kPam) {
    return Error(ErrorCode::kDenied,
                 "The daemon of '" + places.data_directory +
                     "' takes its users from PAM: change them with the machine's own tools, and name them with "
                     "--system in 'vexa user grant' and the other commands for grants");
  }
  const Status file = CheckOwner(places.accounts_path());
  if (!file && file.error().code() != ErrorCode::kNotFound) return file.error();
  const auto store = OpenStore(places, file.ok() ? MissingStore::kCreate : missing);
  if (!store) return store.error();
  if (file) {
    const Status taken = cluster::TakeOverAccountFile(**store, places.accounts_path(), [](const std::string& sentence) {
      std::cerr << Printable(sentence) << ".\n";
      ::syslog(LOG_WARNING, "%s.", sentence.c_str());
    });
    if (!taken) return taken.error();
  }
  return std::make_unique<cluster::AccountStore>(*store);
}

}  // namespace vexa::cli
