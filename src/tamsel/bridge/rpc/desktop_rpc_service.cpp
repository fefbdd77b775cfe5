#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <charconv>
#include <chrono>
#include <map>
#include <random>

#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/task_scope.hpp"
#include "tamsel/bridge/rpc/codec.hpp"
#include "tamsel/bridge/rpc/unix_socket_client.hpp"

namespace tamsel::bridge::rpc {

namespace asio = boost::asio;
namespace ErrorCode = ProtocolConstants::ErrorCode;

// g++ 12 can destroy a temporary inside a co_await expression twice: every argument of an
// awaited call here is a named local.

namespace {
constexpr const char* kSource = "DesktopRPCService";

std::chrono::nanoseconds toDuration(double seconds) {
  return std::chrono::nanoseconds(static_cast<std::int64_t>(seconds * 1e9));
}

// Seconds as people write them: "3.0", "0.25".
std::string formatSeconds(double seconds) {
  char buffer[32];
  auto end = std::to_chars(buffer, buffer + sizeof buffer, seconds).ptr;
  std::string text(buffer, end);
  if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
  return text;
}

std::string timedOutText(double seconds) {
  return "system.capabilities timed out after " + formatSeconds(seconds) + "s";
}

std::string randomAlphanumerics(std::size_t count) {
  static constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::mt19937_64 engine{std::random_device{}()};
  std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
  std::string out(count, ' ');
  for (auto& c : out) c = alphabet[pick(engine)];
  return out;
}

std::string frameBytes(const Frame& frame) { return LengthPrefixedCodec::encode(frame.encode()); }

ServiceException disconnected() {
  return ServiceException(
      {ServiceError::TransportClosed{std::string(ErrorCode::desktopDisconnected)}});
}
}  // namespace

std::string ServiceError::code() const {
  static const char* const names[] = {"handshake_failed", "protocol_mismatch", "transport_closed"};
  return base::caseName(value, names);
}

std::string ServiceError::description() const {
  if (const auto* e = std::get_if<HandshakeFailed>(&value)) return e->reason;
  if (const auto* e = std::get_if<ProtocolMismatch>(&value))
    return "protocol version mismatch (expected " + e->expected + ", got " + e->got + ")";
  return "transport closed: " + std::get<TransportClosed>(value).reason;
}

struct DesktopRPCService::Core : std::enable_shared_from_this<Core> {
  // A request the desktop sent, waiting for the engine's result. Whichever comes first of the
  // result, a failure and the time limit settles it; the timer doubles as the wake-up.
  struct Waiter {
    explicit Waiter(const asio::any_io_executor& executor)
        : timer(executor, asio::steady_timer::time_point::max()) {}
    asio::steady_timer timer;
    std::optional<RPCResult> result;
    std::optional<ServiceError> error;
    bool settled() const { return result || error; }
  };

  Core(asio::any_io_executor executor, std::shared_ptr<DesktopRPCMethodDispatcher> dispatcher,
       Options options)
      : executor(executor),
        dispatcher(std::move(dispatcher)),
        options(std::move(options)),
        transport(executor, this->options.socketPath),
        tasks(executor) {}

  asio::any_io_executor executor;
  std::shared_ptr<DesktopRPCMethodDispatcher> dispatcher;
  Options options;
  UnixSocketClient transport;
  std::map<std::string, std::shared_ptr<Waiter>> pending;
  bool online = false;
  bool starting = false;
  std::optional<std::string> lastError;
  bool refusedVersion = false;
  // Bumped whenever a connection is given up, so the tasks of an older one stand down.
  std::uint64_t generation = 0;
  // The connection whose read loop recorded the failure itself.
  std::uint64_t loopFailedGeneration = 0;
  base::Signal<> changed;
  base::TaskScope tasks;

  // Both observable fields change together, so observers never see one without the other.
  void publish(bool nowOnline, std::optional<std::string> error) {
    if (online == nowOnline && lastError == error) return;
    online = nowOnline;
    lastError = std::move(error);
    if (!tasks.isClosed()) changed.emit();
  }

  void failAllWaiters(const std::string& reason) {
    auto waiters = std::move(pending);
    pending.clear();
    for (auto& [id, waiter] : waiters) {
      waiter->error = ServiceError{ServiceError::TransportClosed{reason}};
      waiter->timer.cancel();
    }
  }

  void deliver(const RPCResult& result) {
    auto it = pending.find(result.requestID);
    if (it == pending.end()) {
      base::log::debug(kSource, "dropping a result for unknown request {}", result.requestID);
      return;
    }
    auto waiter = it->second;
    pending.erase(it);
    waiter->result = result;
    waiter->timer.cancel();
  }

  // The read loop's end: the engine went away or sent something unreadable.
  void connectionLost(const std::string& text) {
    base::log::warn(kSource, "{}", text);
    loopFailedGeneration = generation;
    transport.close();
    publish(false, text);
    failAllWaiters(std::string(ErrorCode::desktopDisconnected));
  }

