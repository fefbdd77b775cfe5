#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"

#include <sys/utsname.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tamsel/base/version.hpp"
#include "tamsel/bridge/rpc/protocol_constants.hpp"

namespace tamsel::bridge::rpc {

namespace Method = ProtocolConstants::Method;

std::string Platform::describeOS(std::string_view osReleaseText, std::string_view kernelRelease) {
  std::string pretty;
  std::istringstream lines{std::string(osReleaseText)};
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("PRETTY_NAME=")) continue;
    pretty = line.substr(12);
    if (pretty.size() >= 2 && (pretty.front() == '"' || pretty.front() == '\'') &&
        pretty.back() == pretty.front())
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
  return Platform{"Linux", describeOS(osRelease, kernel), std::string(base::appVersion())};
}

void DesktopRPCMethodDispatcher::registerMethod(std::string name, Handler handler) {
  for (auto& entry : table_) {
    if (entry.name == name) {
      entry.handler = std::move(handler);
      return;
    }
  }
  table_.push_back({std::move(name), std::move(handler)});
}

std::vector<std::string_view> DesktopRPCMethodDispatcher::methods() const {
  std::vector<std::string_view> names{Method::systemPing, Method::systemCapabilities};
  for (const auto& entry : table_) names.push_back(entry.name);
  return names;
}

boost::asio::awaitable<RPCResult> DesktopRPCMethodDispatcher::handle(RPCRequest request) {
  const auto entry = std::find_if(table_.begin(), table_.end(),
                                  [&](const Entry& e) { return e.name == request.method; });
  if (entry == table_.end()) co_return handleBuiltIn(request);
  // Held here: the table may change while the handler runs.
  const Handler handler = entry->handler;
  const std::string requestID = request.requestID;
  std::string failure;
  try {
    co_return co_await handler(std::move(request));
  } catch (const std::exception& e) {
    failure = e.what();
  }
  // The channel must never see a throw.
  co_return RPCResult::failure(requestID,
                               RPCError{std::string(ProtocolConstants::ErrorCode::internalError),
                                        std::move(failure), false, std::nullopt});
}

RPCResult DesktopRPCMethodDispatcher::handleBuiltIn(const RPCRequest& request) const {
  if (request.method == Method::systemPing) {
    return RPCResult::success(
        request.requestID,
        JSONValue::object({{"echo", "pong"}, {"server_time", rpcTimestampNow()}}));
  }
  if (request.method == Method::systemCapabilities) {
    JSONValue::Array names;
    for (auto name : methods()) names.emplace_back(name);
    return RPCResult::success(
        request.requestID,
        JSONValue::object(
            {{"version", ProtocolConstants::protocolVersion},
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
