// The numeric codes that a caller meets in "error.code", each with its HTTP status and an English sentence.
#pragma once

#include <span>
#include <string_view>

namespace vexa::webapi {

// Codes of the daemon itself. The handlers' own codes are only in the table.
inline constexpr int kErrorInternal = 100;
inline constexpr int kErrorMalformed = 101;
inline constexpr int kErrorUnreachable = 102;
inline constexpr int kErrorNotLoggedIn = 103;
inline constexpr int kErrorDenied = 104;
inline constexpr int kErrorCsrf = 105;
inline constexpr int kErrorWrongPassword = 106;
inline constexpr int kErrorTooManyLogins = 107;
inline constexpr int kErrorBusy = 108;
inline constexpr int kErrorNotFound = 109;
inline constexpr int kErrorMethodNotAllowed = 110;
inline constexpr int kErrorNotJson = 111;
inline constexpr int kErrorTooLarge = 112;
inline constexpr int kErrorHeaderTooLarge = 113;
inline constexpr int kErrorTimeout = 114;
inline constexpr int kErrorNotImplemented = 115;
inline constexpr int kErrorVersionNotSupported = 116;
inline constexpr int kErrorExpectation = 117;
inline constexpr int kErrorTargetTooLong = 118;
inline constexpr int kErrorBadParameter = 401;
inline constexpr int kErrorUnknownApi = 507;

// Codes of accounts and grants.
inline constexpr int kErrorNoAccount = 980;
inline constexpr int kErrorAccountTaken = 981;
inline constexpr int kErrorOldPassword = 982;
inline constexpr int kErrorAccountsFromPam = 983;
inline constexpr int kErrorGrantsOfAnother = 984;
inline constexpr int kErrorAccountDamaged = 985;
inline constexpr int kErrorGroupStays = 986;
inline constexpr int kErrorLastAdministrator = 987;
inline constexpr int kErrorAccountsUnavailable = 988;

// Codes of images and repositories.
inline constexpr int kErrorRecordExists = 990;
inline constexpr int kErrorRecordInUse = 991;
inline constexpr int kErrorRecordFailed = 992;

// The details of what cannot be done while the cluster database cannot be read.
inline constexpr char kDatabaseLost[] =
    "The cluster database cannot be reached. Guests are shown as this host last knew them, and nothing can be changed "
    "until it is back.";

struct ErrorRow {
  int code;
  int http_status;
  std::string_view sentence;
};

// Whom a reply is for. Between hosts several numbers mean something else than to users.
enum class Audience { kUsers, kHosts };

// All codes that users meet, in rising order.
std::span<const ErrorRow> ErrorTable();

// The codes with a meaning of their own between hosts, in rising order.
std::span<const ErrorRow> HostErrorTable();

// Between hosts, a code without a meaning of its own has that of users. Null for a code that is in no table.
const ErrorRow* FindError(int code, Audience audience = Audience::kUsers);

// The row of a failure that the HTTP server found by itself; the row of 100 for a status that has none.
const ErrorRow& ErrorOfHttpStatus(int http_status);

}  // namespace vexa::webapi
