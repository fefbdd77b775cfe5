#include "tamsel/bridge/event_stream_client.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <random>

#include "tamsel/base/log.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_local_presence.hpp"
#include "tamsel/bridge/http_transport.hpp"

namespace tamsel::bridge {

namespace asio = boost::asio;
constexpr const char* kSource = "EventStream";

double EventStreamBackoff::afterConnection(double livedSeconds) {
  if (livedSeconds >= resetAfterSeconds) {
    backoffSeconds = initialSeconds;
    attempt = 0;
    return backoffSeconds;
  }
  const double wait = backoffSeconds;
  ++attempt;
  backoffSeconds = std::min(backoffSeconds * 2, maxSeconds);
  return wait;
}

// ---- EventSubscription ----

struct EventSubscription::Waiter {
  explicit Waiter(asio::any_io_executor executor) : timer(executor, asio::steady_timer::time_point::max()) {}
  asio::steady_timer timer;
};

void EventSubscription::wakeLocked() {
  if (!waiter_) return;
  auto waiter = std::exchange(waiter_, nullptr);
  // The timer belongs to the consumer's executor; cancel it there.
  asio::post(waiter->timer.get_executor(), [waiter] { waiter->timer.cancel(); });
}

void EventSubscription::push(const DaemonEventPtr& event) {
  base::MutexLock lock(mutex_);
  if (finished_ || overflowed_) return;
  if (size_ == capacity) {
    // Keep the newest: the oldest undelivered event goes, for this subscriber only.
    const bool lostCritical = ring_[head_]->isCritical();
    ring_[head_].reset();
    head_ = (head_ + 1) % capacity;
    --size_;
    ++dropped_;
    if (lostCritical) {
      overflowed_ = true;
      head_ = size_ = 0;
      for (auto& slot : ring_) slot.reset();
      wakeLocked();
      return;
    }
  }
  ring_[(head_ + size_) % capacity] = event;
  ++size_;
  wakeLocked();
}

void EventSubscription::finish() {
  base::MutexLock lock(mutex_);
  finished_ = true;
  wakeLocked();
}

std::uint64_t EventSubscription::dropped() const {
  base::MutexLock lock(mutex_);
  return dropped_;
}

bool EventSubscription::isFinished() const {
  base::MutexLock lock(mutex_);
  return finished_;
}

std::optional<DaemonEventPtr> EventSubscription::tryNext() {
  base::MutexLock lock(mutex_);
  if (size_ == 0) return std::nullopt;
  auto event = std::move(ring_[head_]);
  head_ = (head_ + 1) % capacity;
  --size_;
  return event;
}

asio::awaitable<std::optional<DaemonEventPtr>> EventSubscription::next() {
  while (true) {
    std::shared_ptr<Waiter> waiter;
    {
      base::MutexLock lock(mutex_);
      if (overflowed_) {
        // Reported once; the sequence is over.
        overflowed_ = false;
        finished_ = true;
        throw SSEBufferOverflowError();
      }
      if (size_ > 0) {
        auto event = std::move(ring_[head_]);
        head_ = (head_ + 1) % capacity;
        --size_;
        co_return event;
      }
      if (finished_) co_return std::nullopt;
      waiter = std::make_shared<Waiter>(co_await asio::this_coro::executor);
      waiter_ = waiter;
    }
    boost::system::error_code ec;
    co_await waiter->timer.async_wait(asio::redirect_error(asio::use_awaitable, ec));
    {
      // Cancelled from outside rather than woken: stop waiting.
      base::MutexLock lock(mutex_);
      if (waiter_ == waiter) {
        waiter_.reset();
        co_return std::nullopt;
      }
    }
  }
}

// ---- EventStreamClient ----

struct EventStreamTimer {
  explicit EventStreamTimer(asio::any_io_executor executor) : timer(executor) {}
  asio::steady_timer timer;
};

EventStreamClient::EventStreamClient(asio::any_io_executor executor, Config config)
    : executor_(std::move(executor)),
      config_(std::move(config)),
      sseSession_(std::make_unique<HttpSession>(HttpSessionConfig{std::chrono::seconds(86400), 0})),
      waitTimer_(std::make_unique<EventStreamTimer>(executor_)) {}

EventStreamClient::~EventStreamClient() {
  stop();
  for (auto& [id, subscription] : subscribers_) subscription->finish();
}

EventStreamClient::Subscription EventStreamClient::subscribe() {
  Subscription subscription{base::newUUIDString(), std::make_shared<EventSubscription>()};
  subscribers_.emplace(subscription.id, subscription.events);
  if (!running_) start();
  return subscription;
}

void EventStreamClient::unsubscribe(const std::string& id) {
  auto it = subscribers_.find(id);
  if (it == subscribers_.end()) return;
  it->second->finish();
  subscribers_.erase(it);
}

std::map<std::string, std::uint64_t> EventStreamClient::droppedCounts() const {
  std::map<std::string, std::uint64_t> counts;
  for (const auto& [id, subscription] : subscribers_) counts[id] = subscription->dropped();
  return counts;
}

void EventStreamClient::start() {
  if (running_) return;
  running_ = true;
  const auto generation = ++generation_;
  asio::co_spawn(executor_, connectionLoop(generation), asio::detached);
}

void EventStreamClient::stop() {
  if (!running_) return;
  running_ = false;
  ++generation_;
  if (currentStream_) currentStream_->cancel();
  waitTimer_->timer.cancel();
  setConnected(false);
}

void EventStreamClient::setConnected(bool connected) {
  if (connected_ == connected) return;
  connected_ = connected;
  connectionChanged_.emit(connected);
}

void EventStreamClient::dispatch(const SSEMessage& message) {
  if (message.id) lastEventID_ = message.id;
  auto decoded = decodeDaemonEvent(message);
  if (!decoded) return;
  const DaemonEventPtr event = std::make_shared<const DaemonEvent>(std::move(*decoded));
  for (auto& [id, subscription] : subscribers_) subscription->push(event);
}

asio::awaitable<void> EventStreamClient::readOnce(std::uint64_t generation) {
  DaemonClient::Query query;
  if (lastEventID_) query.emplace_back("last_event_id", *lastEventID_);
  HttpRequest request;
  request.method = "GET";
  request.target = DaemonClient::buildTarget({"events"}, query);
  request.headers = {{DaemonLocalPresence::headerName, config_.presenceToken},
                     {"X-Tamsel-Desktop-Device-ID", config_.desktopDeviceID},
                     {"Accept", "text/event-stream"}};
  auto stream = co_await sseSession_->open(config_.port, std::move(request));
  if (generation != generation_) co_return;
  if (stream->status() != 200) throw TransportError("event stream answered with status " + std::to_string(stream->status()));
  stream->setIdleTimeout(config_.silenceLimit);
  currentStream_ = stream.get();
  struct Clear {
    EventStreamClient* self;
    ~Clear() { self->currentStream_ = nullptr; }
  } clear{this};
  setConnected(true);
  SSELineSplitter splitter;
  SSEParser parser;
  SSEMessage message;
  while (auto bytes = co_await stream->readSome()) {
    if (generation != generation_) co_return;
    splitter.feed(*bytes, [&](std::string_view line) {
      if (parser.feedLine(line, message)) dispatch(message);
    });
  }
}

asio::awaitable<void> EventStreamClient::connectionLoop(std::uint64_t generation) {
  EventStreamBackoff backoff;
  std::mt19937 random(std::random_device{}());
  std::uniform_real_distribution<double> jitter(0.0, 0.5);
  while (generation == generation_) {
    const auto opened = std::chrono::steady_clock::now();
    try {
      co_await readOnce(generation);
    } catch (const std::exception& e) {
      if (generation != generation_) co_return;
      base::log::info(kSource, "stream ended: {}", e.what());
    }
    if (generation != generation_) co_return;
    setConnected(false);
    const double lived = std::chrono::duration<double>(std::chrono::steady_clock::now() - opened).count();
    const double wait = backoff.afterConnection(lived) + jitter(random);
    waitTimer_->timer.expires_after(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(wait)));
    boost::system::error_code ec;
    co_await waitTimer_->timer.async_wait(asio::redirect_error(asio::use_awaitable, ec));
  }
}

}  // namespace tamsel::bridge
