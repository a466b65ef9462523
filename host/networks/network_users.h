// The interfaces of guests that are in a network.
#pragma once

#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/records/network_record.h"
#include "host/store/store.h"

namespace vexa::networks {

// The guests with interfaces in the network, by its id or its name on the hosts, as parts of a sentence: "the guest
// 'web'". Errors: those of the store.
Result<std::vector<std::string>> FindNetworkUsers(const store::Snapshot& snapshot, const records::Network& network);

// The id that interfaces with this network name have: `usual_id` if none has another one. Of several, the first in byte
// order; an import can give them any. Errors: those of the store.
Result<std::string> FindNetworkIdOfInterfaces(const store::Snapshot& snapshot, const std::string& network_name,
                                              const std::string& usual_id);

}  // namespace vexa::networks
