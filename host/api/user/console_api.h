// The methods of VEXA.Virtualization.Guest about consoles.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/session/console_tickets.h"
#include "host/store/store.h"

namespace vexa::api {

// `tickets` outlives the rows.
std::vector<ApiRow> ConsoleRows(const std::shared_ptr<store::Store>& store, session::ConsoleTickets* tickets);

}  // namespace vexa::api
