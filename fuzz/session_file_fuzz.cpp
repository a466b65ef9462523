// The text of the sessions file: an accepted text is the same when it is written and read again.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "host/accounts/accounts.h"
#include "host/session/session_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vexa::fuzz::Check;
  const auto sessions = vexa::daemon::ParseSessions(vexa::fuzz::Text(data, size));
  if (!sessions.ok()) {
    Check(sessions.error().code() == vexa::ErrorCode::kCorrupt, "what is not understood is kCorrupt");
    Check(!sessions.error().cause().empty(), "there is a reason");
    return 0;
  }
  std::set<vexa::daemon::Hash> hashes;
  for (const vexa::daemon::SessionRecord& session : *sessions) {
    Check(hashes.insert(session.hash).second, "a session has the hash alone");
    Check(vexa::base::IsValidAccountName(session.user), "a session has a user");
    Check(session.uid != UINT32_MAX, "an account's id is one");
    Check(session.created >= 0 && session.last_used >= 0, "times are of this era");
  }
  const std::string text = vexa::daemon::RenderSessions(*sessions);
  const auto again = vexa::daemon::ParseSessions(text);
  Check(again.ok() && again->size() == sessions->size(), "what is written is understood");
  Check(vexa::daemon::RenderSessions(*again) == text, "what is written means the same");
  return 0;
}
