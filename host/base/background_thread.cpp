#include "host/base/background_thread.h"

#include <csignal>
#include <utility>

namespace vexa {
namespace {

// Blocks all signals of the calling thread while it lives. A new thread inherits the mask.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_{};
};

}  // namespace

std::thread StartThreadBlockingSignals(std::function<void()> body) {
  const BlockedSignals blocked;
  return std::thread(std::move(body));
}

}  // namespace vexa
