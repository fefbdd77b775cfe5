#pragma once
// The marker in front of user text injected into a reply that is still running, so the agent can
// tell it apart from tool output. It is added when sending and taken off wherever the text is
// shown.
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::kit {

struct InjectedMessagePrefix {
  static constexpr std::string_view text = "[New message from user]\n";  // 24 characters

  // prefix + message
  static std::string apply(std::string_view message);
  // Several items injected at once: one prefixed block per item, blocks separated by "\n\n".
  static std::string applyEach(const std::vector<std::string>& messages);
  // The text without the prefix when it starts with the whole prefix (newline included);
  // otherwise unchanged.
  static std::string strip(std::string_view text);
  // Trims blanks and line ends first, then strips. The rest is not trimmed again.
  static std::string stripTrimmed(std::string_view text);
};

}  // namespace tamsel::kit
