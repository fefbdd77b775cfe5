#pragma once
// Checks of what people type on the command line, with the error a person reads. Free of the
// parser so that every command's options share one rule per kind of value.
#include <optional>
#include <string>
#include <vector>

namespace tamsel::cli {

// Empty when `text` is a TCP port (1–65535), else what is wrong with it.
std::string portProblem(const std::string& text);

// Empty when `text` is a colour "#RRGGBB", else what is wrong with it.
std::string colourProblem(const std::string& text);

// Empty when `text` is a grace period in seconds, 0 to 3600, else what is wrong with it.
std::string graceSecondsProblem(const std::string& text);

// A calendar range bound as an RFC 3339 time with offset. A plain date (2026-03-01) is a whole
// day in the local zone: its start for a range's start, the next day's start for its end.
// Throws std::invalid_argument with the reason for anything else.
std::string calendarBound(const std::string& text, bool isEnd);

// The candidate closest to a mistyped `word` (a few edits, or a prefix), if any is close.
std::optional<std::string> closestName(const std::string& word,
                                       const std::vector<std::string>& candidates);

}  // namespace tamsel::cli
