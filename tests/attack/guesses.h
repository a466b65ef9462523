// Somebody who guesses the password of the user "grace".
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tests/attack/attacked_host.h"
#include "tests/system/http_server_test_support.h"

namespace vexa::test {

// Guesses until it is destroyed, from an address after the other.
class Guesses {
 public:
  static constexpr int kAddresses = 120;
  explicit Guesses(std::uint16_t port) {
    for (int i = 0; i < 4; ++i) threads_.emplace_back([this, i, port] { Run(i, port); });
  }
  ~Guesses() { Finish(); }
  Guesses(const Guesses&) = delete;
  Guesses& operator=(const Guesses&) = delete;
  void Finish() {
    is_over_ = true;
    threads_.clear();
  }
  // How many passwords were looked at, and how many guesses were refused before that.
  int checked() const { return checked_; }
  int refused() const { return refused_; }
  int others() const { return others_; }

 private:
  void Run(int first, std::uint16_t port) {
    for (int i = first; !is_over_; i += 4) {
      auto client = http::testing_support::Client::Tcp(port, fmt::format("127.2.0.{}", 1 + i % kAddresses).c_str());
      const std::string body = fmt::format(R"({{"user":"grace","password":"guess {}"}})", i);
      if (!client.Send(fmt::format("POST {} HTTP/1.1\r\nHost: nas\r\nContent-Type: application/json\r\n"
                                   "Content-Length: {}\r\n\r\n{}",
                                   kLoginPath, body.size(), body))) {
        continue;
      }
      const int status = client.Receive().status;
      ++(status == 401 ? checked_ : status == 429 || status == 503 ? refused_ : others_);
    }
  }

  std::atomic<bool> is_over_ = false;
  std::atomic<int> checked_ = 0;
  std::atomic<int> refused_ = 0;
  std::atomic<int> others_ = 0;
  std::vector<std::jthread> threads_;
};

}  // namespace vexa::test
