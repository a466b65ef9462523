// Consoles of guests on other hosts of the cluster.
#pragma once

#include "host/api/user/consoles.h"

namespace vexa::api {

// Opens the console at the guest's host, over its listener for hosts, through the transport of the process.
Result<std::unique_ptr<http::TunnelEnd>, Refusal> OpenRemoteConsole(const std::string& host_id,
                                                                    const ConsoleTarget& target);

}  // namespace vexa::api
