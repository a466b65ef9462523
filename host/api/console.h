// GET /console/<guest id>?type=vnc|serial[&ticket=…]: a connection to the console of a guest.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "host/api/api_table.h"
#include "host/api/identity.h"
#include "host/http/http_server.h"
#include "host/session/console_tickets.h"

namespace vexa::api {

inline constexpr std::string_view kConsolePath = "/console/";
inline constexpr std::string_view kScreenType = "vnc";
inline constexpr std::string_view kSerialType = "serial";

struct ConsoleTarget {
  std::string guest_id;  // a UUID in lower case
  std::string type;      // kScreenType or kSerialType
};

// Why a console is refused.
struct ConsoleRefusal {
  int code = 0;        // one of user_error, or of host_error to hosts
  std::string reason;  // a sentence, or empty
};

struct ConsolePlan {
  ConsoleTarget target;
  Caller caller;
};

// Decides what can be decided from the header, without waiting: the form of the address, whether the request asks for
// an upgrade, who the caller is, and whether a page of another site has sent it. A browser sends cookies to this host
// whichever page opens the connection, and no script can add the CSRF token to it. So browsers need a ticket, a cookie
// counts together with the CSRF token only, and an Origin must be this host's own. A ticket that is presented is used
// up, also when it is for something else.
std::variant<ConsolePlan, ConsoleRefusal> PlanConsole(const http::HttpRequest& request, const Identity& identity,
                                                      session::ConsoleTickets& tickets);

// Opens the console for a caller who has been looked up.
using ConsoleOpener =
    std::function<std::variant<std::shared_ptr<http::Tunnel>, ConsoleRefusal>(const ConsolePlan& plan)>;

}  // namespace vexa::api
