// Locks whose use clang checks: a member declares which mutex guards it, and clang-tidy (`./dev lint`) reports an
// access without that mutex. The types wrap those of the standard library at no extra cost; gcc ignores the macros.
// clang's "Thread Safety Analysis" explains the annotations.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define VEXA_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define VEXA_THREAD_ANNOTATION(annotation)
#endif

// For a member: it is read and written only while the mutex is locked.
#define VEXA_GUARDED_BY(mutex) VEXA_THREAD_ANNOTATION(guarded_by(mutex))
// For a function: its caller has locked the mutex.
#define VEXA_REQUIRES(...) VEXA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// For a function: it locks the mutex, locks it if it returns the given value, or unlocks it.
#define VEXA_ACQUIRE(...) VEXA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VEXA_TRY_ACQUIRE(...) VEXA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define VEXA_RELEASE(...) VEXA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// For a function that the analysis cannot follow; a comment there gives the reason.
#define VEXA_NO_THREAD_SAFETY_ANALYSIS VEXA_THREAD_ANNOTATION(no_thread_safety_analysis)
// For the types below.
#define VEXA_CAPABILITY(name) VEXA_THREAD_ANNOTATION(capability(name))
#define VEXA_SCOPED_CAPABILITY VEXA_THREAD_ANNOTATION(scoped_lockable)

namespace vexa {

// std::mutex.
class VEXA_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() VEXA_ACQUIRE() { native_.lock(); }
  // True if the mutex was free, and is now locked by the caller.
  bool TryLock() VEXA_TRY_ACQUIRE(true) { return native_.try_lock(); }
  void Unlock() VEXA_RELEASE() { native_.unlock(); }

 private:
  friend class ConditionVariable;
  std::mutex native_;
};

// Locks the mutex for the lifetime of the object.
class VEXA_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VEXA_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() VEXA_RELEASE() { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// Locks the mutex for the lifetime of the object, except between Unlock() and Lock().
class VEXA_SCOPED_CAPABILITY ReleasableMutexLock {
 public:
  explicit ReleasableMutexLock(Mutex& mutex) VEXA_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~ReleasableMutexLock() VEXA_RELEASE() {
    if (is_locked_) mutex_.Unlock();
  }
  ReleasableMutexLock(const ReleasableMutexLock&) = delete;
  ReleasableMutexLock& operator=(const ReleasableMutexLock&) = delete;

  void Unlock() VEXA_RELEASE() {
    is_locked_ = false;
    mutex_.Unlock();
  }
  void Lock() VEXA_ACQUIRE() {
    mutex_.Lock();
    is_locked_ = true;
  }

 private:
  Mutex& mutex_;
  bool is_locked_ = true;
};

// Unlocks a locked mutex for the lifetime of the object, in a function whose caller has locked it.
class VEXA_SCOPED_CAPABILITY MutexUnlock {
 public:
  explicit MutexUnlock(Mutex& mutex) VEXA_RELEASE(mutex) : mutex_(mutex) { mutex_.Unlock(); }
  ~MutexUnlock() VEXA_RELEASE() { mutex_.Lock(); }
  MutexUnlock(const MutexUnlock&) = delete;
  MutexUnlock& operator=(const MutexUnlock&) = delete;

 private:
  Mutex& mutex_;
};

// std::condition_variable. Waits may end early, so call them in a loop: `while (!is_done_) changed_.Wait(mutex_);`.
// They take no predicate, because clang does not know that the mutex is locked when a lambda is called.
class ConditionVariable {
 public:
  ConditionVariable() = default;
  ConditionVariable(const ConditionVariable&) = delete;
  ConditionVariable& operator=(const ConditionVariable&) = delete;

  void NotifyOne() noexcept { native_.notify_one(); }
  void NotifyAll() noexcept { native_.notify_all(); }

  void Wait(Mutex& mutex) VEXA_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.native_, std::adopt_lock);
    native_.wait(lock);
    lock.release();
  }

  // False if `until` has been reached, even if the condition became true meanwhile. So wait for a condition or the time
  // like this:
  //   while (!is_done_ && changed_.WaitUntil(mutex_, until)) {
  //   }
  //   return is_done_;
  template <class Clock, class Duration>
  bool WaitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& until) VEXA_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.native_, std::adopt_lock);
    const std::cv_status status = native_.wait_until(lock, until);
    lock.release();
    return status == std::cv_status::no_timeout;
  }

 private:
  std::condition_variable native_;
};

}  // namespace vexa
