// Markdown as the terminal shows it: plain layout (the styles only add escapes around it),
// wrapping to the width, tables that fit, and where a streamed reply may be cut.
#include "terminal_markdown.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <sstream>

namespace tamsel::cli {
namespace {

class TerminalMarkdown : public ::testing::Test {
 protected:
  void SetUp() override { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  static std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
};

TEST_F(TerminalMarkdown, BlocksAreLaidOutPlainWithoutColour) {
  const auto out = renderMarkdown(
      "# Plan\n\nSome **bold** and `code`.\n\n- one\n- two\n  1. inner\n\n"
      "```\nint x = 1;\n```\n\n> quoted\n",
      {80, false});
  EXPECT_EQ(out,
            "Plan\n====\n\nSome **bold** and `code`.\n\n• one\n• two\n  1. inner\n\n"
            "    int x = 1;\n\n> quoted\n");
  EXPECT_EQ(out.find('\033'), std::string::npos);
}

TEST_F(TerminalMarkdown, ColourStylesTheTextAndResetsAfterEachWord) {
  const auto out = renderMarkdown("Some **bold** text", {80, true});
  EXPECT_NE(out.find("\033[1mbold\033[0m"), std::string::npos) << out;
  EXPECT_EQ(displayWidth(out), displayWidth("Some bold text\n"));
}

TEST_F(TerminalMarkdown, ParagraphsWrapAtWordsAndBulletsHang) {
  const auto out = renderMarkdown(
      "- the quick brown fox jumps over the lazy dog and keeps running further", {30, false});
  for (const auto& line : lines(out)) EXPECT_LE(displayWidth(line), 30u) << line;
  const auto all = lines(out);
  ASSERT_GE(all.size(), 3u);
  EXPECT_TRUE(all[0].starts_with("• the quick"));
  EXPECT_TRUE(all[1].starts_with("  ")) << "continuation lines hang under the text";
  EXPECT_EQ(out.find("fox jumps"), out.find("fox")) << "no word is broken";
}

TEST_F(TerminalMarkdown, WideCharactersCountTwoColumns) {
  EXPECT_EQ(displayWidth("日本語"), 6u);
  EXPECT_EQ(displayWidth("é\033[1mx\033[0m"), 2u);
  const auto out = renderMarkdown("日本語 日本語 日本語 日本語", {14, false});
  for (const auto& line : lines(out)) EXPECT_LE(displayWidth(line), 14u) << line;
}

TEST_F(TerminalMarkdown, ATableFitsFortyColumns) {
  const auto out = renderMarkdown(
      "| Name | Description |\n|---|---|\n| build | compiles every layer of the project with "
      "ninja |\n| test | runs the suite |\n",
      {40, false});
  const auto all = lines(out);
  ASSERT_EQ(all.size(), 6u) << out;
  for (const auto& line : all) EXPECT_LE(displayWidth(line), 40u) << line;
  EXPECT_NE(all[1].find("Name"), std::string::npos);
  EXPECT_NE(all[3].find("…"), std::string::npos) << "a cell too wide is cut visibly";
  EXPECT_NE(all[4].find("runs the suite"), std::string::npos);
}

TEST_F(TerminalMarkdown, AStreamIsCutOnlyBetweenBlocksOutsideCode) {
  EXPECT_EQ(lastBlockBoundary("no blank line yet"), 0u);
  EXPECT_EQ(lastBlockBoundary("para one\n\npara two is stil"), 10u);
  const std::string fenced = "```\ncode\n\nmore code\n";
  EXPECT_EQ(lastBlockBoundary(fenced), 0u) << "a blank line inside a fence is not a boundary";
  EXPECT_EQ(lastBlockBoundary(fenced + "```\n\nafter"), fenced.size() + 5);
}

}  // namespace
}  // namespace tamsel::cli
