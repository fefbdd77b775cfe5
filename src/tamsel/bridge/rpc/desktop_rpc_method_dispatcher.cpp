#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"

#include <sys/utsname.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tamsel/bridge/rpc/protocol_constants.hpp"
#include "tamsel/calendar/calendar_provider.hpp"

namespace tamsel::bridge::rpc {

namespace Method = ProtocolConstants::Method;

std::string Platform::describeOS(std::string_view osReleaseText, std::string_view kernelRelease) {
  std::string pretty;
  std::istringstream lines{std::string(osReleaseText)};
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("PRETTY_NAME=")) continue;
    pretty = line.substr(12);
    if (pretty.size() >= 2 && (pretty.front() == '"' || pretty.front() == '\'') && pretty.back() == pretty.front())
      pretty = pretty.substr(1, pretty.size() - 2);
  }
  if (pretty.empty()) pretty = "Linux";
  if (kernelRelease.empty()) return pretty;
  return pretty + " (kernel " + std::string(kernelRelease) + ")";
}

Platform Platform::current() {
  std::string osRelease;
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in) continue;
    std::ostringstream text;
    text << in.rdbuf();
    osRelease = text.str();
    break;
  }
  utsname names{};
  const std::string kernel = ::uname(&names) == 0 ? names.release : "";
  return Platform{"Linux", describeOS(osRelease, kernel), TAMSEL_VERSION};
}

std::vector<std::string_view> DesktopRPCMethodDispatcher::methods() const {
  if (!calendar_) return {Method::systemPing, Method::systemCapabilities};
  return {Method::systemPing,          Method::systemCapabilities,      Method::calendarListSources,
          Method::calendarListEvents,  Method::calendarGetEvent,        Method::calendarCheckPermission,
          Method::calendarRequestPermission, Method::calendarCreateEvent, Method::calendarUpdateEvent,
          Method::calendarDeleteEvent};
}

boost::asio::awaitable<RPCResult> DesktopRPCMethodDispatcher::handle(RPCRequest request) {
  const auto served = methods();
  const bool isCalendar = request.method.starts_with("calendar.") &&
                          std::find(served.begin(), served.end(), request.method) != served.end();
  if (!isCalendar) co_return handleBuiltIn(request);
  // Every failure, expected or not, becomes an answer: the channel must never see a throw.
  std::optional<RPCError> failure;
  try {
    const auto provider = calendar_;
    std::string method = request.method;
    JSONValue params = request.params;
    const std::int64_t timeoutMs = request.timeoutMs;
    JSONValue result = co_await provider->handle(std::move(method), std::move(params), timeoutMs);
    co_return RPCResult::success(request.requestID, std::move(result));
  } catch (const calendar::CalendarException& e) {
    failure = e.error().toRPCError();
  } catch (const std::exception& e) {
    failure = calendar::CalendarRPCError::internalError(e.what()).toRPCError();
  }
  co_return RPCResult::failure(request.requestID, std::move(*failure));
}

RPCResult DesktopRPCMethodDispatcher::handleBuiltIn(const RPCRequest& request) const {
  if (request.method == Method::systemPing) {
    return RPCResult::success(request.requestID,
                              JSONValue::object({{"echo", "pong"}, {"server_time", rpcTimestampNow()}}));
  }
  if (request.method == Method::systemCapabilities) {
    JSONValue::Array names;
    for (auto name : methods()) names.emplace_back(name);
    return RPCResult::success(
        request.requestID,
        JSONValue::object({{"version", ProtocolConstants::protocolVersion},
                           {"methods", std::move(names)},
                           {"platform", JSONValue::object({{"os", platform_.os},
                                                           {"os_version", platform_.osVersion},
                                                           {"app_version", platform_.appVersion}})}}));
  }
  return RPCResult::failure(request.requestID,
                            RPCError{std::string(ProtocolConstants::ErrorCode::notFound),
                                     "Unknown method: " + request.method, false, std::nullopt});
}

}  // namespace tamsel::bridge::rpc
