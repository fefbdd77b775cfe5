#include "tamsel/base/strings.hpp"

#include <cctype>

namespace tamsel::base {

namespace {
bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(char c) { return c >= 'a' && c <= 'z'; }
}  // namespace

std::string_view trim(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string snakeCase(std::string_view camel) {
  std::string out;
  out.reserve(camel.size() + 4);
  for (size_t i = 0; i < camel.size(); ++i) {
    const char c = camel[i];
    if (isUpper(c)) {
      const bool prevLowerOrDigit =
          i > 0 &&
          (isLower(camel[i - 1]) || std::isdigit(static_cast<unsigned char>(camel[i - 1])));
      const bool prevUpperNextLower =
          i > 0 && isUpper(camel[i - 1]) && i + 1 < camel.size() && isLower(camel[i + 1]);
      if (!out.empty() && out.back() != '_' && (prevLowerOrDigit || prevUpperNextLower)) {
        out.push_back('_');
      }
      out.push_back(static_cast<char>(c - 'A' + 'a'));
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out.append(separator);
    out.append(parts[i]);
  }
  return out;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::string byteSizeText(std::size_t bytes) {
  constexpr std::size_t mib = std::size_t(1) << 20;
  if (bytes >= mib && bytes % mib == 0) return std::to_string(bytes / mib) + " MiB";
  return std::to_string(bytes) + " bytes";
}

}  // namespace tamsel::base
