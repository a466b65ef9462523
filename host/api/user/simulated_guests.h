// Replies about hosts whose guests are only simulated: they have the member "simulated": true beside "data".
#pragma once

#include <string>

#include "host/api/api_table.h"

namespace vexa::api {

// Marks the reply when guests are only simulated on the host.
void MarkSimulatedHost(const Call& call, const std::string& host_id);

// A handler for a method that may start a guest: its replies are marked when the guest runs on such a host. The guest
// is the parameter "guest_id", or else the member "guest_id" of the reply's data. With a parameter "action", only those
// of "poweron" and "reboot" are marked.
Handler WithSimulatedMark(Handler handler);

}  // namespace vexa::api
