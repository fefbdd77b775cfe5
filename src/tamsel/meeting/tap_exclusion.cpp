#include "tamsel/meeting/tap_exclusion.hpp"

#include <algorithm>
#include <stdexcept>

#include "tamsel/base/log.hpp"

namespace tamsel::meeting {

std::vector<std::uint32_t> TapExclusion::objectIDs(const std::vector<std::int32_t>& pids,
                                                   const AudioProcessSnapshot& snapshot,
                                                   std::vector<std::int32_t>* unresolved) {
  std::vector<std::uint32_t> objects;
  for (const auto pid : pids) {
    bool found = false;
    for (const auto& process : snapshot.states)
      if (process.pid == pid) {
        objects.push_back(process.objectID);
        found = true;
      }
    if (!found && unresolved &&
        std::find(unresolved->begin(), unresolved->end(), pid) == unresolved->end())
      unresolved->push_back(pid);
  }
  std::sort(objects.begin(), objects.end());
  objects.erase(std::unique(objects.begin(), objects.end()), objects.end());
  return objects;
}

TapExclusionMonitor::Applier TapExclusionMonitor::pulseApplier() {
  return [](const std::vector<std::uint32_t>& objectIDs) {
    if (!objectIDs.empty())
      throw std::runtime_error(
          "the audio server cannot leave a client's playback out of the output's monitor");
  };
}

TapExclusionMonitor::TapExclusionMonitor(std::int32_t selfPID, PIDSource source,
                                         AudioProcessObserver& observer, Applier applier,
                                         std::function<void(const std::string&)> onFailure,
                                         Translate translate)
    : selfPID_(selfPID),
      source_(std::move(source)),
      processObserver_(observer),
      translate_(std::move(translate)),
      applier_(std::move(applier)),
      onFailure_(std::move(onFailure)) {}

TapExclusionMonitor::~TapExclusionMonitor() { stop(); }

void TapExclusionMonitor::start() {
  {
    base::MutexLock lock(lock_);
    if (state_.active) return;
    state_.active = true;
  }
  processTask_ =
      processObserver_.subscribe([this](const AudioProcessSnapshot& snapshot) { apply(snapshot); });
}

void TapExclusionMonitor::stop() {
  processTask_.cancel();
  base::MutexLock lock(lock_);
  state_.active = false;
}

TapExclusionMonitor::State TapExclusionMonitor::state() const {
  base::MutexLock lock(lock_);
  return state_;
}

void TapExclusionMonitor::apply(const AudioProcessSnapshot& snapshot) {
  std::vector<std::int32_t> pids{selfPID_};
  if (source_)
    for (const auto pid : source_())
      if (std::find(pids.begin(), pids.end(), pid) == pids.end()) pids.push_back(pid);
  std::vector<std::int32_t> unresolved;
  auto objects = translate_(pids, snapshot, &unresolved);
  std::string failure;
  {
    base::MutexLock lock(lock_);
    if (!state_.active) return;
    state_.unresolvedPIDs = unresolved;
    if (objects == state_.lastObjectIDs) return;
    try {
      applier_(objects);
      state_.lastObjectIDs = std::move(objects);
    } catch (const std::exception& e) {
      failure = e.what();
      state_.active = false;  // one failure ends the exclusion for this recording
    }
  }
  if (!failure.empty()) {
    base::log::warn("systap", "exclusion failed: {}", failure);
    if (onFailure_) onFailure_(failure);
  }
}

}  // namespace tamsel::meeting
