#pragma once
// Markdown for the terminal: headings, emphasis, lists, quotes, code blocks and tables (md4c
// parses; this lays out), wrapped at word boundaries to the terminal's width. With colour, styles
// are ANSI escapes; without, the text stays plain and readable (headings underlined with "=",
// code indented, tables drawn with "|").
#include <cstddef>
#include <ostream>
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

// At most `width` columns of `text`, cut at a character boundary, "…" marking the cut.
std::string fitToWidth(std::string_view text, std::size_t width);

// Where a streamed reply can be cut so that the text before the cut renders on its own: the end
// of the last blank line outside a code fence, or 0 when there is none yet.
std::size_t lastBlockBoundary(std::string_view markdown);

// Rows a text takes on a terminal this wide, from its first row to where the cursor ends.
std::size_t terminalRowsOf(std::string_view text, std::size_t columns);

// A reply written to a terminal as it arrives (without a line editor): each finished block is
// printed rendered; the block still being written is shown as it is, word by word, and replaced
// by its rendering once complete.
class LiveMarkdown {
 public:
  LiveMarkdown(std::ostream& out, MarkdownStyle style) : out_(out), style_(style) {}
  void append(std::string_view text);
  // Takes the open block off the screen so that other output can be printed; resume() shows it
  // again below that output.
  void suspend();
  void resume();
  // Prints what is left, rendered; the output ends at the start of a line.
  void finish();
  bool empty() const { return pending_.empty(); }

 private:
  void drawOpen();
  std::ostream& out_;
  MarkdownStyle style_;
  std::string pending_;  // the block still being written
  std::size_t openRows_ = 0;
  bool shown_ = false;
};

}  // namespace tamsel::cli
