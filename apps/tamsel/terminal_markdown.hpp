#pragma once
// Markdown for the terminal: headings, emphasis, lists, quotes, code blocks and tables (md4c
// parses; this lays out), wrapped at word boundaries to the terminal's width. With colour, styles
// are ANSI escapes; without, the text stays plain and readable (headings underlined with "=",
// code indented, tables drawn with "|").
#include <cstddef>
#include <string>
#include <string_view>

namespace tamsel::cli {

struct MarkdownStyle {
  std::size_t width = 80;  // columns
  bool colour = false;
};

// The rendered text: one or more lines, each ending in '\n'.
std::string renderMarkdown(std::string_view markdown, const MarkdownStyle& style);

// Columns a text takes on the terminal (wide characters count two; escapes count none).
std::size_t displayWidth(std::string_view text);

// Where a streamed reply can be cut so that the text before the cut renders on its own: the end
// of the last blank line outside a code fence, or 0 when there is none yet.
std::size_t lastBlockBoundary(std::string_view markdown);

}  // namespace tamsel::cli
