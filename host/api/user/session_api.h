// VEXA.Core.Session: log in, log out, and identify the caller.
#pragma once

#include <memory>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/api/api_table.h"
#include "host/session/login_limiter.h"
#include "host/session/sessions.h"

namespace vexa::daemon {

// All must outlive the rows' handlers.
struct SessionServices {
  SessionTable* sessions;
  const base::AccountProvider* accounts;
  LoginLimiter* limiter;
  std::chrono::seconds lifetime;
};

std::vector<webapi::ApiRow> SessionRows(const SessionServices& services);

}  // namespace vexa::daemon
