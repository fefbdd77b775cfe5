#include "tamsel/kit/transcript_merge_planner.hpp"

#include <cstdint>
#include <string_view>
#include <unordered_map>

namespace tamsel::kit {

namespace {

using Op = TranscriptMergePlanner::MergeOp;

// Longest common subsequence over S[s0, s1) and D[d0, d1). dp[i][j] is the length for the
// suffixes starting at i and j, so the walk can go forward. With at most a million cells the
// shorter side is at most 1,000 long, so lengths fit 16 bits.
void planByTable(const std::vector<std::string>& S, std::size_t s0, std::size_t s1,
                 const std::vector<std::string>& D, std::size_t d0, std::size_t d1,
                 std::vector<Op>& out) {
  const std::size_t n = s1 - s0, m = d1 - d0;
  const std::size_t width = m + 1;
  std::vector<std::uint16_t> dp((n + 1) * width, 0);
  for (std::size_t i = n; i-- > 0;) {
    for (std::size_t j = m; j-- > 0;) {
      dp[i * width + j] = S[s0 + i] == D[d0 + j]
                              ? static_cast<std::uint16_t>(dp[(i + 1) * width + j + 1] + 1)
                              : std::max(dp[(i + 1) * width + j], dp[i * width + j + 1]);
    }
  }
  std::size_t i = 0, j = 0;
  while (i < n && j < m) {
    if (S[s0 + i] == D[d0 + j]) {
      out.push_back(Op::matched(s0 + i, d0 + j));
      ++i;
      ++j;
    } else if (dp[(i + 1) * width + j] >= dp[i * width + j + 1]) {
      // Tie-break, fixed: on equal lengths keep the in-memory message first.
      out.push_back(Op::takeState(s0 + i));
      ++i;
    } else {
      out.push_back(Op::takeDisk(d0 + j));
      ++j;
    }
  }
  for (; i < n; ++i) out.push_back(Op::takeState(s0 + i));
  for (; j < m; ++j) out.push_back(Op::takeDisk(d0 + j));
}

// Linear plan for large middles: each state key is matched with the earliest unused disk copy of
// it after the last match (so matches increase on both sides); disk messages skipped over are
// taken before the match, unmatched state messages are kept where they stand, and the remaining
// disk messages come last.
void planByMap(const std::vector<std::string>& S, std::size_t s0, std::size_t s1,
               const std::vector<std::string>& D, std::size_t d0, std::size_t d1,
               std::vector<Op>& out) {
  constexpr std::size_t none = static_cast<std::size_t>(-1);
  // Per key, the next unused disk position; later copies are chained through `nextSame`.
  std::unordered_map<std::string_view, std::size_t> nextOf;
  nextOf.reserve((d1 - d0) * 2);
  std::vector<std::size_t> nextSame(d1 - d0, none);
  for (std::size_t j = d1; j-- > d0;) {
    auto [it, inserted] = nextOf.try_emplace(D[j], j);
    if (!inserted) {
      nextSame[j - d0] = it->second;
      it->second = j;
    }
  }
  std::size_t cursor = d0;  // every disk index below it has been emitted
  for (std::size_t i = s0; i < s1; ++i) {
    std::size_t match = none;
    if (auto found = nextOf.find(S[i]); found != nextOf.end()) {
      std::size_t j = found->second;
      while (j != none && j < cursor) j = nextSame[j - d0];
      if (j != none) {
        match = j;
        found->second = nextSame[j - d0];
      } else {
        found->second = none;
      }
    }
    if (match == none) {
      out.push_back(Op::takeState(i));
      continue;
    }
    for (; cursor < match; ++cursor) out.push_back(Op::takeDisk(cursor));
    out.push_back(Op::matched(i, match));
    cursor = match + 1;
  }
  for (; cursor < d1; ++cursor) out.push_back(Op::takeDisk(cursor));
}

}  // namespace

std::vector<Op> TranscriptMergePlanner::plan(const std::vector<std::string>& S,
                                             const std::vector<std::string>& D) {
  std::vector<Op> out;
  out.reserve(std::max(S.size(), D.size()) + 8);
  if (S.empty()) {
    for (std::size_t j = 0; j < D.size(); ++j) out.push_back(Op::takeDisk(j));
    return out;
  }
  if (D.empty()) {
    for (std::size_t i = 0; i < S.size(); ++i) out.push_back(Op::takeState(i));
    return out;
  }
  const std::size_t shorter = std::min(S.size(), D.size());
  std::size_t p = 0;
  while (p < shorter && S[p] == D[p]) {
    out.push_back(Op::matched(p, p));
    ++p;
  }
  std::size_t q = 0;
  while (q < shorter - p && S[S.size() - 1 - q] == D[D.size() - 1 - q]) ++q;

  const std::size_t s0 = p, s1 = S.size() - q, d0 = p, d1 = D.size() - q;
  if (s0 == s1) {
    for (std::size_t j = d0; j < d1; ++j) out.push_back(Op::takeDisk(j));
  } else if (d0 == d1) {
    for (std::size_t i = s0; i < s1; ++i) out.push_back(Op::takeState(i));
  } else if (usesTable(s1 - s0, d1 - d0)) {
    planByTable(S, s0, s1, D, d0, d1, out);
  } else {
    planByMap(S, s0, s1, D, d0, d1, out);
  }
  for (std::size_t k = 0; k < q; ++k)
    out.push_back(Op::matched(S.size() - q + k, D.size() - q + k));
  return out;
}

}  // namespace tamsel::kit
