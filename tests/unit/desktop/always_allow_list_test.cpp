// The always-allowed tools: reading, revoking one or all, overlapping requests and failures.
#include "tamsel/desktop/always_allow_list.hpp"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/json.hpp>

#include "gated_calls.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"

namespace tamsel::desktop {
namespace {

namespace json = boost::json;
using Request = std::pair<std::string, std::optional<bridge::JSON>>;
using Tools = std::vector<std::string>;

json::value listOf(std::initializer_list<const char*> tools) {
  json::array names;
  for (const auto* t : tools) names.emplace_back(t);
  return json::value{{"tools", names}};
}

class AlwaysAllowListTest : public ::testing::Test {
 protected:
  void settle() {
    io.restart();
    io.poll();
  }
  boost::asio::io_context io;
  base::AsioMainExecutor main{io};
  test::GatedCalls<Request, bridge::JSON> engine{io.get_executor()};
  AlwaysAllowList list{main, [this](std::string method, std::optional<bridge::JSON> body) {
                         return engine({std::move(method), std::move(body)});
                       }};
};

TEST_F(AlwaysAllowListTest, ReadsTheListThenRevokesOneAndThenAll) {
  EXPECT_FALSE(list.state().loaded);
  list.start();
  settle();
  ASSERT_EQ(engine.calls.size(), 1u);
  EXPECT_EQ(engine.calls[0]->request.first, "GET");
  EXPECT_FALSE(engine.calls[0]->request.second);
  EXPECT_TRUE(list.state().busy);
  engine.answer(0, listOf({"read_file", "bash", "web_fetch"}));
  settle();
  EXPECT_TRUE(list.state().loaded);
  EXPECT_FALSE(list.state().busy);
  EXPECT_EQ(list.state().tools, (Tools{"read_file", "bash", "web_fetch"}));

  list.revoke("bash");
  settle();
  ASSERT_EQ(engine.calls.size(), 2u);
  EXPECT_EQ(engine.calls[1]->request.first, "DELETE");
  EXPECT_EQ(engine.calls[1]->request.second, (json::value{{"tools", json::array{"bash"}}}));
  engine.answer(1, listOf({"read_file", "web_fetch"}));
  settle();
  EXPECT_EQ(list.state().tools, (Tools{"read_file", "web_fetch"}));

  // All at once: a DELETE naming no tool.
  list.revokeAll();
  settle();
  ASSERT_EQ(engine.calls.size(), 3u);
  EXPECT_EQ(engine.calls[2]->request.first, "DELETE");
  EXPECT_FALSE(engine.calls[2]->request.second);
  engine.answer(2, listOf({}));
  settle();
  EXPECT_TRUE(list.state().tools.empty());
}

TEST_F(AlwaysAllowListTest, OnlyTheLatestRequestsAnswerIsShown) {
  list.refresh();
  settle();
  engine.answer(0, listOf({"a", "b", "c"}));
  settle();
  list.revoke("a");
  list.revoke("b");
  settle();
  ASSERT_EQ(engine.calls.size(), 3u);
  // The second revoke's answer comes first; the first's, out of date by then, comes after.
  engine.answer(2, listOf({"c"}));
  settle();
  EXPECT_TRUE(list.state().busy) << "the first revoke is still on its way";
  engine.answer(1, listOf({"b", "c"}));
  settle();
  EXPECT_EQ(list.state().tools, Tools{"c"});
  EXPECT_FALSE(list.state().busy);
}

TEST_F(AlwaysAllowListTest, FailuresSayWhatFailedAndKeepTheList) {
  list.refresh();
  settle();
  engine.answer(0, listOf({"bash"}));
  settle();
  list.revoke("bash");
  settle();
  engine.fail(1, bridge::TransportError("connection refused"));
  settle();
  ASSERT_TRUE(list.state().error);
  EXPECT_EQ(list.state().error->rfind("Could not revoke bash: ", 0), 0u) << *list.state().error;
  EXPECT_NE(list.state().error->find("connection refused"), std::string::npos);
  EXPECT_EQ(list.state().tools, Tools{"bash"});

  // An answer without a list is a failure too; the next good answer clears the error.
  list.refresh();
  settle();
  engine.answer(2, json::value{{"ok", true}});
  settle();
  ASSERT_TRUE(list.state().error);
  EXPECT_NE(list.state().error->find("no tool list"), std::string::npos);
  list.refresh();
  settle();
  engine.answer(3, listOf({"bash"}));
  settle();
  EXPECT_FALSE(list.state().error);
}

TEST(AlwaysAllowListReply, OnlyAListOfNamesIsAccepted) {
  EXPECT_EQ(AlwaysAllowList::toolsFrom(json::parse(R"({"tools": ["a", "b"]})")), (Tools{"a", "b"}));
  EXPECT_THROW(AlwaysAllowList::toolsFrom(json::parse(R"({"tools": "a"})")), std::runtime_error);
  EXPECT_THROW(AlwaysAllowList::toolsFrom(json::parse(R"({"tools": ["a", 3]})")),
               std::runtime_error);
  EXPECT_THROW(AlwaysAllowList::toolsFrom(json::parse(R"(["a"])")), std::runtime_error);
}

}  // namespace
}  // namespace tamsel::desktop
