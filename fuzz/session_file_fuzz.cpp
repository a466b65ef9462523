// The sessions file: accepted sessions and addresses are the same when they are written and read again.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "host/accounts/accounts.h"
#include "host/session/session_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vexa::fuzz::Check;
  const auto file = vexa::session::ParseSessions(vexa::fuzz::Text(data, size));
  if (!file.ok()) {
    Check(file.error().code() == vexa::ErrorCode::kCorrupt, "unreadable sessions are kCorrupt");
    Check(!file.error().cause().empty(), "there is a reason");
    return 0;
  }
  std::set<vexa::session::Hash> hashes;
  for (const vexa::session::SessionRecord& session : file->sessions) {
    Check(hashes.insert(session.hash).second, "hashes of sessions are unique");
    Check(vexa::accounts::IsValidAccountName(session.user), "a session has a user");
    Check(session.uid != UINT32_MAX, "an account's id is valid");
    Check(vexa::session::IsPlainText(session.stamp), "a stamp needs no escapes");
    Check(vexa::session::IsPlainText(session.from), "an address needs no escapes");
    Check(session.created >= 0 && session.last_used >= 0, "times are not negative");
  }
  for (const vexa::session::KnownAddress& address : file->addresses) {
    Check(vexa::accounts::IsValidAccountName(address.user), "an address has a user");
    Check(vexa::session::IsPlainText(address.network), "a network needs no escapes");
  }
  const std::string text = vexa::session::SerializeSessions(*file);
  const auto again = vexa::session::ParseSessions(text);
  Check(again.ok() && again->sessions.size() == file->sessions.size(), "written sessions can be read again");
  Check(again->addresses.size() == file->addresses.size(), "written addresses can be read again");
  Check(vexa::session::SerializeSessions(*again) == text, "what is written means the same");
  return 0;
}
