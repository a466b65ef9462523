#include "tests/attack/flood.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>

namespace vexa::test {
namespace {

using std::chrono::milliseconds;

constexpr int kThreads = 2;

const std::string kGetPages = "GET /openapi.json HTTP/1.1\r\nHost: nas\r\n\r\n";

std::string Repeated(const std::string& text, int times) {
  std::string repeated;
  for (int i = 0; i < times; ++i) repeated += text;
  return repeated;
}

std::string LoginHeader(std::size_t body_bytes) {
  return fmt::format(
      "POST /webapi/VEXA.Core.Session/login HTTP/1.1\r\nHost: nas\r\nContent-Type: application/json\r\n"
      "Content-Length: {}\r\n\r\n",
      body_bytes);
}

std::function<std::string(std::mt19937&)> Always(std::string text) {
  return [text = std::move(text)](std::mt19937&) { return text; };
}

}  // namespace

Flood::Flood(std::uint16_t port, const FloodKind& kind, int connections, unsigned seed) : port_(port), kind_(kind) {
  for (int i = 0; i < kThreads; ++i) {
    threads_.emplace_back([this, first = connections * i / kThreads, end = connections * (i + 1) / kThreads,
                           own_seed = seed + static_cast<unsigned>(i)] { Run(first, end, own_seed); });
  }
}

Flood::~Flood() {
  ends_ = true;
  threads_.clear();
}

void Flood::Run(int first, int end, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<Client> clients;
  for (int i = first; i < end; ++i) clients.emplace_back(-1);
  while (!ends_) {
    for (std::size_t i = 0; i < clients.size() && !ends_; ++i) {
      if (clients[i].connected()) {
        Step(clients[i]);
      } else {
        Open(clients[i], first + static_cast<int>(i), random);
      }
    }
    std::this_thread::sleep_for(milliseconds(100));
  }
}

void Flood::Open(Client& client, int number, std::mt19937& random) {
  const int address = number / kPerAddress;
  const std::string local = fmt::format("127.1.{}.{}", 1 + address / 200, 1 + address % 200);
  Client opened = Client::Tcp(port_, local.c_str());
  if (!opened.connected()) return;
  ++opened_;
  const std::string opening = kind_.opening(random);
  // What does not fit into the buffers of the system is left out: the attacker waits for nobody.
  (void)::send(opened.fd(), opening.data(), opening.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  std::destroy_at(&client);
  std::construct_at(&client, std::move(opened));
}

void Flood::Step(Client& client) const {
  pollfd state{client.fd(), POLLIN | POLLRDHUP, 0};
  if (::poll(&state, 1, 0) == 1) {
    char buffer[65536];
    if (kind_.replies == Replies::kAreRead && ::recv(client.fd(), buffer, sizeof buffer, MSG_DONTWAIT) <= 0) {
      return client.Close();
    }
    if ((state.revents & (POLLERR | POLLHUP | POLLRDHUP)) != 0) return client.Close();
  }
  if (!kind_.trickle.empty()) {
    (void)::send(client.fd(), kind_.trickle.data(), kind_.trickle.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }
}

std::vector<FloodKind> UserFloods() {
  const std::string announced = LoginHeader(16 * 1024);
  return {
      {"IdleConnections", Always("")},
      {"TricklingHeaders", Always("GET / HTTP/1.1\r\nHost: nas\r\nX: "), "x"},
      {"TricklingBodies", Always(announced + "{"), " "},
      {"AnnouncedBodies", Always(announced)},
      {"HugeAnnouncedBodies", Always(LoginHeader(std::size_t{1} << 40))},
      {"ChunksWithoutEnd",
       Always("POST /webapi/VEXA.Core.Session/login HTTP/1.1\r\nHost: nas\r\nContent-Type: application/json\r\n"
              "Transfer-Encoding: chunked\r\n\r\n"),
       "1\r\n \r\n"},
      {"PipelinedRequests", Always(Repeated("GET /healthz HTTP/1.1\r\nHost: nas\r\n\r\n", 200))},
      {"UnreadReplies", Always(Repeated(kGetPages, 200)), kGetPages, Replies::kAreNotRead},
      {"MalformedFraming", MalformedRequest},
  };
}

FloodKind HalfHandshakes() {
  // The record's header announces 512 bytes of a ClientHello, of which a few arrive.
  return {"HalfHandshakes", Always(std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11))};
}

std::string MalformedRequest(std::mt19937& random) {
  static const std::vector<std::string> kRequests = {
      "POST /webapi/VEXA.Core.Session/login HTTP/1.1\r\nHost: nas\r\nContent-Type: application/json\r\n"
      "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET /metrics HTTP/1.1\r\nHost: nas\r\n\r\n",
      "POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 4\r\nContent-Length: 40\r\n\r\n{}\r\n",
      "POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: -1\r\n\r\n{}",
      "POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 99999999999999999999999\r\n\r\n{}",
      "POST / HTTP/1.1\r\nHost: nas\r\nTransfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n",
      "POST / HTTP/1.1\r\nHost: nas\r\nTransfer-Encoding: chunked\r\n\r\n1;a=\"\r\nx\r\n0\r\n\r\n",
      "POST / HTTP/1.1\r\nHost: nas\r\nTransfer-Encoding: xchunked\r\n\r\n0\r\n\r\n",
      "GET / HTTP/1.1\r\nHost: nas\r\n folded: x\r\n\r\n",
      "GET / HTTP/1.1\nHost: nas\n\n",
      "GET / HTTP/9.9\r\nHost: nas\r\n\r\n",
      "GET / HTTP/1.1\r\n\r\n",
      "GET /\x01 HTTP/1.1\r\nHost: nas\r\n\r\n",
      "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n",
      "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
      "GET /" + std::string(20'000, 'x') + " HTTP/1.1\r\nHost: nas\r\n\r\n",
      "GET / HTTP/1.1\r\nHost: nas\r\n" + Repeated("X: y\r\n", 200) + "\r\n",
      "GET / HTTP/1.1\r\nHost: nas\r\nX: " + std::string(40'000, 'x') + "\r\n\r\n",
      std::string("GET / HTTP/1.1\r\nHost: nas\r\nX: \0\r\n\r\n", 36),
  };
  std::string request = kRequests[random() % kRequests.size()];
  const auto changes = random() % 4;
  for (unsigned i = 0; i < changes; ++i) {
    const std::size_t at = random() % request.size();
    switch (random() % 3) {
      case 0:
        request[at] = static_cast<char>(random());
        break;
      case 1:
        request.erase(at, 1 + random() % 4);
        break;
      default:
        request.insert(at, 1, static_cast<char>(random()));
        break;
    }
    if (request.empty()) break;
  }
  return request;
}

}  // namespace vexa::test
