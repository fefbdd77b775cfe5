#include "tamsel/base/mutex.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <optional>
#include <thread>
#include <vector>

namespace tamsel::base {
namespace {

using namespace std::chrono_literals;

// A closable queue in the shape the desktop's workers use.
struct Channel {
  Mutex mutex;
  ConditionVariable changed;
  std::deque<int> items GUARDED_BY(mutex);
  bool closed GUARDED_BY(mutex) = false;

  void put(int value) {
    {
      MutexLock lock(mutex);
      items.push_back(value);
    }
    changed.notifyOne();
  }
  void close() {
    {
      MutexLock lock(mutex);
      closed = true;
    }
    changed.notifyAll();
  }
  std::optional<int> take() {
    MutexLock lock(mutex);
    while (items.empty() && !closed) changed.wait(mutex);
    return popLocked();
  }
  // Polls with short timeouts, as the drafts writer does with an injected clock.
  std::optional<int> takePolling() {
    MutexLock lock(mutex);
    while (items.empty() && !closed) changed.waitFor(mutex, 1ms);
    return popLocked();
  }
  std::optional<int> popLocked() REQUIRES(mutex) {
    if (items.empty()) return std::nullopt;
    const int value = items.front();
    items.pop_front();
    return value;
  }
};

// Waiting must release the mutex (else the producer blocks for good) and hold it again on
// return (else two consumers take the same item).
TEST(Mutex, WaitersReceiveEveryItemOnceAndInOrder) {
  constexpr int count = 20000;
  Channel channel;
  std::vector<int> byWait, byPolling;
  std::thread waiting([&] {
    while (const auto value = channel.take()) byWait.push_back(*value);
  });
  std::thread polling([&] {
    while (const auto value = channel.takePolling()) byPolling.push_back(*value);
  });
  for (int i = 0; i < count; ++i) channel.put(i);
  channel.close();
  waiting.join();
  polling.join();

  EXPECT_TRUE(std::is_sorted(byWait.begin(), byWait.end()));
  EXPECT_TRUE(std::is_sorted(byPolling.begin(), byPolling.end()));
  std::vector<int> all(byWait);
  all.insert(all.end(), byPolling.begin(), byPolling.end());
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) ASSERT_EQ(all[i], i);
}

// unlock() inside the scope lets another thread in; lock() takes the mutex back and the
// destructor then releases it once.
TEST(Mutex, ScopedLockCanStepAsideAndComeBack) {
  Channel channel;
  MutexLock lock(channel.mutex);
  std::thread other([&] { channel.put(7); });
  lock.unlock();
  other.join();
  lock.lock();
  ASSERT_EQ(channel.items.size(), 1u);
  EXPECT_EQ(channel.items.front(), 7);
}

}  // namespace
}  // namespace tamsel::base
