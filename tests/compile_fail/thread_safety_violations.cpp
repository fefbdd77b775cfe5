// Mistakes clang's thread-safety analysis must reject, so that annotations which quietly stop
// working (a macro that expands to nothing, a lock the analysis cannot see) fail a test. Each
// is checked on its own (one TAMSEL_VIOLATION_* macro defined) and must give the analysis's
// error; with none defined the file is correct and must compile cleanly.
#include "tamsel/base/mutex.hpp"

class Counter {
 public:
  void add() {
    tamsel::base::MutexLock lock(mutex_);
    addLocked();
  }

  int value() {
#if defined(TAMSEL_VIOLATION_UNGUARDED_READ)
    return value_;
#else
    tamsel::base::MutexLock lock(mutex_);
    return value_;
#endif
  }

  void addTwice() {
#if defined(TAMSEL_VIOLATION_HELPER_WITHOUT_LOCK)
    addLocked();
    addLocked();
#else
    tamsel::base::MutexLock lock(mutex_);
    addLocked();
    addLocked();
#endif
  }

  void addAfterSteppingAside() {
    tamsel::base::MutexLock lock(mutex_);
    lock.unlock();
#if defined(TAMSEL_VIOLATION_WRITE_WHILE_UNLOCKED)
    ++value_;
#endif
    lock.lock();
    ++value_;
  }

  void waitForValue(int wanted) {
#if defined(TAMSEL_VIOLATION_WAIT_WITHOUT_LOCK)
    changed_.wait(mutex_);
#else
    tamsel::base::MutexLock lock(mutex_);
    while (value_ < wanted) changed_.wait(mutex_);
#endif
  }

 private:
  void addLocked() REQUIRES(mutex_) {
    ++value_;
    changed_.notifyAll();
  }

  tamsel::base::Mutex mutex_;
  tamsel::base::ConditionVariable changed_;
  int value_ GUARDED_BY(mutex_) = 0;
};
