// TLS for listeners.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "host/base/result.h"
#include "host/http/http_server.h"

namespace vexa::daemon {

using TlsContext = std::shared_ptr<SSL_CTX>;

// Null when the listener has no certificate. Errors: kInvalid (one of certificate and key is missing, they do not fit,
// a file cannot be understood), kDenied (others than the owner may read the key), kNotFound.
Result<TlsContext> MakeTlsContext(const ListenerOptions& options);

// The common name of the certificate that the client showed and that was verified; "" when there is none or not just
// one.
std::string VerifiedCommonName(SSL* ssl);

}  // namespace vexa::daemon
