// Session files are written by the engine and read as they are: any bytes must decode to a
// history (possibly empty) without crashing, and folding must keep its index invariants.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tamsel/bridge/session_history.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto file = tamsel::bridge::SessionHistory::decode(text);
  if (!file) return 0;
  auto folded = tamsel::bridge::SessionHistory::fold(*file, false);
  std::int64_t last = -1;
  for (const auto& m : folded.messages) {
    // Displayed messages cover raw messages in order, never overlapping, within the file.
    if (m.rawIndex <= last || m.rawIndexEnd < m.rawIndex ||
        m.rawIndexEnd >= static_cast<std::int64_t>(file->messages.size()))
      std::abort();
    last = m.rawIndexEnd;
    (void)tamsel::bridge::toJSON(m);
  }
  return 0;
}
