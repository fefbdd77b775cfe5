#include "terminal_markdown.hpp"

#include <md4c.h>

#include <algorithm>
#include <cwchar>
#include <vector>

namespace tamsel::cli {

namespace {

constexpr const char* kReset = "\033[0m";

// A run of text with the styles active when it was written.
struct Piece {
  std::string text;
  std::string style;  // escape sequence, empty when plain
};

struct TableCell {
  std::vector<Piece> pieces;
};

class Renderer {
 public:
  explicit Renderer(const MarkdownStyle& style) : style_(style) {}

  std::string render(std::string_view markdown) {
    MD_PARSER parser{};
    parser.flags =
        MD_FLAG_TABLES | MD_FLAG_STRIKETHROUGH | MD_FLAG_PERMISSIVEAUTOLINKS | MD_FLAG_NOHTML;
    parser.enter_block = [](MD_BLOCKTYPE type, void* detail, void* self) {
      return static_cast<Renderer*>(self)->enterBlock(type, detail);
    };
    parser.leave_block = [](MD_BLOCKTYPE type, void* detail, void* self) {
      return static_cast<Renderer*>(self)->leaveBlock(type, detail);
    };
    parser.enter_span = [](MD_SPANTYPE type, void* detail, void* self) {
      return static_cast<Renderer*>(self)->enterSpan(type, detail);
    };
    parser.leave_span = [](MD_SPANTYPE type, void* detail, void* self) {
      return static_cast<Renderer*>(self)->leaveSpan(type, detail);
    };
    parser.text = [](MD_TEXTTYPE type, const MD_CHAR* text, MD_SIZE size, void* self) {
      return static_cast<Renderer*>(self)->onText(type, std::string_view(text, size));
    };
    if (md_parse(markdown.data(), static_cast<MD_SIZE>(markdown.size()), &parser, this) != 0)
      return std::string(markdown) + "\n";  // never lose the text, styled or not
    while (!out_.empty() && out_.back() == '\n' && out_.size() > 1 && out_[out_.size() - 2] == '\n')
      out_.pop_back();
    return out_;
  }

 private:
  struct ListLevel {
    bool ordered = false;
    unsigned next = 1;
  };

  // ---- blocks

  int enterBlock(MD_BLOCKTYPE type, void* detail) {
    // An item's own text (tight lists have no paragraph) ends where a nested block begins.
    if (!pieces_.empty() && type != MD_BLOCK_P && type != MD_BLOCK_H && !inCell_ &&
        type != MD_BLOCK_TH && type != MD_BLOCK_TD && type != MD_BLOCK_TR)
      flushParagraph();
    switch (type) {
      case MD_BLOCK_H:
        heading_ = static_cast<MD_BLOCK_H_DETAIL*>(detail)->level;
        startParagraph();
        break;
      case MD_BLOCK_P:
        startParagraph();
        break;
      case MD_BLOCK_UL:
        if (lists_.empty()) openContainer();
        lists_.push_back({false, 1});
        break;
      case MD_BLOCK_OL:
        if (lists_.empty()) openContainer();
        lists_.push_back({true, static_cast<MD_BLOCK_OL_DETAIL*>(detail)->start});
        break;
      case MD_BLOCK_LI: {
        auto& level = lists_.back();
        bullet_ = level.ordered ? std::to_string(level.next++) + ". " : "• ";
        startParagraph();
        break;
      }
      case MD_BLOCK_QUOTE:
        openContainer();
        ++quoteDepth_;
        break;
      case MD_BLOCK_CODE:
        inCode_ = true;
        code_.clear();
        break;
      case MD_BLOCK_HR:
        blankBefore();
        line(prefix(), std::string(std::min<std::size_t>(style_.width, 40), '-'), "\033[2m");
        break;
      case MD_BLOCK_TABLE:
        table_.clear();
        break;
      case MD_BLOCK_TR:
        table_.emplace_back();
        break;
      case MD_BLOCK_TH:
      case MD_BLOCK_TD:
        table_.back().emplace_back();
        inCell_ = true;
        break;
      default:
        break;
    }
    return 0;
  }

