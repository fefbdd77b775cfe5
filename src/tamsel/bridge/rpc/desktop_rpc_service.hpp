#pragma once
// The desktop's side of the engine's RPC channel: connects to the engine's socket, proves that
// both speak the same protocol version, announces the desktop ("desktop_online") and then
// serves the engine's requests one at a time, in arrival order, until the connection ends.
//
// Lives on one executor (the main executor in the app): every method must be called there, and
// `changed` fires there whenever isOnline() or lastError() changes. The service has no timer of
// its own for reconnecting; its owner calls start() again (DaemonManager does, after starting
// or reusing the engine).
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

#include "tamsel/base/error.hpp"
#include "tamsel/base/signal.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"
#include "tamsel/bridge/rpc/messages.hpp"
#include "tamsel/bridge/rpc/protocol_constants.hpp"

namespace tamsel::bridge::rpc {

struct ServiceError {
  static constexpr std::string_view category = "rpc_service";
  struct HandshakeFailed {
    std::string reason;
  };
  struct ProtocolMismatch {
    std::string expected;
    std::string got;
  };
  struct TransportClosed {
    std::string reason;  // a code, "desktop_disconnected"
  };
  std::variant<HandshakeFailed, ProtocolMismatch, TransportClosed> value;

  std::string description() const;
  std::string code() const;
};

using ServiceException = base::ErrorOf<ServiceError>;

class DesktopRPCService {
 public:
  struct Options {
    std::filesystem::path socketPath;   // the engine's "daemon.sock"
    std::filesystem::path pidfilePath;  // the engine's "daemon.pid"
    std::string expectedProtocolVersion{ProtocolConstants::protocolVersion};
    double handshakeTimeoutSeconds = 3.0;
    int connectAttempts = 30;
    double connectRetryDelaySeconds = 0.1;
  };

  DesktopRPCService(boost::asio::any_io_executor executor,
                    std::shared_ptr<DesktopRPCMethodDispatcher> dispatcher, Options options);
  // Ends the connection; waiters fail with "desktop_disconnected". May be called at any moment
  // on the service's executor: a start() or a served request still running ends without
  // touching anything outside the service.
  ~DesktopRPCService();
  DesktopRPCService(const DesktopRPCService&) = delete;
  DesktopRPCService& operator=(const DesktopRPCService&) = delete;

  // Connect, handshake, announce, serve. Returns once online with the read loop running.
  // Throws ServiceException or TransportException, leaving the service offline with lastError
  // set. A connection already up is replaced.
  boost::asio::awaitable<void> start();
  // Ends the connection and fails every waiter with "desktop_disconnected".
  void stop();
  // Sends one desktop event (calendar changes) while online. False when offline or when the
  // send failed (logged); an event is never queued for a later connection.
  boost::asio::awaitable<bool> sendEvent(DesktopEvent event);

  bool isOnline() const;
  // The last failure in words; cleared when the service comes online.
  const std::optional<std::string>& lastError() const;
  // True when the last attempt failed because the engine speaks another protocol version
  // (retrying against the same engine is pointless).
  bool refusedProtocolVersion() const;
  // True while start() is connecting or handshaking.
  bool isStarting() const;
  base::Signal<>& changed();
  const Options& options() const;

  // The handshake request: "drpc_" and 16 random characters as its id, "system.capabilities",
  // empty params, 5000 ms, "sess_reconciliation", "desktop-rpc-service", "tamsel", now.
  static RPCRequest makeHandshakeRequest();
  // The version a handshake result reports; throws handshakeFailed("daemon system.capabilities
  // response malformed or error: ...") unless `ok` and a string "version" in an object.
  static std::string handshakeVersion(const RPCResult& result);
  // One short connection that asks the engine's protocol version and leaves without announcing
  // the desktop (for the reconciler and status reports). Throws like start().
  static boost::asio::awaitable<std::string> probeProtocolVersion(std::filesystem::path socketPath,
                                                                  double timeoutSeconds);

  struct Core;

 private:
  std::shared_ptr<Core> core_;
};

}  // namespace tamsel::bridge::rpc
