#pragma once
// Serves the engine's requests to the desktop. handle() never throws: every failure becomes a
// result with `ok` false and an error code from ProtocolConstants::ErrorCode.
//
// The calendar methods are served only when a calendar provider is given; without one they
// answer like any other unknown method ("not_found", "Unknown method: <name>") and
// system.capabilities does not list them, so the engine never sees a method advertised that
// would then fail.
#include <boost/asio/awaitable.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/bridge/rpc/messages.hpp"

namespace tamsel::calendar {
class CalendarProvider;
}

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
  explicit DesktopRPCMethodDispatcher(Platform platform) : platform_(std::move(platform)) {}
  DesktopRPCMethodDispatcher(Platform platform, std::shared_ptr<calendar::CalendarProvider> calendar)
      : platform_(std::move(platform)), calendar_(std::move(calendar)) {}
  virtual ~DesktopRPCMethodDispatcher() = default;

  const Platform& platform() const { return platform_; }
  const std::shared_ptr<calendar::CalendarProvider>& calendar() const { return calendar_; }
  // The methods served, as system.capabilities reports them.
  std::vector<std::string_view> methods() const;

  // Runs on the service's executor; a slow handler holds up the requests behind it.
  virtual boost::asio::awaitable<RPCResult> handle(RPCRequest request);
  // The built-in methods, answered at once.
  RPCResult handleBuiltIn(const RPCRequest& request) const;

 private:
  Platform platform_;
  std::shared_ptr<calendar::CalendarProvider> calendar_;
};

}  // namespace tamsel::bridge::rpc
