#pragma once
// What every command runs on: the main thread's io_context as the main executor, and the
// composition root built from the global options and the environment, read once here.
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <exception>
#include <memory>
#include <optional>

#include "cli.hpp"
#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/main_executor.hpp"

namespace tamsel::cli {

struct Runtime {
  explicit Runtime(const GlobalOptions& options, app::FrontEndHooks hooks = {},
                   desktop::DaemonManager::Config supervision = {});

  boost::asio::io_context io;
  base::AsioMainExecutor main{io};
  app::DesktopServices services;

  // Runs one coroutine on the loop until it ends; its exception is rethrown here.
  template <class T>
  T runToEnd(boost::asio::awaitable<T> work) {
    std::optional<T> result;
    std::exception_ptr failure;
    boost::asio::co_spawn(io, std::move(work), [&](std::exception_ptr e, T value) {
      if (e)
        failure = e;
      else
        result = std::move(value);
      io.stop();
    });
    io.restart();
    io.run();
    if (failure) std::rethrow_exception(failure);
    return std::move(*result);
  }
};

// `tamsel run`'s meetings: replays the job records left behind, and when the auto-record
// preference is on watches for meetings until the returned holder goes.
std::shared_ptr<void> startMeetingsForRun(Runtime& rt, bool asJSON);

}  // namespace tamsel::cli