  int leaveBlock(MD_BLOCKTYPE type, void*) {
    switch (type) {
      case MD_BLOCK_H:
        flushParagraph();
        if (!style_.colour && heading_ <= 2) {
          const std::size_t w = std::min(lastLineWidth_, style_.width);
          line(prefix(), std::string(w, heading_ == 1 ? '=' : '-'), "");
        }
        heading_ = 0;
        break;
      case MD_BLOCK_P:
        flushParagraph();
        break;
      case MD_BLOCK_LI:
        if (!pieces_.empty()) flushParagraph();
        bullet_.clear();
        break;
      case MD_BLOCK_UL:
      case MD_BLOCK_OL:
        lists_.pop_back();
        break;
      case MD_BLOCK_QUOTE:
        --quoteDepth_;
        break;
      case MD_BLOCK_CODE:
        inCode_ = false;
        blankBefore();
        if (!code_.empty() && code_.back() == '\n') code_.pop_back();
        for (std::size_t start = 0; start <= code_.size();) {
          const auto end = std::min(code_.find('\n', start), code_.size());
          line(prefix() + "    ", code_.substr(start, end - start), "\033[36m");
          start = end + 1;
        }
        break;
      case MD_BLOCK_TH:
      case MD_BLOCK_TD:
        inCell_ = false;
        break;
      case MD_BLOCK_TABLE:
        renderTable();
        break;
      default:
        break;
    }
    return 0;
  }

  // ---- spans

  int enterSpan(MD_SPANTYPE type, void*) {
    switch (type) {
      case MD_SPAN_EM:
        styles_.push_back("\033[3m");
        if (!style_.colour) add("_");
        break;
      case MD_SPAN_STRONG:
        styles_.push_back("\033[1m");
        if (!style_.colour) add("**");
        break;
      case MD_SPAN_CODE:
        styles_.push_back("\033[36m");
        if (!style_.colour) add("`");
        break;
      case MD_SPAN_DEL:
        styles_.push_back("\033[9m");
        if (!style_.colour) add("~~");
        break;
      case MD_SPAN_A:
        styles_.push_back("\033[4m");
        break;
      default:
        styles_.push_back("");
        break;
    }
    return 0;
  }

  int leaveSpan(MD_SPANTYPE type, void*) {
    if (!style_.colour) {
      if (type == MD_SPAN_EM) add("_");
      if (type == MD_SPAN_STRONG) add("**");
      if (type == MD_SPAN_CODE) add("`");
      if (type == MD_SPAN_DEL) add("~~");
    }
    if (!styles_.empty()) styles_.pop_back();
    return 0;
  }

  int onText(MD_TEXTTYPE type, std::string_view text) {
    if (inCode_) {
      code_ += text;
      return 0;
    }
    switch (type) {
      case MD_TEXT_SOFTBR:
        add(" ");
        break;
      case MD_TEXT_BR:
        add("\n");
        break;
      case MD_TEXT_NULLCHAR:
        add("\xEF\xBF\xBD");
        break;
      case MD_TEXT_ENTITY:
        add(entity(text));
        break;
      default:
        add(std::string(text));
        break;
    }
    return 0;
  }

  // ---- layout

  void add(std::string text) {
    std::string style;
    if (style_.colour) {
      if (heading_) style += "\033[1m";
      for (const auto& s : styles_) style += s;
    }
    auto& into = inCell_ ? table_.back().back().pieces : pieces_;
    into.push_back({std::move(text), std::move(style)});
  }

  static std::string entity(std::string_view name) {
    if (name == "&amp;") return "&";
    if (name == "&lt;") return "<";
    if (name == "&gt;") return ">";
    if (name == "&quot;") return "\"";
    if (name == "&nbsp;") return " ";
    return std::string(name);
  }

