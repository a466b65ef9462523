// Parses and writes the content of the session file; sessions.h has an example of it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/session/session_token.h"

namespace vexa::session {

struct SessionRecord {
  Hash hash;
  Hash csrf_hash;
  std::string user;
  std::uint32_t uid = 0;
  std::int64_t created = 0;    // Unix seconds
  std::int64_t last_used = 0;  // Unix seconds
};

// Checks the whole content. Errors: kCorrupt, with what is wrong. Sessions without a uid, which older versions wrote,
// are left out, because their owner is unknown.
Result<std::vector<SessionRecord>> ParseSessions(std::string_view text);
std::string SerializeSessions(const std::vector<SessionRecord>& sessions);

}  // namespace vexa::session
