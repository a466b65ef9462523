// Threads on which no signal handler runs.
#pragma once

#include <functional>
#include <thread>

namespace vexa {

// Runs `body` on a thread that blocks all signals. Among them is SIGPIPE, which OpenSSL's writes would raise. Throws
// std::system_error when the system cannot start another thread.
std::thread StartThreadBlockingSignals(std::function<void()> body);

}  // namespace vexa
