// People who work while a daemon is attacked, and check every answer that they get.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "host/base/mutex.h"
#include "tests/attack/attacked_host.h"

namespace vexa::test {

class Workers {
 public:
  static constexpr int kEditors = 3;
  static constexpr int kGuestsOfEditor = 3;
  static constexpr int kPowered = 2;
  // How many the host must have.
  static constexpr int kGuests = kEditors * kGuestsOfEditor + kPowered;

  // They begin to work. Each keeps one connection, except those who power guests on and off, who are root on the Unix
  // socket and open a new one each time.
  explicit Workers(const AttackedHost& host);
  ~Workers() { Finish(); }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  void Finish();
  // How many answers were right.
  int done() const { return done_; }
  // The first answers that were wrong.
  std::vector<std::string> failures() const;
  // The last descriptions that were acknowledged, by guest.
  std::map<int, std::string> acknowledged() const;

 private:
  void Begin(std::function<void()> run) { threads_.emplace_back(std::move(run)); }
  void Expect(bool good, const std::string& what);
  void Edit(int editor);
  void Power(int guest);
  void Read();
  void Ask();

  const AttackedHost& host_;
  std::atomic<bool> is_over_ = false;
  std::atomic<int> done_ = 0;
  mutable Mutex mutex_;
  std::vector<std::string> failures_ VEXA_GUARDED_BY(mutex_);
  std::map<int, std::string> acknowledged_ VEXA_GUARDED_BY(mutex_);
  std::vector<std::jthread> threads_;
};

}  // namespace vexa::test
