#pragma once
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

namespace tamsel::bridge {

struct PidfileReader {
  // The PID in a pidfile: the text trimmed of white space and line ends at both ends, read as a
  // decimal signed 32-bit integer with an optional leading '+' or '-'. Anything else, an empty
  // text, an overflow, or a missing or unreadable file gives no value. Never throws.
  static std::optional<std::int32_t> read(const std::filesystem::path& pidfile) noexcept;
  static std::optional<std::int32_t> parse(std::string_view contents) noexcept;
  // A PID that can name one process: positive only. kill(2) reads 0 and negative values as
  // process groups (-1 as every process), so they must never reach a signal.
  static std::optional<std::int32_t> readProcessID(const std::filesystem::path& pidfile) noexcept;
};

}  // namespace tamsel::bridge
