// Runs libcurl's transfers on epoll(7). Unlike curl_multi_poll(3), a wake-up costs as much as what has happened,
// however many transfers wait.
#pragma once

#include <curl/curl.h>
#include <sys/epoll.h>

#include <array>
#include <chrono>
#include <optional>

#include "host/base/not_copyable.h"

namespace vexa::transport {

// Threads: one, except for Wake().
class CurlLoop : private NotCopyable {
 public:
  CurlLoop();
  ~CurlLoop();

  // False: memory or descriptors ran out, and no other function may be called.
  bool IsValid() const { return multi_ != nullptr && epoll_ >= 0 && wake_ >= 0; }
  CURLM* multi() const { return multi_; }

  // Waits until a socket is ready, a timer expires or Wake() is called, and lets libcurl act. False: waiting or acting
  // failed.
  bool RunOnce();
  // Ends the current wait, or the next one. Any thread.
  void Wake();

 private:
  using Clock = std::chrono::steady_clock;

  static int OnSocket(CURL* handle, curl_socket_t socket, int wanted, void* self, void* known);
  static int OnTimer(CURLM* multi, long timeout_ms, void* self);
  int Watch(curl_socket_t socket, int wanted, bool is_known);
  int TimeoutMs() const;
  bool Act(const epoll_event& event);

  CURLM* multi_ = nullptr;
  int epoll_ = -1;
  int wake_ = -1;
  std::optional<Clock::time_point> due_;  // when libcurl's timer expires
  std::array<epoll_event, 64> events_{};
};

}  // namespace vexa::transport
