// Options of libcurl that all connections to other hosts share.
#pragma once

#include <curl/curl.h>

#include <string>

#include "host/transport/tls_material.h"

namespace vexa::transport {

// Whether it is a numeric address and a port: resolving a name would take time and a thread.
bool IsNumericAddress(const std::string& text);

// TLS 1.3 with certificates of the cluster's authority on both sides. `tls` must outlive the handle. The caller adds
// CURLOPT_SSL_CTX_FUNCTION with RequireCommonName.
void SetTls(CURL* handle, const TlsMaterial& tls);

}  // namespace vexa::transport