  void stop() {
    ++generation;
    starting = false;
    transport.close();
    failAllWaiters(std::string(ErrorCode::desktopDisconnected));
    publish(false, lastError);
  }

  asio::awaitable<RPCResult> serve(RPCRequest request) {
    try {
      co_return co_await dispatcher->handle(request);
    } catch (const std::exception& e) {
      // Served requests never fail by exception, whatever a handler does.
      co_return RPCResult::failure(
          request.requestID,
          RPCError{std::string(ErrorCode::internalError), e.what(), false, std::nullopt});
    }
  }

  static asio::awaitable<void> serveLoop(std::shared_ptr<Core> core, std::uint64_t generation) {
    const LengthPrefixedCodec::AsyncRead read = [core](std::size_t n) {
      return core->transport.receive(n);
    };
    while (true) {
      Frame frame;
      try {
        const std::string body = co_await LengthPrefixedCodec::readFrame(read);
        frame = Frame::decode(body);
      } catch (const std::exception& e) {
        if (generation == core->generation)
          core->connectionLost(std::string("transport error: ") + e.what());
        co_return;
      }
      if (generation != core->generation) co_return;

      if (const auto* request = frame.ifRequest()) {
        // One request at a time: the next frame is read only once this result is on its way.
        const RPCRequest current = *request;
        RPCResult result = co_await core->serve(current);
        if (generation != core->generation) co_return;
        std::string bytes;
        try {
          bytes = frameBytes(Frame::rpcResult(result));
        } catch (const CodecException& e) {
          bytes = frameBytes(Frame::rpcResult(RPCResult::failure(
              current.requestID,
              RPCError{std::string(ErrorCode::internalError), e.what(), false, std::nullopt})));
        }
        try {
          co_await core->transport.send(bytes);
        } catch (const std::exception& e) {
          base::log::warn(kSource, "failed to send rpc result for {}: {}", current.requestID,
                          e.what());
        }
      } else if (const auto* result = frame.ifResult()) {
        core->deliver(*result);
      }
      // Events from the engine carry nothing for the desktop.
    }
  }

