#pragma once
// Running one coroutine to completion on the command's io_context.
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <exception>
#include <optional>

namespace tamsel::cli {

template <class T>
T runToEnd(boost::asio::io_context& io, boost::asio::awaitable<T> work) {
  std::optional<T> result;
  std::exception_ptr failure;
  boost::asio::co_spawn(io, std::move(work), [&](std::exception_ptr e, T value) {
    if (e) failure = e;
    else result = std::move(value);
    io.stop();
  });
  io.restart();
  io.run();
  if (failure) std::rethrow_exception(failure);
  return std::move(*result);
}

}  // namespace tamsel::cli
