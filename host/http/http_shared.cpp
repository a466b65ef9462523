#include "host/http/http_shared.h"

#include <unistd.h>

#include <utility>

namespace vexa::http {

ServerShared::ServerShared(ServerOptions server_options)
    : options(std::move(server_options)), connections(std::make_shared<ConnectionTable>(options.limits)) {}

HttpResponse ServerShared::MakeError(int status, const std::string& request_id) {
  refused_by_server.fetch_add(1, std::memory_order_relaxed);
  HttpResponse response;
  try {
    if (options.make_error) {
      response = options.make_error(status, request_id);
      if (response.status >= 400 && response.status <= 599) return response;
    }
  } catch (...) {
    // The client still gets a response, below.
  }
  response = HttpResponse();
  response.status = status;
  response.content_type = "text/plain";
  return response;
}

AcceptedConnection::AcceptedConnection(AcceptedConnection&& other) noexcept
    : fd(other.Release()),
      family(other.family),
      peer(std::move(other.peer)),
      tls(std::move(other.tls)),
      place(std::move(other.place)) {}

AcceptedConnection::~AcceptedConnection() {
  if (fd >= 0) ::close(fd);
}

int AcceptedConnection::Release() { return std::exchange(fd, -1); }

}  // namespace vexa::http
