// Opens the cluster's database according to the configuration.
#pragma once

#include <memory>
#include <string>

#include "host/base/result.h"
#include "host/daemon/config.h"
#include "host/store/store.h"

namespace vexa::daemon {

// The folder of the store, according to `config`.
std::string StoreFolder(const Config& config);

// The store in the folder that `config` names. If that is not the data folder's own "store", a copy of the store is
// kept in "mirror" in the data folder, for times when the store cannot be read (store::MirroredStore); a copy of the
// folder's own store would be lost together with it. If the copy cannot be opened, that is logged, and the store is
// used without it. Errors: those of store::OpenLmdbStore; kUnavailable: the folder contains no database although it
// used to, and `config` does not ask for a new one; kConflict: it does, but there is one.
Result<std::shared_ptr<store::Store>> OpenClusterStore(const Config& config);

}  // namespace vexa::daemon
