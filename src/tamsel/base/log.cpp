#include "tamsel/base/log.hpp"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <string>

namespace tamsel::base::log {

namespace {

spdlog::level::level_enum toSpd(Level level) {
  switch (level) {
    case Level::trace: return spdlog::level::trace;
    case Level::debug: return spdlog::level::debug;
    case Level::info: return spdlog::level::info;
    case Level::warn: return spdlog::level::warn;
    case Level::error: return spdlog::level::err;
  }
  return spdlog::level::info;
}

spdlog::logger& logger() {
  static std::shared_ptr<spdlog::logger> instance = [] {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    auto made = std::make_shared<spdlog::logger>("tamsel", sink);
    made->set_pattern("%H:%M:%S.%e %^%l%$ %v");
    const char* env = std::getenv("TAMSEL_LOG");
    made->set_level(env ? spdlog::level::from_str(env) : spdlog::level::warn);
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
