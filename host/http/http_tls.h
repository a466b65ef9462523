// TLS for listeners.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "host/base/result.h"
#include "host/http/http_server.h"

namespace vexa::http {

using TlsContext = std::shared_ptr<SSL_CTX>;

// Null when the listener has no certificate.
// Errors: kInvalid (the certificate or the key is missing, they do not
// match, a file cannot be parsed), kDenied (users other than the owner may read the key), kNotFound.
Result<TlsContext> MakeTlsContext(const ListenerOptions& options);

// Fills in what is known of the client after the handshake: whether it had to present a certificate, and which.
void ReadClientCertificate(SSL* ssl, Peer& peer);

}  // namespace vexa::http
