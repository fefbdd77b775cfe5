#include "tamsel/bridge/pidfile_reader.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "../test_support.hpp"

namespace tamsel::bridge {
namespace {

TEST(PidfileReader, ParsesTrimmedSignedDecimal) {
  EXPECT_EQ(PidfileReader::parse(" 1234\n"), 1234);
  EXPECT_EQ(PidfileReader::parse("\t+42\r\n"), 42);
  EXPECT_EQ(PidfileReader::parse("-7"), -7);
  EXPECT_EQ(PidfileReader::parse("2147483647"), 2147483647);
}

TEST(PidfileReader, RejectsAnythingElse) {
  for (const char* bad : {"12a4", "", "  \n", "99999999999", "2147483648", "+-5", "++5", "1 2",
                          "0x10", "12.0", "+"}) {
    EXPECT_FALSE(PidfileReader::parse(bad)) << '"' << bad << '"';
  }
}

TEST(PidfileReader, ReadsFilesAndNeverThrows) {
  test::TempDir dir;
  const auto file = dir.path() / "daemon.pid";
  EXPECT_FALSE(PidfileReader::read(file));
  std::ofstream(file) << " 1234\n";
  EXPECT_EQ(PidfileReader::read(file), 1234);
  EXPECT_FALSE(PidfileReader::read(dir.path()));  // a folder, not a file
}

}  // namespace
}  // namespace tamsel::bridge
