// The methods of VEXA.Virtualization.Guest about consoles.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/session/console_tickets.h"
#include "host/store/store.h"

namespace vexa::api {

// `tickets` outlives the rows. `is_stopping`: whether calls should end soon; any thread.
std::vector<ApiRow> ConsoleRows(const std::shared_ptr<store::Store>& store, session::ConsoleTickets* tickets,
                                const std::function<bool()>& is_stopping);

}  // namespace vexa::api
