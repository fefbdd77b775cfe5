#pragma once
// Keeps the engine's "/events" stream open for the life of the desktop and fans every event out
// to any number of subscribers.
//
// Each subscriber has its own buffer of the 2048 newest undelivered events: a slow subscriber
// loses its own oldest events (counted in droppedCounts()) and never holds up the connection or
// the others. Losing a critical event (see DaemonEvent::isCritical) ends that subscriber's
// sequence with SSEBufferOverflowError, since it could no longer show a true picture.
//
// The connection loop resumes from the last event id ("last_event_id" in the query), waits a
// backoff from 1 s doubling to 30 s plus a jitter below 0.5 s between attempts (reset after a
// connection that lived 2 s or more), and treats a stream that stays silent longer than its
// silence limit (keepalive comments count) as failed.
//
// The client's own operations and the loop run on the executor given at construction;
// subscribers may consume from any executor or thread.
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "tamsel/base/mutex.hpp"
#include "tamsel/base/signal.hpp"
#include "tamsel/bridge/daemon_events.hpp"

namespace tamsel::bridge {
class HttpSession;
}

namespace tamsel::bridge {

class SSEBufferOverflowError : public base::Error {
 public:
  static constexpr std::string_view category = "event_stream";
  SSEBufferOverflowError()
      : Error(category, "buffer_overflow",
              "The event consumer could not keep up with critical daemon events.") {}
};

// The backoff rule, kept apart from the loop so it can be checked without waiting.
struct EventStreamBackoff {
  static constexpr double initialSeconds = 1;
  static constexpr double maxSeconds = 30;
  static constexpr double resetAfterSeconds = 2;
  double backoffSeconds = initialSeconds;
  std::int64_t attempt = 0;
  // After a connection that lived `livedSeconds` (0 when it never opened): the wait before the
  // next attempt, jitter not included.
  double afterConnection(double livedSeconds);
};

// One subscriber's bounded buffer and the sequence read from it.
class EventSubscription {
 public:
  static constexpr std::size_t capacity = 2048;

  // The next event; nothing once unsubscribed. Throws SSEBufferOverflowError once after a
  // critical event was lost (and nothing afterwards).
  boost::asio::awaitable<std::optional<DaemonEventPtr>> next();
  // Without waiting.
  std::optional<DaemonEventPtr> tryNext();

  // Producer side (the client's loop).
  void push(const DaemonEventPtr& event);
  void finish();
  std::uint64_t dropped() const;
  bool isFinished() const;

 private:
  struct Waiter;
  void wakeLocked() REQUIRES(mutex_);

  mutable base::Mutex mutex_;
  std::vector<DaemonEventPtr> ring_ GUARDED_BY(mutex_) = std::vector<DaemonEventPtr>(capacity);
  std::size_t head_ GUARDED_BY(mutex_) = 0;
  std::size_t size_ GUARDED_BY(mutex_) = 0;
  std::uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  bool overflowed_ GUARDED_BY(mutex_) = false;
  bool finished_ GUARDED_BY(mutex_) = false;
  std::shared_ptr<Waiter> waiter_ GUARDED_BY(mutex_);
};

class EventStreamClient {
 public:
  struct Config {
    std::uint16_t port = 7533;
    std::string presenceToken;  // secret: never logged
    std::string desktopDeviceID;
    std::chrono::milliseconds silenceLimit{45000};
    // Which engine process serves the port now (for example its PID and start time), nothing
    // when that cannot be told. Event ids are numbered per engine process: a resume point read
    // from one process means nothing to the next, which numbers from 1 again. So when the
    // engine changed since the last event (or the one that sent it can no longer be found), the
    // stream starts again from the first event the new engine kept instead of skipping them.
    std::function<std::optional<std::string>()> engineInstance;
  };

  // `session` carries the stream; without one the client makes its own, with a day's time limit
  // and no connection limit, so the event stream never waits behind reply streams.
  EventStreamClient(boost::asio::any_io_executor executor, Config config,
                    std::shared_ptr<HttpSession> session = nullptr);
  // May be called at any moment on the client's executor: the connection is cancelled and every
  // subscription finished; nothing of the client runs afterwards.
  ~EventStreamClient();
  EventStreamClient(const EventStreamClient&) = delete;
  EventStreamClient& operator=(const EventStreamClient&) = delete;

  struct Subscription {
    std::string id;
    std::shared_ptr<EventSubscription> events;
  };
  // A new subscription (its id a fresh UUID); the first one starts the connection loop.
  Subscription subscribe();
  // Ends that sequence and forgets its dropped count.
  void unsubscribe(const std::string& id);
  void start();
  // Cancels the loop; subscribers stay registered.
  void stop();

  bool isRunning() const;
  bool isConnected() const;
  std::map<std::string, std::uint64_t> droppedCounts() const;
  const std::optional<std::string>& lastEventID() const;
  // Why the last connection ended, when it failed (a transport error, a line past the limit);
  // set before connectionChanged(false) is emitted, so an observer can say why.
  const std::optional<std::string>& lastFailure() const;
  // Whether the current (or last) connection started again from a new engine's first event.
  bool readsNewEngineFromStart() const;
  // Emitted on the client's executor when a connection opens (true) or ends (false); views
  // refetch what they show after a reconnect, since events may have been missed.
  base::Signal<bool>& connectionChanged();

  // Decodes and fans out one message as the loop does (also for tests).
  void dispatch(const SSEMessage& message);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::bridge
