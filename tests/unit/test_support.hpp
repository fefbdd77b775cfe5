#pragma once
// Helpers shared by the unit tests.
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>

#include "tamsel/base/uuid.hpp"

namespace tamsel::test {

class TempDir {
 public:
  TempDir()
      : path_(std::filesystem::temp_directory_path() / ("tamsel-test-" + base::newUUIDString())) {
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Runs a coroutine to completion on a fresh io_context, bounded in time so a hang fails the test.
template <class T>
T runAsync(boost::asio::awaitable<T> work, std::chrono::seconds limit = std::chrono::seconds(20)) {
  boost::asio::io_context io;
  std::optional<T> result;
  std::exception_ptr failure;
  boost::asio::co_spawn(io, std::move(work), [&](std::exception_ptr e, T value) {
    failure = e;
    if (!e) result = std::move(value);
  });
  io.run_for(limit);
  if (failure) std::rethrow_exception(failure);
  if (!result) throw std::runtime_error("the operation did not finish in time");
  return std::move(*result);
}

// Runs the loop until `done` holds or the limit passes; a loop that ran out of work is restarted.
inline void runUntil(boost::asio::io_context& io, const std::function<bool()>& done,
                     std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    if (io.stopped()) io.restart();
    io.run_for(std::chrono::milliseconds(10));
  }
}

}  // namespace tamsel::test
