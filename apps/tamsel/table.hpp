#pragma once
// Tables for people: columns as wide as their content, fitted to the terminal. When a table is
// wider than the terminal its flexible column is shortened; when even that is not enough each
// row becomes a small block of lines, so a 40-column terminal still reads every field.
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace tamsel::cli {

struct Table {
  std::vector<std::string> headers;
  std::vector<std::vector<std::string>> rows;
  std::size_t flexible = 0;  // the column that may be shortened (a title)
};

// The width of the terminal on standard output; 0 when it is not a terminal (no limit).
std::size_t terminalWidth();

// `width` 0 prints the whole table.
void printTable(std::ostream& out, const Table& table, std::size_t width);

}  // namespace tamsel::cli