  std::string prefix() const {
    std::string p;
    for (int i = 0; i < quoteDepth_; ++i) p += style_.colour ? "\033[2m│\033[0m " : "> ";
    if (!lists_.empty()) p += std::string((lists_.size() - 1) * 2, ' ');
    return p;
  }

  void blankBefore() {
    if (containerOpened_) {  // the container's own blank line came first
      containerOpened_ = false;
      return;
    }
    if (!out_.empty() && lists_.empty()) out_ += quoteDepth_ ? prefix() + "\n" : "\n";
  }

  // A list or quote: one blank line before it, none again before its first block.
  void openContainer() {
    blankBefore();
    containerOpened_ = true;
  }

  void startParagraph() {
    if (bullet_.empty()) blankBefore();
    pieces_.clear();
  }

  void line(const std::string& lead, const std::string& text, const std::string& style) {
    containerOpened_ = false;
    out_ += lead;
    if (style_.colour && !style.empty())
      out_ += style + text + kReset;
    else
      out_ += text;
    out_ += '\n';
  }

  // Words of the paragraph, wrapped to the width after the prefix; a bullet hangs.
  void flushParagraph() {
    containerOpened_ = false;
    const std::string lead = prefix();
    std::string first = lead + bullet_;
    const std::string rest = lead + std::string(displayWidth(bullet_), ' ');
    bullet_.clear();
    const std::size_t leadWidth = displayWidth(first);
    const std::size_t width = style_.width > leadWidth + 10 ? style_.width : leadWidth + 10;

    std::string current = first;
    std::size_t used = leadWidth;
    bool lineHasWord = false;
    lastLineWidth_ = 0;
    auto endLine = [&] {
      out_ += current;
      out_ += '\n';
      lastLineWidth_ = std::max(lastLineWidth_, used - std::min(used, leadWidth));
      current = rest;
      used = displayWidth(rest);
      lineHasWord = false;
    };
    for (const auto& piece : pieces_) {
      std::size_t at = 0;
      while (at < piece.text.size()) {
        const char c = piece.text[at];
        if (c == '\n') {
          endLine();
          ++at;
          continue;
        }
        if (c == ' ') {
          if (lineHasWord && used + 1 <= width) {
            current += ' ';
            ++used;
          }
          ++at;
          continue;
        }
        const auto stop = piece.text.find_first_of(" \n", at);
        const std::string word =
            piece.text.substr(at, stop == std::string::npos ? std::string::npos : stop - at);
        at = stop == std::string::npos ? piece.text.size() : stop;
        const std::size_t w = displayWidth(word);
        if (lineHasWord && used + w > width) {
          while (!current.empty() && current.back() == ' ') current.pop_back();
          endLine();
        }
        current += piece.style.empty() ? word : piece.style + word + kReset;
        used += w;
        lineHasWord = true;
      }
    }
    while (!current.empty() && current.back() == ' ') current.pop_back();
    if (lineHasWord) endLine();
    pieces_.clear();
  }

  static std::string plain(const std::vector<Piece>& pieces) {
    std::string text;
    for (const auto& p : pieces) text += p.text == "\n" ? " " : p.text;
    return text;
  }

