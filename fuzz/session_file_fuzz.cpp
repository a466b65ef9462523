// The sessions file: accepted sessions are the same when they are written and read again.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "host/accounts/accounts.h"
#include "host/session/session_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vexa::fuzz::Check;
  const auto sessions = vexa::session::ParseSessions(vexa::fuzz::Text(data, size));
  if (!sessions.ok()) {
    Check(sessions.error().code() == vexa::ErrorCode::kCorrupt, "unreadable sessions are kCorrupt");
    Check(!sessions.error().cause().empty(), "there is a reason");
    return 0;
  }
  std::set<vexa::session::Hash> hashes;
  for (const vexa::session::SessionRecord& session : *sessions) {
    Check(hashes.insert(session.hash).second, "hashes of sessions are unique");
    Check(vexa::accounts::IsValidAccountName(session.user), "a session has a user");
    Check(session.uid != UINT32_MAX, "an account's id is valid");
    Check(session.created >= 0 && session.last_used >= 0, "times are not negative");
  }
  const std::string text = vexa::session::SerializeSessions(*sessions);
  const auto again = vexa::session::ParseSessions(text);
  Check(again.ok() && again->size() == sessions->size(), "written sessions can be read again");
  Check(vexa::session::SerializeSessions(*again) == text, "what is written means the same");
  return 0;
}
