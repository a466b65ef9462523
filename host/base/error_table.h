// The HTTP status and the English sentence of every code in webapi/error_codes.h.
// Threads: the tables never change.
#pragma once

#include <span>
#include <string_view>

namespace vexa {

// The details of replies to requests that fail because the cluster database cannot be read.
inline constexpr char kDatabaseLost[] =
    "The cluster database cannot be reached. Guests are shown as this host last knew them, and nothing can be changed "
    "until it is back.";

struct ErrorRow {
  int code;
  int http_status;
  std::string_view sentence;
};

// Who receives the reply. Several codes have a different meaning between hosts.
enum class Audience { kUsers, kHosts };

// All codes that users may see, in ascending order.
std::span<const ErrorRow> ErrorTable();

// The codes whose meaning between hosts differs from their meaning to users, in ascending order.
std::span<const ErrorRow> HostErrorTable();

// The row of `code`; null if the code is unknown. For kHosts, a code that is not in HostErrorTable has the row that
// users see.
const ErrorRow* FindError(int code, Audience audience = Audience::kUsers);

// The row for a request that the HTTP server refuses by itself with `http_status`; that of kInternal for any other
// status.
const ErrorRow& ErrorForHttpStatus(int http_status);

}  // namespace vexa
