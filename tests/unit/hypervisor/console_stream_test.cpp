// What is left of a console that libvirt does not take.
#include "host/hypervisor/console_stream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <semaphore>
#include <thread>

#include "host/hypervisor/daemon_line.h"
#include "host/hypervisor/hypervisor.h"

namespace vexa::hypervisor {
namespace {

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

// Streams of the test driver have no events.
class UnusableStream : public ::testing::Test {
 protected:
  UnusableStream() : connection_(virConnectOpen("test:///default"), virConnectClose) {}

  void ExpectFailureWithoutLeak(const std::function<Result<Descriptor>(StreamHandle stream)>& open) {
    ASSERT_TRUE(loop_.ok());
    ASSERT_TRUE(connection_);
    AwaitIteration();
    const std::ptrdiff_t before = OpenDescriptors();
    EXPECT_FALSE(open(StreamHandle(virStreamNew(connection_.get(), VIR_STREAM_NONBLOCK))));
    // The loop drops its references later.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (OpenDescriptors() > before && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(OpenDescriptors(), before);
  }

  // The event loop opens descriptors of its own in its first iteration, which may begin late.
  static void AwaitIteration() {
    std::binary_semaphore done(0);
    const auto on_timeout = [](int timer, void* semaphore) {
      virEventRemoveTimeout(timer);
      static_cast<std::binary_semaphore*>(semaphore)->release();
    };
    ASSERT_GE(virEventAddTimeout(0, on_timeout, &done, nullptr), 0);
    ASSERT_TRUE(done.try_acquire_for(std::chrono::seconds(30)));
  }

  const Result<std::unique_ptr<Hypervisor>, Failure> loop_ = Hypervisor::Open({});  // runs libvirt's event loop
  const std::shared_ptr<virConnect> connection_;
};

TEST_F(UnusableStream, SocketOfStream_FailsAndLeavesNoDescriptor) {
  ExpectFailureWithoutLeak([](StreamHandle stream) { return SocketOfStream(std::move(stream)); });
}

TEST_F(UnusableStream, SocketOfDaemonLine_FailsAndLeavesNoDescriptor) {
  ExpectFailureWithoutLeak([this](StreamHandle stream) { return SocketOfDaemonLine(connection_, std::move(stream)); });
}

}  // namespace
}  // namespace vexa::hypervisor
