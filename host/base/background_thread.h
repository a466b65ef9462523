// Threads that leave signals to the threads that handle them.
#pragma once

#include <functional>
#include <thread>

namespace vexa {

// Runs `body` on a thread that blocks all signals. Among them is SIGPIPE, which OpenSSL's writes would raise. Throws
// std::system_error when the system has no thread to give.
std::thread StartWithoutSignals(std::function<void()> body);

}  // namespace vexa
