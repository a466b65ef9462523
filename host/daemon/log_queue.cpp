#include "host/daemon/log_queue.h"

#include <fmt/format.h>
#include <syslog.h>

#include <system_error>
#include <utility>

#include "host/base/background_thread.h"

namespace vexa::daemon {
namespace {

constexpr std::size_t kBytesPerLine = 64;  // what a line takes besides its text

}  // namespace

LogQueue::LogQueue(Write write, std::size_t max_bytes) : write_(std::move(write)), max_bytes_(max_bytes) {}

LogQueue::~LogQueue() {
  {
    const MutexLock lock(mutex_);
    is_ending_ = true;
    changed_.NotifyAll();
  }
  if (thread_.joinable()) thread_.join();
}

void LogQueue::Push(int priority, std::string line) {
  const MutexLock lock(mutex_);
  if (bytes_ + line.size() + kBytesPerLine > max_bytes_) {
    ++lost_;
    return;
  }
  EnsureThread();
  EnqueueLossNotice();
  Enqueue(priority, std::move(line));
}

bool LogQueue::Flush(std::chrono::steady_clock::time_point until) {
  const MutexLock lock(mutex_);
  while (!IsDone() && changed_.WaitUntil(mutex_, until)) {
  }
  return IsDone();
}

bool LogQueue::IsDone() const { return lines_.empty() && lost_ == 0 && !is_writing_; }

// Without a thread, the lines wait for the next attempt to start one.
void LogQueue::EnsureThread() {
  if (thread_.joinable()) return;
  try {
    thread_ = StartThreadBlockingSignals([this] { Run(); });
  } catch (const std::system_error&) {
  }
}

void LogQueue::Enqueue(int priority, std::string line) {
  bytes_ += line.size() + kBytesPerLine;
  lines_.push_back({priority, std::move(line)});
  changed_.NotifyAll();
}

void LogQueue::EnqueueLossNotice() {
  if (lost_ == 0) return;
  Enqueue(LOG_WARNING,
          fmt::format("Lines lost here, because the log did not accept them in time: {}.", std::exchange(lost_, 0)));
}

void LogQueue::Run() {
  ReleasableMutexLock lock(mutex_);
  while (true) {
    if (lines_.empty()) EnqueueLossNotice();
    if (lines_.empty()) {
      if (is_ending_) return;
      changed_.Wait(mutex_);
      continue;
    }
    const Line line = std::move(lines_.front());
    lines_.pop_front();
    is_writing_ = true;
    lock.Unlock();
    write_(line.priority, line.text);
    lock.Lock();
    is_writing_ = false;
    bytes_ -= line.text.size() + kBytesPerLine;
    changed_.NotifyAll();
  }
}

}  // namespace vexa::daemon