  // Columns sized to their content, shrunk widest-first until the table fits the width.
  void renderTable() {
    blankBefore();
    std::size_t columns = 0;
    for (const auto& row : table_) columns = std::max(columns, row.size());
    if (columns == 0) return;
    std::vector<std::size_t> widths(columns, 1);
    for (const auto& row : table_)
      for (std::size_t c = 0; c < row.size(); ++c)
        widths[c] = std::max(widths[c], displayWidth(plain(row[c].pieces)));
    const std::size_t frame = 3 * columns + 1;
    const std::size_t budget = style_.width > frame + columns ? style_.width - frame : columns;
    auto total = [&] {
      std::size_t sum = 0;
      for (auto w : widths) sum += w;
      return sum;
    };
    while (total() > budget) {
      auto widest = std::max_element(widths.begin(), widths.end());
      if (*widest <= 1) break;
      --*widest;
    }
    auto border = [&] {
      std::string b = "+";
      for (auto w : widths) b += std::string(w + 2, '-') + "+";
      line(prefix(), b, "\033[2m");
    };
    border();
    for (std::size_t r = 0; r < table_.size(); ++r) {
      std::string text = "|";
      for (std::size_t c = 0; c < columns; ++c) {
        std::string cell = c < table_[r].size() ? plain(table_[r][c].pieces) : "";
        cell = fit(cell, widths[c]);
        const bool header = r == 0 && style_.colour;
        text += " " + (header ? "\033[1m" + cell + kReset : cell) +
                std::string(widths[c] - displayWidth(cell), ' ') + " |";
      }
      line(prefix(), text, "");
      if (r == 0) border();
    }
    if (table_.size() > 1) border();
  }

  // At most `width` columns of `text`, cut at a character, "…" marking the cut.
  static std::string fit(const std::string& text, std::size_t width) {
    if (displayWidth(text) <= width) return text;
    std::string out;
    std::size_t used = 0;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < text.size();) {
      wchar_t wc = 0;
      const std::size_t n = std::mbrtowc(&wc, text.data() + at, text.size() - at, &state);
      const std::size_t len = (n == 0 || n > 4) ? 1 : n;
      const int w = (n == 0 || n > 4) ? 1 : std::max(0, ::wcwidth(wc));
      if (used + static_cast<std::size_t>(w) + 1 > width) break;
      out.append(text, at, len);
      used += static_cast<std::size_t>(w);
      at += len;
    }
    return out + "…";
  }

  const MarkdownStyle& style_;
  std::string out_;
  std::vector<Piece> pieces_;
  std::vector<std::string> styles_;
  std::vector<ListLevel> lists_;
  std::string bullet_;
  unsigned heading_ = 0;
  int quoteDepth_ = 0;
  bool inCode_ = false, inCell_ = false, containerOpened_ = false;
  std::string code_;
  std::vector<std::vector<TableCell>> table_;
  std::size_t lastLineWidth_ = 0;
};

}  // namespace

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  std::mbstate_t state{};
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] == '\033') {  // an escape sequence ends with a letter
      ++at;
      while (at < text.size() &&
             !((text[at] >= 'a' && text[at] <= 'z') || (text[at] >= 'A' && text[at] <= 'Z')))
        ++at;
      ++at;
      continue;
    }
    wchar_t wc = 0;
    const std::size_t n = std::mbrtowc(&wc, text.data() + at, text.size() - at, &state);
    if (n == 0 || n > 4) {  // not UTF-8 in this locale: one column a byte
      state = {};
      ++width;
      ++at;
      continue;
    }
    width += static_cast<std::size_t>(std::max(0, ::wcwidth(wc)));
    at += n;
  }
  return width;
}

std::size_t lastBlockBoundary(std::string_view markdown) {
  std::size_t boundary = 0;
  bool inFence = false, previousBlank = false;
  for (std::size_t start = 0; start < markdown.size();) {
    const auto end = markdown.find('\n', start);
    if (end == std::string_view::npos) break;  // the last line is not finished yet
    const auto line = markdown.substr(start, end - start);
    const auto text = line.substr(std::min(line.find_first_not_of(' '), line.size()));
    if (text.starts_with("```") || text.starts_with("~~~")) inFence = !inFence;
    const bool blank = text.find_first_not_of(" \t\r") == std::string_view::npos;
    if (blank && !inFence && !previousBlank && start > 0) boundary = end + 1;
    previousBlank = blank;
    start = end + 1;
  }
  return boundary;
}

std::string renderMarkdown(std::string_view markdown, const MarkdownStyle& style) {
  return Renderer(style).render(markdown);
}

}  // namespace tamsel::cli
