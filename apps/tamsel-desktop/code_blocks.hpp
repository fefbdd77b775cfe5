#pragma once
// The fenced code blocks of a Markdown text, read with the same parser Qt renders it with, so
// each block shown can be copied on its own: its code exactly, without fences or language tag.
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::desktopui {

struct FencedCodeBlock {
  std::string code;  // without the final line break
  int lines = 0;     // lines of code, as the rendered document has them
  bool operator==(const FencedCodeBlock&) const = default;
};

std::vector<FencedCodeBlock> fencedCodeBlocks(std::string_view markdown);

}  // namespace tamsel::desktopui
