// Lines of the log when their reader is slow or has stopped.
#include "host/daemon/log_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/waiting.h"

namespace vexa::daemon {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A reader that can stop and continue.
class Reader {
 public:
  LogQueue::Write Write() {
    return [this](int priority, const std::string& line) {
      std::unique_lock lock(mutex_);
      waiting_ = is_stopped_;
      changed_.wait(lock, [this] { return !is_stopped_; });
      waiting_ = false;
      priorities_.push_back(priority);
      lines_.push_back(line);
    };
  }
  void Stop() {
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
  }
  void Continue() {
    const std::lock_guard lock(mutex_);
    is_stopped_ = false;
    changed_.notify_all();
  }
  bool IsHangingInWrite() {
    const std::lock_guard lock(mutex_);
    return waiting_;
  }
  std::vector<std::string> Lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  std::vector<int> Priorities() {
    const std::lock_guard lock(mutex_);
    return priorities_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_stopped_ = false;
  bool waiting_ = false;
  std::vector<std::string> lines_;
  std::vector<int> priorities_;
};

steady_clock::time_point Soon() { return steady_clock::now() + seconds(30); }

TEST(LogQueue, Lines_Pushed_AreWrittenInOrder) {
  Reader reader;
  LogQueue queue(reader.Write());
  queue.Push(LOG_INFO, "a");
  queue.Push(LOG_ERR, "b");
  EXPECT_TRUE(queue.Flush(Soon()));
  EXPECT_THAT(reader.Lines(), ElementsAre("a", "b"));
  EXPECT_THAT(reader.Priorities(), ElementsAre(LOG_INFO, LOG_ERR));
}

TEST(LogQueue, Queue_NothingLogged_FlushesAndEnds) {
  Reader reader;
  LogQueue queue(reader.Write());
  EXPECT_TRUE(queue.Flush(Soon()));
}

TEST(LogQueue, Queue_Destroyed_WritesItsLines) {
  Reader reader;
  reader.Stop();
  std::thread later;
  {
    LogQueue queue(reader.Write());
    for (int i = 0; i < 10; ++i) queue.Push(LOG_INFO, "x");
    later = std::thread([&] { reader.Continue(); });
  }
  later.join();
  EXPECT_EQ(reader.Lines().size(), 10u);
}

// If a push waited for the reader, this would hang.
TEST(LogQueue, Reader_Stopped_NobodyWaitsAndLossIsReportedInPlace) {
  Reader reader;
  LogQueue queue(reader.Write(), 1000);
  reader.Stop();
  queue.Push(LOG_INFO, "first");
  ASSERT_TRUE(test::Eventually([&] { return reader.IsHangingInWrite(); }));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) queue.Push(LOG_INFO, "0123456789");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(queue.Flush(steady_clock::now() + std::chrono::milliseconds(50)));
  reader.Continue();
  ASSERT_TRUE(queue.Flush(Soon()));
  queue.Push(LOG_INFO, "later");
  ASSERT_TRUE(queue.Flush(Soon()));
  const std::vector<std::string> lines = reader.Lines();
  ASSERT_GT(lines.size(), 3u);
  EXPECT_LT(lines.size(), 20u) << "the queue is bounded";
  EXPECT_EQ(lines.front(), "first");
  EXPECT_EQ(lines.back(), "later");
  const std::size_t kept = lines.size() - 3;
  EXPECT_EQ(lines[lines.size() - 2],
            "Lines lost here, because the log did not accept them in time: " + std::to_string(8000 - kept) + ".");
  EXPECT_EQ(reader.Priorities()[lines.size() - 2], LOG_WARNING);
}

TEST(LogQueue, Reader_ContinuesAndNewLinesFollow_LossIsReportedBeforeThem) {
  Reader reader;
  LogQueue queue(reader.Write(), 200);
  reader.Stop();
  queue.Push(LOG_INFO, "a");
  ASSERT_TRUE(test::Eventually([&] { return reader.IsHangingInWrite(); }));
  queue.Push(LOG_INFO, "b");
  queue.Push(LOG_INFO, std::string(150, 'x'));  // does not fit
  queue.Push(LOG_INFO, "c");                    // does
  reader.Continue();
  ASSERT_TRUE(queue.Flush(Soon()));
  EXPECT_THAT(reader.Lines(), ElementsAre("a", "b", HasSubstr("Lines lost here"), "c"));
}

}  // namespace
}  // namespace vexa::daemon
