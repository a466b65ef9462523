// Why no reply came from a server, and what to do about it.
#pragma once

#include <chrono>
#include <string>

#include "cli/http_client.h"
#include "host/base/result.h"

namespace vexa::cli {

// How libcurl ended a request without a reply.
struct TransportFailure {
  int curl_code = 0;             // a CURLcode
  int error_number = 0;          // of the operating system; 0 when it is not known
  long certificate_problem = 0;  // X509_V_ERR_…, when the certificate was refused
  std::string text;              // libcurl's own words
};

// kUnavailable: "No reply from nas: <what was found>. <what to do>". kInvalid when a file that the command line names
// is at fault.
Error TransportError(const HttpClientOptions& options, const TransportFailure& failure);

// What to do when a server answers, but not as VEXA does.
std::string NotVexaHint(const Endpoint& endpoint);

}  // namespace vexa::cli
