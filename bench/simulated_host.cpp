#include "bench/simulated_host.h"

#include <utility>

#include "bench/bench_util.h"
#include "host/base/files.h"

namespace vexa::bench {

Authority::Authority(std::string folder)
    : folder_(std::move(folder)), credentials_(Require(transport::MakeAuthority())) {
  Write("authority.pem", credentials_.certificate, 0644);
}

transport::TlsFiles Authority::FilesOf(const std::string& host_id) const {
  const auto made = Require(transport::MakeHostCredentials(credentials_, host_id));
  Write(host_id + ".pem", made.certificate, 0644);
  Write(host_id + ".key", made.key, 0600);
  return {folder_ + "/" + host_id + ".pem", folder_ + "/" + host_id + ".key", folder_ + "/authority.pem"};
}

void Authority::Write(const std::string& name, const std::string& text, mode_t mode) const {
  const Status written = WriteFileAtomically(folder_ + "/" + name, text, mode);
  if (!written) Fail(written.error().ToString());
}

http::ServerOptions ServerOptionsOf(const transport::TlsFiles& tls) {
  http::ListenerOptions listener;
  listener.certificate_file = tls.certificate;
  listener.key_file = tls.key;
  listener.client_authority_file = tls.authority;
  http::ServerOptions options;
  options.listeners = {listener};
  options.io_threads = 1;
  options.make_error = [](int, const std::string&) { return http::HttpResponse(); };
  return options;
}

std::string AddressOf(const http::HttpServer& server) { return "127.0.0.1:" + std::to_string(server.port(0)); }

void Answer(const http::Responder& responder, std::string body) {
  http::HttpResponse response;
  response.body = std::move(body);
  responder.Send(std::move(response));
}

}  // namespace vexa::bench
