// Which revisions the reads of a request see; see reading.h.
#pragma once

#include <string_view>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

// The revision that wrote the value under `key`; 0 when absent. Errors: those of the store, and kUnavailable
// without an environment.
Result<store::Revision> RevisionOf(std::string_view key);

// The last revision that the reads of this thread see. Errors: as above.
Result<store::Revision> CurrentRevision();

}  // namespace vexa::cluster
