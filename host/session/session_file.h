// The sessions file, parsed and fully checked.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/session/session_token.h"

namespace vexa::daemon {

struct SessionRecord {
  Hash hash;
  Hash csrf_hash;
  std::string user;
  std::uint32_t uid = 0;
  std::int64_t created = 0;    // Unix seconds
  std::int64_t last_used = 0;  // Unix seconds
};

// Sessions without a uid, as older versions wrote them, are left out: their owner is unknown. kCorrupt, with a sentence
// that says what is wrong.
Result<std::vector<SessionRecord>> ParseSessions(std::string_view text);
std::string RenderSessions(const std::vector<SessionRecord>& sessions);

}  // namespace vexa::daemon
