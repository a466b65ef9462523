#include "host/transport/curl_loop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <span>

namespace vexa::transport {
namespace {

constexpr std::chrono::milliseconds kMaxWait{60'000};

std::uint32_t EventsFor(int wanted) {
  std::uint32_t events = 0;
  if (wanted == CURL_POLL_IN || wanted == CURL_POLL_INOUT) events |= EPOLLIN;
  if (wanted == CURL_POLL_OUT || wanted == CURL_POLL_INOUT) events |= EPOLLOUT;
  return events;
}

// The flags of curl_multi_socket_action(3). Errors and hang-ups show when reading or writing.
int SelectBits(std::uint32_t events) {
  int bits = 0;
  if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) bits |= CURL_CSELECT_IN;
  if (events & EPOLLOUT) bits |= CURL_CSELECT_OUT;
  if (events & EPOLLERR) bits |= CURL_CSELECT_ERR;
  return bits;
}

}  // namespace

CurlLoop::CurlLoop()
    : multi_(curl_multi_init()),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!IsValid()) return;
  epoll_event woken{};
  woken.events = EPOLLIN;
  woken.data.fd = wake_;
  if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &woken) != 0) {
    ::close(wake_);
    wake_ = -1;
    return;
  }
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlLoop::OnSocket);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlLoop::OnTimer);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
}

CurlLoop::~CurlLoop() {
  // Closes the remaining connections, and reports each.
  if (multi_ != nullptr) curl_multi_cleanup(multi_);
  if (epoll_ >= 0) ::close(epoll_);
  if (wake_ >= 0) ::close(wake_);
}

void CurlLoop::Wake() {
  constexpr std::uint64_t kOne = 1;
  // It fails only when the counter is so high that the descriptor is certainly readable.
  [[maybe_unused]] const ssize_t written = ::write(wake_, &kOne, sizeof kOne);
}

int CurlLoop::OnSocket(CURL*, curl_socket_t socket, int wanted, void* self, void* known) {
  return static_cast<CurlLoop*>(self)->Watch(socket, wanted, known != nullptr);
}

int CurlLoop::OnTimer(CURLM*, long timeout_ms, void* self) {
  auto& due = static_cast<CurlLoop*>(self)->due_;
  if (timeout_ms < 0) {
    due.reset();
  } else {
    due = Clock::now() + std::chrono::milliseconds(timeout_ms);
  }
  return 0;
}

// libcurl reports this before it closes a socket, so a reused descriptor number is never watched by mistake.
int CurlLoop::Watch(curl_socket_t socket, int wanted, bool is_known) {
  if (wanted == CURL_POLL_REMOVE) {
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, socket, nullptr);
    curl_multi_assign(multi_, socket, nullptr);
    return 0;
  }
  epoll_event event{};
  event.events = EventsFor(wanted);
  event.data.fd = socket;
  // If there is no memory to watch it, the transfer ends by its time-out. An error from here would end all transfers.
  if (::epoll_ctl(epoll_, is_known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, socket, &event) != 0) return 0;
  if (!is_known) curl_multi_assign(multi_, socket, this);
  return 0;
}

int CurlLoop::TimeoutMs() const {
  if (!due_) return static_cast<int>(kMaxWait.count());
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due_ - Clock::now());
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), kMaxWait).count());
}

bool CurlLoop::Act(const epoll_event& event) {
  if (event.data.fd == wake_) {
    std::uint64_t count = 0;
    return ::read(wake_, &count, sizeof count) > 0 || errno == EAGAIN;
  }
  int running = 0;
  return curl_multi_socket_action(multi_, event.data.fd, SelectBits(event.events), &running) == CURLM_OK;
}

bool CurlLoop::RunOnce() {
  const int count = ::epoll_wait(epoll_, events_.data(), static_cast<int>(events_.size()), TimeoutMs());
  if (count < 0) return errno == EINTR;
  bool is_well = true;
  for (const epoll_event& event : std::span(events_.data(), static_cast<std::size_t>(count))) {
    is_well = Act(event) && is_well;
  }
  if (due_ && *due_ <= Clock::now()) {
    due_.reset();  // set again by what follows
    int running = 0;
    is_well = curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running) == CURLM_OK && is_well;
  }
  return is_well;
}

}  // namespace vexa::transport
