// Parses and writes the content of the session file; sessions.h has an example of it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/session/known_addresses.h"
#include "host/session/session_token.h"

namespace vexa::session {

struct SessionRecord {
  Hash hash;
  Hash csrf_hash;
  std::string user;
  std::uint32_t uid = 0;
  std::string stamp;
  std::string from;
  std::int64_t created = 0;    // Unix seconds
  std::int64_t last_used = 0;  // Unix seconds
};

struct SessionFile {
  std::vector<SessionRecord> sessions;
  std::vector<KnownAddress> addresses;  // the one whose last login is longest ago comes first
};

// Whether the file can have the text as a stamp or an address: at most 80 letters, digits and . : % _ - /.
bool IsPlainText(std::string_view text);

// Checks the whole content. Errors: kCorrupt, with what is wrong. A file of version 1 is empty: its sessions have no
// stamps, so it is unknown whether their passwords have changed.
Result<SessionFile> ParseSessions(std::string_view text);
std::string SerializeSessions(const SessionFile& file);

}  // namespace vexa::session
