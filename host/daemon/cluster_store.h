// Opening the cluster's database as the configuration says.
#pragma once

#include <memory>

#include "host/base/result.h"
#include "host/daemon/config.h"
#include "host/store/store.h"

namespace vexa::daemon {

// The store that `config` names. When it is another folder than the data folder's own "store", a copy of it is kept in
// "mirror" in the data folder, for the time that it cannot be read (store::MirroredStore); a copy in the same folder
// would be lost together with it. A copy that cannot be opened is logged and done without.
// Errors: those of store::OpenLmdbStore, and kUnavailable: the folder holds no database although it did.
Result<std::shared_ptr<store::Store>> OpenClusterStore(const Config& config);

}  // namespace vexa::daemon
