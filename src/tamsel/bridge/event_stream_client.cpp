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
#include "tamsel/base/task_scope.hpp"
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
  explicit Waiter(asio::any_io_executor executor)
      : timer(executor, asio::steady_timer::time_point::max()) {}
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

struct EventStreamClient::Impl {
  Impl(asio::any_io_executor executor, Config config, std::shared_ptr<HttpSession> session)
      : config(std::move(config)),
        session(std::move(session)),
        waitTimer(executor),
        tasks(executor) {
    if (!this->session)
      this->session =
          std::make_shared<HttpSession>(HttpSessionConfig{std::chrono::seconds(86400), 0});
  }

  Config config;
  std::shared_ptr<HttpSession> session;
  std::map<std::string, std::shared_ptr<EventSubscription>> subscribers;
  std::optional<std::string> lastEventID;
  std::optional<std::string> lastFailure;
  // The engine process the events so far came from, when it could be told.
  std::optional<std::string> readFrom;
  bool fromNewEngineStart = false;
  bool running = false;
  bool connected = false;
  std::uint64_t generation = 0;
  HttpStream* currentStream = nullptr;
  asio::steady_timer waitTimer;
  base::Signal<bool> connectionChanged;
  base::TaskScope tasks;

  bool current(std::uint64_t g) const { return g == generation && !tasks.isClosed(); }

  void setConnected(bool value) {
    if (connected == value) return;
    connected = value;
    if (!tasks.isClosed()) connectionChanged.emit(value);
  }

  void stop() {
    if (!running) return;
    running = false;
    ++generation;
    if (currentStream) currentStream->cancel();
    waitTimer.cancel();
    setConnected(false);
  }

  void dispatch(const SSEMessage& message) {
    if (message.id) lastEventID = message.id;
    auto decoded = decodeDaemonEvent(message);
    if (!decoded) return;
    const DaemonEventPtr event = std::make_shared<const DaemonEvent>(std::move(*decoded));
    for (auto& [id, subscription] : subscribers) subscription->push(event);
  }

  // A resume point from another engine process is void (see Config::engineInstance).
  void checkEngineInstance() {
    if (!config.engineInstance) return;
    const auto now = config.engineInstance();
    fromNewEngineStart = false;
    if (lastEventID && readFrom && now != readFrom) {
      base::log::info(kSource,
                      "the engine changed since event {}; reading the new one's events "
                      "from its first",
                      *lastEventID);
      lastEventID = "0";
      fromNewEngineStart = true;
    }
    readFrom = now;
  }

  static asio::awaitable<void> readOnce(std::shared_ptr<Impl> self, std::uint64_t generation) {
    self->checkEngineInstance();
    DaemonClient::Query query;
    if (self->lastEventID) query.emplace_back("last_event_id", *self->lastEventID);
    HttpRequest request;
    request.method = "GET";
    request.target = DaemonClient::buildTarget({"events"}, query);
    request.headers = {{DaemonLocalPresence::headerName, self->config.presenceToken},
                       {"X-Tamsel-Desktop-Device-ID", self->config.desktopDeviceID},
                       {"Accept", "text/event-stream"}};
    auto stream = co_await self->session->open(self->config.port, std::move(request));
    if (!self->current(generation)) co_return;
    if (stream->status() != 200)
      throw TransportError("event stream answered with status " + std::to_string(stream->status()));
    stream->setIdleTimeout(self->config.silenceLimit);
    self->currentStream = stream.get();
    struct Clear {
      Impl* self;
      ~Clear() { self->currentStream = nullptr; }
    } clear{self.get()};
    self->setConnected(true);
    SSELineSplitter splitter;
    SSEParser parser;
    SSEMessage message;
    while (auto bytes = co_await stream->readSome()) {
      if (!self->current(generation)) co_return;
      splitter.feed(*bytes, [&](std::string_view line) {
        if (parser.feedLine(line, message)) self->dispatch(message);
      });
    }
  }

  static asio::awaitable<void> connectionLoop(std::shared_ptr<Impl> self,
                                              std::uint64_t generation) {
    EventStreamBackoff backoff;
    std::mt19937 random(std::random_device{}());
    std::uniform_real_distribution<double> jitter(0.0, 0.5);
    while (self->current(generation)) {
      const auto opened = std::chrono::steady_clock::now();
      self->lastFailure.reset();
      try {
        co_await readOnce(self, generation);
      } catch (const std::exception& e) {
        if (!self->current(generation)) co_return;
        base::log::info(kSource, "stream ended: {}", e.what());
        self->lastFailure = e.what();
      }
      if (!self->current(generation)) co_return;
      self->setConnected(false);
      const double lived =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - opened).count();
      const double wait = backoff.afterConnection(lived) + jitter(random);
      self->waitTimer.expires_after(std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::duration<double>(wait)));
      boost::system::error_code ec;
      co_await self->waitTimer.async_wait(asio::redirect_error(asio::use_awaitable, ec));
    }
  }
};

EventStreamClient::EventStreamClient(asio::any_io_executor executor, Config config,
                                     std::shared_ptr<HttpSession> session)
    : impl_(std::make_shared<Impl>(std::move(executor), std::move(config), std::move(session))) {}

EventStreamClient::~EventStreamClient() {
  impl_->stop();
  impl_->tasks.close();
  for (auto& [id, subscription] : impl_->subscribers) subscription->finish();
  impl_->subscribers.clear();
}

EventStreamClient::Subscription EventStreamClient::subscribe() {
  Subscription subscription{base::newUUIDString(), std::make_shared<EventSubscription>()};
  impl_->subscribers.emplace(subscription.id, subscription.events);
  if (!impl_->running) start();
  return subscription;
}

void EventStreamClient::unsubscribe(const std::string& id) {
  auto it = impl_->subscribers.find(id);
  if (it == impl_->subscribers.end()) return;
  it->second->finish();
  impl_->subscribers.erase(it);
}

std::map<std::string, std::uint64_t> EventStreamClient::droppedCounts() const {
  std::map<std::string, std::uint64_t> counts;
  for (const auto& [id, subscription] : impl_->subscribers) counts[id] = subscription->dropped();
  return counts;
}

void EventStreamClient::start() {
  if (impl_->running) return;
  impl_->running = true;
  const auto generation = ++impl_->generation;
  impl_->tasks.spawn(Impl::connectionLoop(impl_, generation), kSource);
}

void EventStreamClient::stop() { impl_->stop(); }

bool EventStreamClient::isRunning() const { return impl_->running; }
bool EventStreamClient::isConnected() const { return impl_->connected; }
bool EventStreamClient::readsNewEngineFromStart() const { return impl_->fromNewEngineStart; }

const std::optional<std::string>& EventStreamClient::lastEventID() const {
  return impl_->lastEventID;
}
const std::optional<std::string>& EventStreamClient::lastFailure() const {
  return impl_->lastFailure;
}
base::Signal<bool>& EventStreamClient::connectionChanged() { return impl_->connectionChanged; }

void EventStreamClient::dispatch(const SSEMessage& message) { impl_->dispatch(message); }

}  // namespace tamsel::bridge
