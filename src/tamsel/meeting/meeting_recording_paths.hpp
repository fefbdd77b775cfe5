#pragma once
// Where one meeting's files live: everything in the meeting's own folder, under fixed names, so
// capture, the job store, sealing and a crash replay all find the same files.
#include <filesystem>

#include "tamsel/meeting/track_types.hpp"

namespace tamsel::meeting {

struct MeetingRecordingPaths {
  std::filesystem::path micCAF;
  std::filesystem::path systemCAF;
  std::filesystem::path renderedStereoCAF;
  std::filesystem::path combinedM4A;
  std::filesystem::path manifestJSON;

  static MeetingRecordingPaths in(const std::filesystem::path& folder) {
    return {folder / "mic.caf", folder / "system.caf", folder / "rendered.caf",
            folder / "combined.m4a", folder / "manifest.json"};
  }

  const std::filesystem::path& rawTrack(TrackSource source) const {
    return source == TrackSource::mic ? micCAF : systemCAF;
  }
  // The writer thread's clock-and-gaps journal beside each raw track ("mic.journal.json").
  std::filesystem::path journal(TrackSource source) const {
    return rawTrack(source).parent_path() /
           (std::filesystem::path(rawTrack(source)).stem().string() + ".journal.json");
  }
};

}  // namespace tamsel::meeting
