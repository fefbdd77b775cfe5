#include "tamsel/kit/injected_message_prefix.hpp"

#include "tamsel/base/strings.hpp"

namespace tamsel::kit {

std::string InjectedMessagePrefix::apply(std::string_view message) {
  std::string out;
  out.reserve(text.size() + message.size());
  out.append(text);
  out.append(message);
  return out;
}

std::string InjectedMessagePrefix::applyEach(const std::vector<std::string>& messages) {
  std::vector<std::string> blocks;
  blocks.reserve(messages.size());
  for (const auto& message : messages) blocks.push_back(apply(message));
  return base::join(blocks, "\n\n");
}

std::string InjectedMessagePrefix::strip(std::string_view input) {
  if (base::startsWith(input, text)) input.remove_prefix(text.size());
  return std::string(input);
}

std::string InjectedMessagePrefix::stripTrimmed(std::string_view input) {
  return strip(base::trim(input));
}

}  // namespace tamsel::kit
