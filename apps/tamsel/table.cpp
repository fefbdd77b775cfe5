#include "table.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

#include "terminal_markdown.hpp"

namespace tamsel::cli {

namespace {

std::string padded(const std::string& text, std::size_t width) {
  const auto shown = displayWidth(text);
  return shown >= width ? text : text + std::string(width - shown, ' ');
}

}  // namespace

std::size_t terminalWidth() {
  if (::isatty(STDOUT_FILENO) != 1) return 0;
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

void printTable(std::ostream& out, const Table& table, std::size_t width) {
  const std::size_t columns = table.headers.size();
  std::vector<std::size_t> widths(columns);
  for (std::size_t c = 0; c < columns; ++c) {
    widths[c] = displayWidth(table.headers[c]);
    for (const auto& row : table.rows) widths[c] = std::max(widths[c], displayWidth(row[c]));
  }
  const std::size_t gaps = 2 * (columns - 1);
  const std::size_t total = std::accumulate(widths.begin(), widths.end(), gaps);
  const std::size_t others = total - widths[table.flexible];
  constexpr std::size_t kNarrowest = 12;  // a title shorter than this says too little
  if (width != 0 && total > width) {
    if (width >= others + kNarrowest) {
      widths[table.flexible] = width - others;
    } else {
      // One block per row: the first field, then the rest, then the flexible one.
      for (const auto& row : table.rows) {
        out << fitToWidth(row[0], width) << "\n";
        std::string rest;
        for (std::size_t c = 1; c < columns; ++c) {
          if (c == table.flexible || row[c].empty() || row[c] == "-") continue;
          // Without its header a bare count says nothing: "4 msgs".
          std::string shown = row[c];
          if (std::all_of(shown.begin(), shown.end(),
                          [](char ch) { return ch >= '0' && ch <= '9'; })) {
            std::string unit = table.headers[c];
            std::transform(unit.begin(), unit.end(), unit.begin(),
                           [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
            shown += " " + unit;
          }
          rest += (rest.empty() ? "" : " · ") + shown;
        }
        if (!rest.empty()) out << "  " << fitToWidth(rest, width - 2) << "\n";
        if (table.flexible != 0 && !row[table.flexible].empty() && row[table.flexible] != "-")
          out << "  " << fitToWidth(row[table.flexible], width - 2) << "\n";
      }
      out << std::flush;
      return;
    }
  }
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (std::size_t c = 0; c < columns; ++c) {
      const auto cell = fitToWidth(cells[c], widths[c]);
      text += c + 1 == columns ? cell : padded(cell, widths[c]) + "  ";
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out << text << "\n";
  };
  line(table.headers);
  for (const auto& row : table.rows) line(row);
  out << std::flush;
}

}  // namespace tamsel::cli
