// Many connections of somebody without a login, from many addresses, that are opened again whenever they end.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/http_server_test_support.h"

namespace vexa::test {

enum class Replies { kAreRead, kAreNotRead };

// What each connection of a flood does.
struct FloodKind {
  const char* name;
  // What is sent first.
  std::function<std::string(std::mt19937&)> opening;
  // What is sent again and again afterwards, a few times each second; "" for nothing.
  std::string trickle{};
  Replies replies = Replies::kAreRead;
};

inline std::ostream& operator<<(std::ostream& out, const FloodKind& kind) { return out << kind.name; }

class Flood {
 public:
  // `connections` at a time to this port of 127.0.0.1, from 127.1.1.1 and the addresses after it, `kPerAddress` each.
  Flood(std::uint16_t port, const FloodKind& kind, int connections, unsigned seed);
  // Closes them.
  ~Flood();
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  // Connections so far, with the ended ones.
  int opened() const { return opened_; }

  static constexpr int kPerAddress = 10;

 private:
  using Client = http::testing_support::Client;
  void Run(int first, int end, unsigned seed);
  void Open(Client& client, int number, std::mt19937& random);
  void Step(Client& client) const;

  const std::uint16_t port_;
  const FloodKind kind_;
  std::atomic<bool> ends_ = false;
  std::atomic<int> opened_ = 0;
  std::vector<std::jthread> threads_;
};

// Every kind that this suite knows, for the listener for users.
std::vector<FloodKind> UserFloods();
// A TLS handshake that begins and does not go on, for the listener for hosts.
FloodKind HalfHandshakes();
// A text that is nearly a request: its framing can be read in two ways, or not at all.
std::string MalformedRequest(std::mt19937& random);

}  // namespace vexa::test
