// VEXA.Core.Session: log in, log out, and identify the caller. session_list_api.h has the rest.
#pragma once

#include <memory>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/api/api_table.h"
#include "host/session/login_limiter.h"
#include "host/session/sessions.h"

namespace vexa::api {

// All must outlive the rows' handlers.
struct SessionServices {
  session::SessionTable* sessions;
  const accounts::AccountProvider* accounts;
  session::LoginLimiter* limiter;
  std::chrono::seconds lifetime;
};

// Logs if the sessions have ended in memory, but not in the file.
void LogIfNotStored(const session::EndResult& result);

std::vector<ApiRow> SessionRows(const SessionServices& services);

}  // namespace vexa::api
