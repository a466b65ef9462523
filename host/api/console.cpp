#include "host/api/console.h"

#include <strings.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "host/api/failure_reason.h"
#include "host/base/uuid.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

struct Query {
  std::string_view type;
  std::string_view ticket;
};

// Not set: an unknown or a repeated parameter.
std::optional<Query> ParseQuery(std::string_view text) {
  Query query;
  while (!text.empty()) {
    const std::string_view pair = text.substr(0, text.find('&'));
    text.remove_prefix(std::min(text.size(), pair.size() + 1));
    const std::size_t equals = pair.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const std::string_view name = pair.substr(0, equals);
    std::string_view* const value = name == "type" ? &query.type : name == "ticket" ? &query.ticket : nullptr;
    if (value == nullptr || !value->empty()) return std::nullopt;
    *value = pair.substr(equals + 1);
  }
  return query;
}

bool EqualsIgnoringCase(std::string_view left, std::string_view right) {
  return left.size() == right.size() && ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

// Programs send no Origin. Behind a proxy that ends TLS, pages come by https and requests without it.
bool IsOwnOrigin(const http::HttpRequest& request) {
  if (request.origin.empty()) return true;
  if (request.host.empty()) return false;
  return EqualsIgnoringCase(request.origin, "https://" + request.host) ||
         (!request.peer.tls && EqualsIgnoringCase(request.origin, "http://" + request.host));
}

std::variant<Caller, ConsoleRefusal> RedeemTicket(std::string_view ticket, const http::HttpRequest& request,
                                                  const ConsoleTarget& target, const Identity& identity,
                                                  session::ConsoleTickets& tickets) {
  const std::optional<session::ConsoleTicket> redeemed = tickets.Redeem(ticket);
  if (!redeemed || redeemed->guest_id != target.guest_id || redeemed->type != target.type ||
      !identity.IsLoggedIn(redeemed->session_token)) {
    return ConsoleRefusal{user_error::kNotLoggedIn,
                          "The ticket is unknown, used or expired, or is for another console."};
  }
  Caller caller = AnonymousCaller(request.peer);
  caller.kind = Caller::Kind::kUser;
  caller.user.name = redeemed->user.name;
  caller.user.uid = redeemed->user.uid;
  caller.user.stamp = redeemed->user.stamp;
  caller.session_token = redeemed->session_token;
  return caller;
}

}  // namespace

std::variant<ConsolePlan, ConsoleRefusal> PlanConsole(const http::HttpRequest& request, const Identity& identity,
                                                      session::ConsoleTickets& tickets) {
  const std::string_view target = request.target;
  const std::size_t question = target.find('?');
  const auto query = ParseQuery(question == std::string_view::npos ? std::string_view() : target.substr(question + 1));
  ConsolePlan plan;
  plan.target.guest_id = NormalizeUuid(target.substr(0, question).substr(kConsolePath.size()));
  if (plan.target.guest_id.empty()) return ConsoleRefusal{user_error::kNoSuchAddress, ""};
  if (request.method != "GET") return ConsoleRefusal{user_error::kHttpMethodNotAllowed, ""};
  if (!query || (query->type != kScreenType && query->type != kSerialType)) {
    return ConsoleRefusal{user_error::kBadParameter, "Use type=vnc or type=serial, and nothing else but a ticket."};
  }
  plan.target.type = query->type;
  if (!IsOwnOrigin(request)) {
    return ConsoleRefusal{user_error::kDenied, "The request comes from a page of another site."};
  }
  const bool is_upgrade = request.peer.is_certified ? request.upgrade == http::kRawTunnel : !request.upgrade.empty();
  if (!is_upgrade) {
    return ConsoleRefusal{user_error::kBadParameter, "A console needs a request for an upgrade to WebSocket."};
  }
  if (!query->ticket.empty() && !request.peer.is_certified) {
    auto caller = RedeemTicket(query->ticket, request, plan.target, identity, tickets);
    if (auto* refusal = std::get_if<ConsoleRefusal>(&caller)) return std::move(*refusal);
    plan.caller = std::move(std::get<Caller>(caller));
    return plan;
  }
  IdentifyResult identified = identity.Identify(request);
  if (const int* code = std::get_if<int>(&identified)) return ConsoleRefusal{*code, ReasonOfCaller(*code, request)};
  plan.caller = std::move(std::get<Caller>(identified));
  if (plan.caller.kind == Caller::Kind::kAnonymous) {
    return ConsoleRefusal{user_error::kNotLoggedIn, ReasonOfCaller(user_error::kNotLoggedIn, request)};
  }
  return plan;
}

}  // namespace vexa::api
