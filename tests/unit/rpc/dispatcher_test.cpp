// The built-in methods and what every other method gets.
#include <gtest/gtest.h>

#include <boost/json/value.hpp>

#include "../test_support.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/base/version.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"

namespace tamsel::bridge::rpc {
namespace {

RPCResult call(std::string method, std::string id = "r1") {
  DesktopRPCMethodDispatcher dispatcher(
      Platform{"Linux", "Debian GNU/Linux 12 (bookworm) (kernel 6.1.0)", "0.1.0"});
  RPCRequest request{
      std::move(id), std::move(method), JSONValue::object({}), 1000, "s", "main", "verd", "t"};
  return test::runAsync(dispatcher.handle(request));
}

TEST(DesktopRPCMethodDispatcher, PingEchoesWithTheDesktopsTime) {
  const auto result = call("system.ping", "ping-7");
  EXPECT_EQ(result.requestID, "ping-7");
  EXPECT_TRUE(result.ok);
  EXPECT_FALSE(result.error);
  EXPECT_EQ(*result.result->find("echo"), JSONValue("pong"));
  const auto* time = result.result->find("server_time")->ifString();
  EXPECT_TRUE(time && base::parseISO8601(*time) && time->find('.') != std::string::npos);
}

TEST(DesktopRPCMethodDispatcher, CapabilitiesListWhatIsServedAndThePlatform) {
  const auto result = call("system.capabilities");
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(
      result.result->serialize(),
      R"j({"methods":["system.ping","system.capabilities"],)j"
      R"j("platform":{"app_version":"0.1.0","os":"Linux","os_version":"Debian GNU/Linux 12 (bookworm) (kernel 6.1.0)"},)j"
      R"j("version":"1.0.0"})j");
}

TEST(DesktopRPCMethodDispatcher, OtherMethodsAreUnknownIncludingTheCalendarForNow) {
  for (const char* method :
       {"calendar.list_events", "calendar.request_permission", "system.Ping", ""}) {
    const auto result = call(method);
    EXPECT_FALSE(result.ok) << method;
    EXPECT_FALSE(result.result) << method;
    ASSERT_TRUE(result.error) << method;
    EXPECT_EQ(result.error->code, "not_found");
    EXPECT_EQ(result.error->message, std::string("Unknown method: ") + method);
    EXPECT_FALSE(result.error->retriable);
    EXPECT_FALSE(result.error->details);
    EXPECT_EQ(result.toJSON().at("error").as_object().size(), 3u);
  }
}

TEST(Platform, DescribesTheDistributionAndKernel) {
  EXPECT_EQ(Platform::describeOS(
                "NAME=\"Debian\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n", "6.1.0-18"),
            "Debian GNU/Linux 12 (bookworm) (kernel 6.1.0-18)");
  EXPECT_EQ(Platform::describeOS("PRETTY_NAME=Arch\n", ""), "Arch");
  EXPECT_EQ(Platform::describeOS("", "6.8"), "Linux (kernel 6.8)");
  const auto here = Platform::current();
  EXPECT_EQ(here.os, "Linux");
  EXPECT_FALSE(here.osVersion.empty());
  EXPECT_EQ(here.appVersion, base::appVersion());
  // The version the engine is told names the revision when the build knows it.
  const std::string expected =
      std::string(base::projectVersion()) + (base::sourceRevision().empty()
                                                 ? std::string()
                                                 : "+git." + std::string(base::sourceRevision()));
  EXPECT_EQ(base::appVersion(), expected);
}

}  // namespace
}  // namespace tamsel::bridge::rpc
