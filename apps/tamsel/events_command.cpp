// tamsel events: follow the engine's event stream, across engine restarts.
#include <signal.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <iostream>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/event_stream_client.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;

int followEvents(const GlobalOptions& options, bool asJSON) {
  Runtime rt(options);
  auto& io = rt.io;
  auto& events = rt.services.eventStream();
  events.connectionChanged().connect([&](bool up) {
    std::string resume;
    if (up && events.readsNewEngineFromStart())
      resume = " (a new engine process: from its first event)";
    else if (up && events.lastEventID())
      resume = " (resuming after " + *events.lastEventID() + ")";
    std::cerr << (up ? "tamsel: connected to the event stream"
                     : "tamsel: event stream lost" +
                           (events.lastFailure() ? " (" + *events.lastFailure() + ")"
                                                 : std::string()) +
                           "; reconnecting")
              << resume << std::endl;
  });
  auto subscription = events.subscribe();
  asio::co_spawn(
      io,
      [&, stream = subscription.events]() -> asio::awaitable<void> {
        try {
          while (auto event = co_await stream->next()) {
            const auto& e = **event;
            if (asJSON) {
              boost::json::object line{{"event", e.wireName()},
                                       {"id", e.id ? boost::json::value(*e.id) : nullptr},
                                       {"data", e.data}};
              std::cout << base::json::serialize(line) << std::endl;
            } else {
              std::cout << (e.id ? "#" + *e.id + " " : std::string()) << e.wireName() << " "
                        << base::json::serialize(e.data) << std::endl;
            }
          }
        } catch (const std::exception& error) {
          printError(error.what());
        }
        io.stop();
      },
      asio::detached);
  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int) {
    if (!ec) io.stop();
  });
  io.run();
  events.stop();
  return kExitOK;
}

}  // namespace tamsel::cli
