#pragma once
// Serves the engine's requests to the desktop. handle() never throws: every failure becomes a
// result with `ok` false and an error code from ProtocolConstants::ErrorCode.
//
// The channel knows only the built-in system methods. A feature the engine may call (the
// calendar, later the meeting and system methods) registers its methods into the table from
// above, before the service starts; system.capabilities lists exactly what is registered, so the
// engine never sees a method advertised that would then fail, and an unregistered name answers
// "not_found", "Unknown method: <name>".
#include <boost/asio/awaitable.hpp>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/bridge/rpc/messages.hpp"

namespace tamsel::bridge::rpc {

struct Platform {
  std::string os;         // "Linux"
  std::string osVersion;  // PRETTY_NAME of /etc/os-release and the kernel release
  std::string appVersion;

  // This machine and this build.
  static Platform current();
  // "<PRETTY_NAME> (kernel <release>)" from the given os-release text and kernel release;
  // either part may be missing.
  static std::string describeOS(std::string_view osReleaseText, std::string_view kernelRelease);
};

class DesktopRPCMethodDispatcher {
 public:
  // Answers one request. A handler should answer failures itself; one that throws is answered
  // "internal_error" with its message.
  using Handler = std::function<boost::asio::awaitable<RPCResult>(RPCRequest)>;

  explicit DesktopRPCMethodDispatcher(Platform platform) : platform_(std::move(platform)) {}
  virtual ~DesktopRPCMethodDispatcher() = default;

  const Platform& platform() const { return platform_; }
  // Adds (or replaces) a method. Call before the service starts, on its executor.
  void registerMethod(std::string name, Handler handler);
  // The methods served, as system.capabilities reports them: the built-in ones, then the
  // registered ones in the order they were added.
  std::vector<std::string_view> methods() const;

  // Runs on the service's executor; a slow handler holds up the requests behind it.
  virtual boost::asio::awaitable<RPCResult> handle(RPCRequest request);
  // The built-in methods, answered at once.
  RPCResult handleBuiltIn(const RPCRequest& request) const;

 private:
  struct Entry {
    std::string name;
    Handler handler;
  };
  Platform platform_;
  std::vector<Entry> table_;
};

}  // namespace tamsel::bridge::rpc
