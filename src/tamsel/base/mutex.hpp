#pragma once
// A mutex, its scoped lock and a condition variable that clang's thread-safety analysis can
// check (see thread_annotations.hpp). They are std::mutex and std::condition_variable
// underneath; only the annotations are added.
//
// Mutex is also BasicLockable, so std::condition_variable_any and std::scoped_lock accept it,
// though the analysis cannot follow those.
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "tamsel/base/thread_annotations.hpp"

namespace tamsel::base {

class CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class ConditionVariable;
  std::mutex mutex_;
};

// Holds the mutex from construction to destruction. unlock() and lock() leave it for a while
// inside the scope (a file write without the lock); the destructor releases it only when held.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() {
    if (locked_) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() RELEASE() {
    mutex_.unlock();
    locked_ = false;
  }
  void lock() ACQUIRE() {
    mutex_.lock();
    locked_ = true;
  }

 private:
  Mutex& mutex_;
  bool locked_ = true;
};

// Waits release the mutex and take it back before they return, so to the analysis the mutex
// stays held across the call; callers recheck their condition after every wake.
class ConditionVariable {
 public:
  void wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();  // still held: the caller's lock owns it
  }

  // std::cv_status::timeout when `timeout` passed without a notification.
  template <class Rep, class Period>
  std::cv_status waitFor(Mutex& mutex, const std::chrono::duration<Rep, Period>& timeout)
      REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    const auto status = condition_.wait_for(lock, timeout);
    lock.release();
    return status;
  }

  void notifyOne() noexcept { condition_.notify_one(); }
  void notifyAll() noexcept { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace tamsel::base
