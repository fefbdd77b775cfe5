#include "code_blocks.hpp"

#include <md4c.h>

namespace tamsel::desktopui {

namespace {

// md4c hands a code line's leading white space over as spaces (tabs expanded, the fence's own
// indentation taken off) and the rest as a pointer into the text. The white space is read back
// from the text, so tabs reach the clipboard as typed.
std::string indentOf(const char* input, const char* lineContent, std::size_t columns) {
  const char* lineStart = lineContent;
  while (lineStart > input && lineStart[-1] != '\n' && lineStart[-1] != '\r') --lineStart;
  std::size_t column = 0;
  for (const char* p = lineStart; p < lineContent; ++p)
    column = *p == '\t' ? (column / 4 + 1) * 4 : column + 1;
  if (columns > column) return std::string(columns, ' ');
  const std::size_t from = column - columns;
  std::string out;
  column = 0;
  for (const char* p = lineStart; p < lineContent; ++p) {
    const std::size_t start = column;
    column = *p == '\t' ? (column / 4 + 1) * 4 : column + 1;
    if (column <= from) continue;
    if (*p != ' ' && *p != '\t') return std::string(columns, ' ');
    if (start >= from)
      out += *p;
    else
      out.append(column - from, ' ');  // a tab only partly inside the code
  }
  return out;
}

}  // namespace

std::vector<FencedCodeBlock> fencedCodeBlocks(std::string_view markdown) {
  struct State {
    std::string_view input;
    std::vector<FencedCodeBlock> blocks;
    bool inFence = false;
    std::size_t indent = 0;  // spaces md4c gave for the current line so far
    bool fromInput(const char* p) const {
      return p >= input.data() && p < input.data() + input.size();
    }
  } state{markdown};
  MD_PARSER parser{};
  // The dialect Qt's own Markdown reader uses.
  parser.flags = MD_DIALECT_GITHUB;
  parser.enter_block = [](MD_BLOCKTYPE type, void* detail, void* self) {
    auto& s = *static_cast<State*>(self);
    if (type == MD_BLOCK_CODE && static_cast<MD_BLOCK_CODE_DETAIL*>(detail)->fence_char) {
      s.inFence = true;
      s.indent = 0;
      s.blocks.emplace_back();
    }
    return 0;
  };
  parser.leave_block = [](MD_BLOCKTYPE type, void*, void* self) {
    auto& s = *static_cast<State*>(self);
    if (type == MD_BLOCK_CODE && s.inFence) {
      s.inFence = false;
      auto& block = s.blocks.back();
      for (char c : block.code) block.lines += c == '\n';
      if (!block.code.empty() && block.code.back() != '\n') ++block.lines;
      if (!block.code.empty() && block.code.back() == '\n') block.code.pop_back();
    }
    return 0;
  };
  parser.enter_span = [](MD_SPANTYPE, void*, void*) { return 0; };
  parser.leave_span = [](MD_SPANTYPE, void*, void*) { return 0; };
  parser.text = [](MD_TEXTTYPE type, const MD_CHAR* text, MD_SIZE size, void* self) {
    auto& s = *static_cast<State*>(self);
    if (!s.inFence) return 0;
    auto& code = s.blocks.back().code;
    const std::string_view chunk(text, size);
    if (s.fromInput(text)) {
      if (s.indent) code += indentOf(s.input.data(), text, s.indent);
      s.indent = 0;
      code += chunk;
    } else if (type != MD_TEXT_NULLCHAR && chunk.find_first_not_of(' ') == std::string_view::npos) {
      s.indent += size;
    } else {
      code.append(s.indent, ' ');  // a line of white space only
      s.indent = 0;
      code += type == MD_TEXT_NULLCHAR ? std::string_view("\uFFFD") : chunk;
    }
    return 0;
  };
  if (md_parse(markdown.data(), static_cast<MD_SIZE>(markdown.size()), &parser, &state) != 0)
    return {};
  return std::move(state.blocks);
}

}  // namespace tamsel::desktopui
