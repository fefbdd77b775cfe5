#pragma once
// The hand-over from a capture callback to its track's writer: a fixed ring with a count bound
// and a weight (byte) budget. push never blocks and never allocates (the ring is allocated once);
// when the ring is full the incoming element is refused and the producer accounts it as lost.
// One consumer drains it in order and receives the finish payload last, exactly once.
//
// Waking a sleeping consumer is a system call of several microseconds. With a poll interval the
// producer leaves that to the consumer, which looks every interval on its own, and wakes it only
// when the queue is a quarter full; without one, every push onto an empty queue wakes it.
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "tamsel/base/mutex.hpp"

namespace tamsel::meeting {

// Which element a full queue discards. The incoming one: what is queued is already in order for
// the writer, and the producer turns the refused element into a jump in sequence and sample time
// that the ledger records as a captureLoss gap.
namespace DropPolicy {
// True when an element of `incomingWeight` does not fit.
constexpr bool mustDrop(std::int64_t count, std::int64_t maxCount, std::int64_t weight,
                        std::int64_t maxWeight, std::int64_t incomingWeight) {
  if (count >= maxCount) return true;
  if (incomingWeight > maxWeight - weight) return true;  // weight <= maxWeight always holds
  return false;
}
}  // namespace DropPolicy

template <class Element, class Payload>
struct AudioQueueDrainEvent {
  std::variant<Element, Payload> value;
  bool isFinish() const { return value.index() == 1; }
};

template <class Element, class Payload>
class BoundedAudioQueue {
 public:
  using Event = AudioQueueDrainEvent<Element, Payload>;

  BoundedAudioQueue(std::int64_t maxElementCount, std::int64_t maxWeight,
                    std::chrono::milliseconds pollInterval = std::chrono::milliseconds(0))
      : maxElementCount_(maxElementCount < 1 ? 1 : maxElementCount),
        maxWeight_(maxWeight < 0 ? 0 : maxWeight),
        pollInterval_(pollInterval),
        ringStorage_(std::make_unique<Entry[]>(static_cast<std::size_t>(maxElementCount_))),
        ring_(ringStorage_.get()) {}

  // Queues the element unless the ring is full, the budget would be passed or finish was asked
  // for; never waits for the consumer. The element is left untouched when refused.
  bool push(Element& element, std::int64_t weight) {
    bool wake;
    {
      base::MutexLock lock(lock_);
      if (finishRequested_ ||
          DropPolicy::mustDrop(count_, maxElementCount_, weight_, maxWeight_, weight))
        return false;
      Entry& entry = ring_[static_cast<std::size_t>(tail_)];
      entry.element.emplace(std::move(element));
      entry.weight = weight;
      tail_ = (tail_ + 1) % maxElementCount_;
      // The consumer sleeps only on an empty queue and rechecks the count under the lock, so
      // a wake-up is owed at most when the queue was empty.
      wake = pollInterval_.count() == 0
                 ? count_ == 0
                 : (count_ + 1 == maxElementCount_ / 4 ||
                    (weight_ < maxWeight_ / 4 && weight_ + weight >= maxWeight_ / 4));
      ++count_;
      weight_ += weight;
    }
    if (wake) available_.notifyOne();
    return true;
  }

  // The first call wins; later ones return false and change nothing.
  bool finish(Payload payload) {
    {
      base::MutexLock lock(lock_);
      if (finishRequested_) return false;
      finishRequested_ = true;
      finishPayload_.emplace(std::move(payload));
    }
    available_.notifyOne();
    return true;
  }

  // Blocks until an element or the finish is there. Elements come in push order, the finish
  // after all of them; after the finish, nothing (std::nullopt at once).
  std::optional<Event> next() {
    base::MutexLock lock(lock_);
    while (count_ == 0 && !(finishRequested_ && !finishDelivered_)) {
      if (finishDelivered_) return std::nullopt;
      if (pollInterval_.count() == 0)
        available_.wait(lock_);
      else
        available_.waitFor(lock_, pollInterval_);
    }
    if (count_ > 0) {
      Entry& entry = ring_[static_cast<std::size_t>(head_)];
      Event event{
          std::variant<Element, Payload>(std::in_place_index<0>, std::move(*entry.element))};
      entry.element.reset();
      weight_ -= entry.weight;
      head_ = (head_ + 1) % maxElementCount_;
      --count_;
      return event;
    }
    finishDelivered_ = true;
    return Event{
        std::variant<Element, Payload>(std::in_place_index<1>, std::move(*finishPayload_))};
  }

  std::int64_t count() const {
    base::MutexLock lock(lock_);
    return count_;
  }
  std::int64_t weight() const {
    base::MutexLock lock(lock_);
    return weight_;
  }
  std::int64_t maxElementCount() const { return maxElementCount_; }
  std::int64_t maxWeight() const { return maxWeight_; }

 private:
  struct Entry {
    std::optional<Element> element;
    std::int64_t weight = 0;
  };
  mutable base::Mutex lock_;
  base::ConditionVariable available_;
  const std::int64_t maxElementCount_;
  const std::int64_t maxWeight_;
  const std::chrono::milliseconds pollInterval_;
  const std::unique_ptr<Entry[]> ringStorage_;  // allocated once, here
  Entry* const ring_ PT_GUARDED_BY(lock_);
  std::int64_t head_ GUARDED_BY(lock_) = 0;
  std::int64_t tail_ GUARDED_BY(lock_) = 0;
  std::int64_t count_ GUARDED_BY(lock_) = 0;
  std::int64_t weight_ GUARDED_BY(lock_) = 0;
  bool finishRequested_ GUARDED_BY(lock_) = false;
  std::optional<Payload> finishPayload_ GUARDED_BY(lock_);
  bool finishDelivered_ GUARDED_BY(lock_) = false;
};

}  // namespace tamsel::meeting
