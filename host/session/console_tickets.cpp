#include "host/session/console_tickets.h"

#include <algorithm>
#include <utility>

namespace vexa::session {

Result<std::string> ConsoleTickets::Issue(ConsoleTicket ticket) {
  Result<std::string> token = NewToken();
  if (!token) return token;
  const std::optional<Hash> hash = HashToken(*token);
  if (!hash) return Error(ErrorCode::kInternal, "No ticket can be made");
  const MutexLock lock(mutex_);
  RemoveExpired();
  const auto of_user = std::ranges::count_if(
      entries_, [&](const auto& entry) { return entry.second.ticket.user.uid == ticket.user.uid; });
  if (entries_.size() >= kMaxTickets || static_cast<std::size_t>(of_user) >= kMaxTicketsPerUser) {
    return Error(ErrorCode::kBusy, "Too many tickets have not been used yet");
  }
  entries_.emplace(EncodeHash(*hash), Entry{std::move(ticket), now_() + kLifetime});
  return token;
}

std::optional<ConsoleTicket> ConsoleTickets::Redeem(std::string_view ticket) {
  if (!HasTokenForm(ticket)) return std::nullopt;
  const std::optional<Hash> hash = HashToken(ticket);
  if (!hash) return std::nullopt;
  const MutexLock lock(mutex_);
  RemoveExpired();
  auto found = entries_.extract(EncodeHash(*hash));
  if (!found) return std::nullopt;
  return std::move(found.mapped().ticket);
}

void ConsoleTickets::RemoveExpired() {
  std::erase_if(entries_, [now = now_()](const auto& entry) { return now >= entry.second.expires; });
}

}  // namespace vexa::session
