#include "host/webapi/error_table.h"

#include <algorithm>

namespace vexa::webapi {
namespace {

constexpr ErrorRow kErrors[] = {
    {kErrorInternal, 500, "The request failed for an internal reason. The system log has the request's id."},
    {kErrorMalformed, 400, "The request is malformed."},
    {kErrorUnreachable, 502, "The host could not be reached, or did not answer in time."},
    {kErrorNotLoggedIn, 401, "You are not logged in, or the session has ended."},
    {kErrorDenied, 403, "You may not call this method."},
    {kErrorCsrf, 403, "The X-Vexa-CSRF header is missing or does not belong to this session."},
    {kErrorWrongPassword, 401, "The user name or the password is wrong."},
    {kErrorTooManyLogins, 429, "Too many failed logins. Wait before you try again."},
    {kErrorBusy, 503, "The host is busy. Try again later."},
    {kErrorNotFound, 404, "There is nothing at this address."},
    {kErrorMethodNotAllowed, 405, "This HTTP method is not allowed here."},
    {kErrorNotJson, 415, "The body must be JSON, sent with the Content-Type application/json."},
    {kErrorTooLarge, 413, "The request's body is too large."},
    {kErrorHeaderTooLarge, 431, "The request's header is too large."},
    {kErrorTimeout, 408, "The request did not arrive in time."},
    {kErrorNotImplemented, 501, "The HTTP method or transfer coding is not implemented."},
    {kErrorVersionNotSupported, 505, "This HTTP version is not supported."},
    {kErrorExpectation, 417, "The Expect header asks for something that is not offered."},
    {kErrorTargetTooLong, 414, "The request's target is too long."},
    {kErrorBadParameter, 400, "A parameter is missing or not valid."},
    {403, 404, "A record, host or repository could not be read."},
    {406, 409, "The name is already in use."},
    {407, 409, "A host runs an incompatible version."},
    {409, 403, "You may not act on this guest."},
    {413, 500, "A virtual disk has an unknown type."},
    {kErrorUnknownApi, 404, "There is no such API, method or version."},
};

static_assert(std::ranges::is_sorted(kErrors, std::ranges::less_equal{}, &ErrorRow::code), "one row a code, rising");

// What the HTTP server refuses by itself. 503 and 404 have several codes, so the way back is a choice.
constexpr int kServerErrors[] = {kErrorMalformed,      kErrorTimeout,     kErrorTooLarge,
                                 kErrorTargetTooLong,  kErrorExpectation, kErrorHeaderTooLarge,
                                 kErrorNotImplemented, kErrorBusy,        kErrorVersionNotSupported};

}  // namespace

std::span<const ErrorRow> ErrorTable() { return kErrors; }

const ErrorRow* FindError(int code) {
  const auto found = std::ranges::lower_bound(kErrors, code, {}, &ErrorRow::code);
  return found != std::end(kErrors) && found->code == code ? found : nullptr;
}

const ErrorRow& ErrorOfHttpStatus(int http_status) {
  for (const int code : kServerErrors) {
    const ErrorRow* row = FindError(code);
    if (row->http_status == http_status) return *row;
  }
  return *FindError(kErrorInternal);
}

}  // namespace vexa::webapi