  asio::awaitable<void> start() {
    // A start that first runs after its service went has nobody to bring online.
    if (tasks.isClosed()) throw disconnected();
    if (online || starting) {
      // A fresh connection replaces the current one.
      stop();
    }
    const std::uint64_t attempt = ++generation;
    starting = true;
    try {
      const int attempts = options.connectAttempts;
      const auto delay = toDuration(options.connectRetryDelaySeconds);
      co_await transport.connect(attempts, delay);
      if (attempt != generation) throw disconnected();

      const RPCRequest request = makeHandshakeRequest();
      auto waiter = std::make_shared<Waiter>(executor);
      pending[request.requestID] = waiter;
      const std::string requestBytes = frameBytes(Frame::rpcRequest(request));
      co_await transport.send(requestBytes);
      if (attempt != generation) throw disconnected();
      tasks.spawn(serveLoop(shared_from_this(), attempt), kSource);

      if (!waiter->settled()) {
        waiter->timer.expires_after(toDuration(options.handshakeTimeoutSeconds));
        boost::system::error_code ignored;
        co_await waiter->timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
      }
      if (waiter->error) throw ServiceException(*waiter->error);
      if (!waiter->result) {
        pending.erase(request.requestID);
        throw ServiceException(
            {ServiceError::HandshakeFailed{timedOutText(options.handshakeTimeoutSeconds)}});
      }
      const std::string version = handshakeVersion(*waiter->result);
      if (version != options.expectedProtocolVersion)
        throw ServiceException(
            {ServiceError::ProtocolMismatch{options.expectedProtocolVersion, version}});

      const Platform& platform = dispatcher->platform();
      DesktopEvent announcement{
          std::string(ProtocolConstants::DesktopEvent::desktopOnline),
          JSONValue::object(
              {{"version", ProtocolConstants::protocolVersion},
               {"platform", JSONValue::object({{"os", platform.os},
                                               {"os_version", platform.osVersion},
                                               {"app_version", platform.appVersion}})}}),
          rpcTimestampNow()};
      const std::string eventBytes = frameBytes(Frame::event(announcement));
      co_await transport.send(eventBytes);
      if (attempt != generation || !transport.isConnected()) throw disconnected();

      starting = false;
      refusedVersion = false;
      base::log::info(kSource, "online with the engine at {}", options.socketPath.string());
      publish(true, std::nullopt);
    } catch (const std::exception& e) {
      if (attempt == generation) {
        ++generation;
        starting = false;
        transport.close();
        failAllWaiters(std::string(ErrorCode::desktopDisconnected));
        // When the read loop saw the connection end, its "transport error: ..." says more than
        // the handshake's "transport closed".
        const auto* service = dynamic_cast<const ServiceException*>(&e);
        const bool closed = service && std::holds_alternative<ServiceError::TransportClosed>(
                                           service->error().value);
        const bool loopSaidWhy = closed && loopFailedGeneration == attempt;
        refusedVersion = service && std::holds_alternative<ServiceError::ProtocolMismatch>(
                                        service->error().value);
        publish(false, loopSaidWhy ? lastError : std::optional<std::string>(e.what()));
        base::log::warn(kSource, "could not bring the channel online: {}",
                        lastError.value_or(e.what()));
      }
      throw;
    }
  }
};

DesktopRPCService::DesktopRPCService(asio::any_io_executor executor,
                                     std::shared_ptr<DesktopRPCMethodDispatcher> dispatcher,
                                     Options options)
    : core_(
          std::make_shared<Core>(std::move(executor), std::move(dispatcher), std::move(options))) {}

DesktopRPCService::~DesktopRPCService() {
  // Nobody observes a service that is going away.
  core_->tasks.close();
  core_->stop();
}

namespace {
// The core travels as a parameter, copied when the call is made: the service itself may be gone
// by the time the operation first runs.
asio::awaitable<void> startOn(std::shared_ptr<DesktopRPCService::Core> core) {
  co_await core->start();
}
}  // namespace

asio::awaitable<void> DesktopRPCService::start() { return startOn(core_); }

void DesktopRPCService::stop() { core_->stop(); }

namespace {
asio::awaitable<bool> sendEventOn(std::shared_ptr<DesktopRPCService::Core> core,
                                  DesktopEvent event) {
  if (!core->online) co_return false;
  const std::string bytes = frameBytes(Frame::event(event));
  try {
    co_await core->transport.send(bytes);
  } catch (const std::exception& e) {
    base::log::warn(kSource, "failed to send {}: {}", event.event, e.what());
    co_return false;
  }
  co_return true;
}
}  // namespace

asio::awaitable<bool> DesktopRPCService::sendEvent(DesktopEvent event) {
  return sendEventOn(core_, std::move(event));
}

bool DesktopRPCService::isOnline() const { return core_->online; }
bool DesktopRPCService::refusedProtocolVersion() const { return core_->refusedVersion; }
const std::optional<std::string>& DesktopRPCService::lastError() const { return core_->lastError; }
bool DesktopRPCService::isStarting() const { return core_->starting; }
base::Signal<>& DesktopRPCService::changed() { return core_->changed; }
const DesktopRPCService::Options& DesktopRPCService::options() const { return core_->options; }

RPCRequest DesktopRPCService::makeHandshakeRequest() {
  return RPCRequest{"drpc_" + randomAlphanumerics(16),
                    std::string(ProtocolConstants::Method::systemCapabilities),
                    JSONValue(JSONValue::Object{}),
                    5000,
                    "sess_reconciliation",
                    "desktop-rpc-service",
                    "tamsel",
                    rpcTimestampNow()};
}

std::string DesktopRPCService::handshakeVersion(const RPCResult& result) {
  if (result.ok && result.result) {
    if (const auto* version = result.result->find("version"); version && version->ifString())
      return *version->ifString();
  }
  throw ServiceException(
      {ServiceError::HandshakeFailed{"daemon system.capabilities response malformed or error: " +
                                     base::json::serialize(result.toJSON())}});
}

asio::awaitable<std::string> DesktopRPCService::probeProtocolVersion(
    std::filesystem::path socketPath, double timeoutSeconds) {
  const auto executor = co_await asio::this_coro::executor;
  auto client = std::make_shared<UnixSocketClient>(executor, socketPath);
  auto timedOut = std::make_shared<bool>(false);
  // One limit for the whole exchange: when it passes, closing the socket ends whatever waits.
  asio::steady_timer limit(executor);
  limit.expires_after(toDuration(timeoutSeconds));
  limit.async_wait([client, timedOut](const boost::system::error_code& ec) {
    if (ec) return;
    *timedOut = true;
    client->close();
  });
  try {
    const int attempts = 1;
    const std::chrono::nanoseconds noDelay{0};
    co_await client->connect(attempts, noDelay);
    const RPCRequest request = makeHandshakeRequest();
    const std::string bytes = frameBytes(Frame::rpcRequest(request));
    co_await client->send(bytes);
    const LengthPrefixedCodec::AsyncRead read = [client](std::size_t n) {
      return client->receive(n);
    };
    while (true) {
      const std::string body = co_await LengthPrefixedCodec::readFrame(read);
      const Frame frame = Frame::decode(body);
      // Anything else the engine sends on this short connection is not for us.
      if (const auto* result = frame.ifResult(); result && result->requestID == request.requestID) {
        limit.cancel();
        client->close();
        co_return handshakeVersion(*result);
      }
    }
  } catch (const std::exception&) {
    limit.cancel();
    client->close();
    if (*timedOut)
      throw ServiceException({ServiceError::HandshakeFailed{timedOutText(timeoutSeconds)}});
    throw;
  }
}

}  // namespace tamsel::bridge::rpc
