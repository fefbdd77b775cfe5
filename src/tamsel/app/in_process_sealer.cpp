// The in-process sealer, in a file of its own: only what calls it links the encoder.
#include "tamsel/app/meeting_watch.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/sealing/meeting_sealer.hpp"

namespace tamsel::app {

MeetingSealerFn inProcessMeetingSealer(const std::atomic<bool>* cancel) {
  return [cancel](const std::filesystem::path& folder) {
    const auto result = sealing::MeetingSealer().seal(folder, {}, cancel);
    if (!result.output) base::log::warn("meeting", "sealing {}: {}", folder.string(), result.error);
  };
}

}  // namespace tamsel::app
