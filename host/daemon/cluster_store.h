// Opens the cluster's database according to the configuration.
#pragma once

#include <memory>

#include "host/base/result.h"
#include "host/daemon/config.h"
#include "host/store/store.h"

namespace vexa::daemon {

// The store that `config` names. If it is in a folder other than the data folder's own "store", a copy of it is kept in
// "mirror" in the data folder, for times when it cannot be read (store::MirroredStore); a copy in the same folder would
// be lost together with it. If the copy cannot be opened, that is logged, and the store is used without it.
// Errors: those of store::OpenLmdbStore, and kUnavailable: the folder contains no database although it used to.
Result<std::shared_ptr<store::Store>> OpenClusterStore(const Config& config);

}  // namespace vexa::daemon
