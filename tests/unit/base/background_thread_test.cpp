#include "host/base/background_thread.h"

#include <gtest/gtest.h>

#include <csignal>

namespace vexa {
namespace {

TEST(BackgroundThread, Thread_Started_BlocksSignalsAndKeepsStartersMask) {
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, SIGUSR2);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &own, nullptr), 0);
  sigset_t inside;
  sigemptyset(&inside);
  StartThreadBlockingSignals([&] { pthread_sigmask(SIG_SETMASK, nullptr, &inside); }).join();
  for (const int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
    EXPECT_EQ(sigismember(&inside, signal), 1) << signal;
  }
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
  EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
}

}  // namespace
}  // namespace vexa
