// Servers in the process of a benchmark that simulate other hosts of a cluster.
#pragma once

#include <string>

#include "host/http/http_server.h"
#include "host/transport/certificates.h"
#include "host/transport/tls_material.h"

namespace vexa::bench {

// A certificate authority. Writes its own certificate, and those of the hosts, to a folder.
class Authority {
 public:
  explicit Authority(std::string folder);
  transport::TlsFiles FilesOf(const std::string& host_id) const;

 private:
  void Write(const std::string& name, const std::string& text, mode_t mode) const;

  std::string folder_;
  transport::Credentials credentials_;
};

// A server with one I/O thread on a free port of 127.0.0.1; without TLS when `tls` is empty.
http::ServerOptions ServerOptionsOf(const transport::TlsFiles& tls);
std::string AddressOf(const http::HttpServer& server);

// Sends a response with this body.
void Answer(const http::Responder& responder, std::string body);

}  // namespace vexa::bench
