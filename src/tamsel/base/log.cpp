#include "tamsel/base/log.hpp"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/systemd_sink.h>
#include <spdlog/spdlog.h>

#include <string>

#include "tamsel/base/env.hpp"

namespace tamsel::base::log {

namespace {

spdlog::level::level_enum toSpd(Level level) {
  switch (level) {
    case Level::trace:
      return spdlog::level::trace;
    case Level::debug:
      return spdlog::level::debug;
    case Level::info:
      return spdlog::level::info;
    case Level::warn:
      return spdlog::level::warn;
    case Level::error:
      return spdlog::level::err;
  }
  return spdlog::level::info;
}

spdlog::logger& logger() {
  static std::shared_ptr<spdlog::logger> instance = [] {
    std::shared_ptr<spdlog::logger> made;
    // Started by the service manager with its output going to the journal: log there, with
    // levels the journal understands. Everywhere else stderr.
    if (env::get("JOURNAL_STREAM")) {
      made = std::make_shared<spdlog::logger>(
          "tamsel", std::make_shared<spdlog::sinks::systemd_sink_mt>("tamsel"));
      made->set_pattern("%v");
    } else {
      made = std::make_shared<spdlog::logger>("tamsel",
                                              std::make_shared<spdlog::sinks::stderr_sink_mt>());
      made->set_pattern("%H:%M:%S.%e %^%l%$ %v");
    }
    const auto level = env::get("TAMSEL_LOG");
    made->set_level(level ? spdlog::level::from_str(*level) : spdlog::level::warn);
    return made;
  }();
  return *instance;
}

}  // namespace

bool enabled(Level level) { return logger().should_log(toSpd(level)); }

void write(Level level, std::string_view source, std::string_view message) {
  logger().log(toSpd(level), "[{}] {}", source, message);
}

}  // namespace tamsel::base::log
