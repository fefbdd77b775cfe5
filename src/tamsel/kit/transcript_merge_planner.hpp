#pragma once
// Joins the in-memory transcript (state) with the one read back from the session file (disk).
//
// The plan lists every index of both inputs exactly once: common prefix and suffix as matches,
// and the changed middle planned by a longest-common-subsequence table when the two middle
// lengths multiply to at most about a million cells, or by a linear map-based walk otherwise.
// Matched pairs always have equal keys and increase on both sides. Pure; any thread.
#include <cstddef>
#include <string>
#include <vector>

namespace tamsel::kit {

struct TranscriptMergePlanner {
  struct MergeOp {
    enum class Kind { matched, takeState, takeDisk };
    Kind kind;
    std::size_t stateIndex = 0;  // for matched and takeState
    std::size_t diskIndex = 0;   // for matched and takeDisk

    static MergeOp matched(std::size_t s, std::size_t d) { return {Kind::matched, s, d}; }
    static MergeOp takeState(std::size_t s) { return {Kind::takeState, s, 0}; }
    static MergeOp takeDisk(std::size_t d) { return {Kind::takeDisk, 0, d}; }
    bool operator==(const MergeOp&) const = default;
  };

  static constexpr std::size_t tableCellBound = 1'000'000;

  static std::vector<MergeOp> plan(const std::vector<std::string>& state,
                                   const std::vector<std::string>& disk);
  // Whether a middle of these lengths is planned by the table (otherwise by the map).
  static bool usesTable(std::size_t stateMiddle, std::size_t diskMiddle) {
    return diskMiddle > 0 && tableCellBound / diskMiddle >= stateMiddle;
  }
};

}  // namespace tamsel::kit
