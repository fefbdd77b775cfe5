#pragma once
// The durable job of one recorded meeting: its record ("job.json" in the meeting's folder), the
// store that reads and writes those records, the constants that bound a job's stages, and the
// policy that decides, at launch, what becomes of each record found on disk.
//
// A job record is written when a recording starts (state releasingCapture: the capture still
// holds the devices) so that a crash at any moment leaves a record behind; the folder's
// recording lock (MeetingFolderLock) tells a live recorder from a dead one, and the tracks'
// journals tell whether capture had finished before the process died.
#include <boost/json/value.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tamsel/base/dates.hpp"
#include "tamsel/base/error.hpp"
#include "tamsel/meeting/track_types.hpp"

namespace tamsel::meeting {

// The job file's name inside a meeting folder.
inline constexpr std::string_view meetingJobFileName = "job.json";
// Held (flock) by the process recording into the folder, for as long as it records.
inline constexpr std::string_view meetingRecordingLockFileName = "recording.lock";

enum class MeetingJobState : std::uint8_t {
  releasingCapture,
  sealing,
  queued,
  sealingFailed,
  uploading,
  transcribing,
  generatingNotes,
  waitingForApproval,
  cancelling,
  done,
  retryableFailed,
};
std::string_view toString(MeetingJobState state);
std::optional<MeetingJobState> meetingJobStateFromString(std::string_view text);

// Where a cloud stage stands against its deadline. Always written ("none" when no stage runs).
enum class MeetingStageDeadlineState : std::uint8_t { none, pending, expired };
std::string_view toString(MeetingStageDeadlineState state);
std::optional<MeetingStageDeadlineState> meetingStageDeadlineStateFromString(std::string_view text);

struct MeetingCaptureCoverageGap {
  TrackSource source = TrackSource::mic;
  double durationSeconds = 0;
  bool operator==(const MeetingCaptureCoverageGap&) const = default;
};

struct MeetingCaptureQualitySummary {
  std::int64_t routeTransitionCount = 0;
  std::vector<MeetingCaptureCoverageGap> missingCoverage;
  bool operator==(const MeetingCaptureQualitySummary&) const = default;

  // From the tracks as recorded: every routeTransition gap counts once; a source's missing
  // coverage is the length of all its gaps. A source that was not recorded at all (system audio
  // switched off, or its track failed before any audio) misses the whole meeting: the other
  // track's length. Sources with nothing missing are left out.
  static MeetingCaptureQualitySummary fromTracks(const std::optional<TrackRecording>& mic,
                                                 const std::optional<TrackRecording>& system);
};

struct MeetingJobRecord {
  std::string id;
  MeetingJobState state = MeetingJobState::releasingCapture;
  base::Timestamp createdAt{};
  std::optional<base::Timestamp> sealingDeadline;
  std::optional<std::string> artifactSHA256;
  std::optional<std::string> cloudJobID;
  std::int64_t retryCount = 0;
  std::optional<std::string> lastError;
  std::optional<std::int64_t> noteDeliveryAttempt;
  std::optional<base::Timestamp> stageDeadline;
  MeetingStageDeadlineState stageDeadlineState = MeetingStageDeadlineState::none;
  std::optional<MeetingCaptureQualitySummary> captureQuality;
  bool operator==(const MeetingJobRecord&) const = default;
};

// Keys in the record's order; absent optional keys are left out.
boost::json::value toJSON(const MeetingJobRecord& record);
std::string serializeJobRecord(const MeetingJobRecord& record);  // pretty enough to read, one line
// Throws base::json::DecodeError naming the key that is missing or wrong.
MeetingJobRecord meetingJobRecordFromJSON(const boost::json::value& json);

// The job constants, in one place.
struct MeetingJobConfiguration {
  // A seal (render, encode, hash, install) of even a long meeting takes seconds; a job still in
  // `sealing` this long after it entered it was abandoned, and is escalated to sealingFailed.
  static constexpr std::chrono::seconds sealingDeadline{30 * 60};
  // Finished jobs (`done`) older than this are deleted with their files at launch.
  static constexpr std::chrono::hours sweepAge{24 * 30};
  // A retryableFailed job without an artifact is sealed again at launch this many times at most.
  static constexpr std::int64_t maxSealingRetries = 3;
  // What lastError says about a job whose process died.
  static constexpr std::string_view crashedWhileRecordingMessage =
      "crashed while recording: the raw tracks up to that moment are kept";
  static constexpr std::string_view crashedWhileReleasingCaptureMessage =
      "crashed while releasing capture: the raw tracks are kept";
  static constexpr std::string_view sealingDeadlinePassedMessage =
      "sealing did not finish before its deadline";
};

// What is known about a record's folder at launch beside the record itself.
struct MeetingJobFolderFacts {
  // Another live process holds the folder's recording lock.
  bool recordingLive = false;
  // Every track journal in the folder says its writer finished (or there is no journal).
  bool captureFinished = false;
};

struct MeetingJobPolicy {
  enum class LaunchAction : std::uint8_t {
    markCrashedWhileRecording,
    markCrashedWhileReleasingCapture,
    resumeSealing,
    escalateSealingFailed,
    keepQueued,
    keep,
    sweepDelete,
  };

  // One decision per record, from its state (see the table in meeting_job.cpp).
  static LaunchAction launchAction(const MeetingJobRecord& record,
                                   const MeetingJobFolderFacts& facts, base::Timestamp now);

  // The record after the action's bookkeeping (state, lastError, deadlines, retry count). Nothing
  // for sweepDelete (the record goes) and for keep/keepQueued (it stays as it is).
  static std::optional<MeetingJobRecord> applyLaunchAction(const MeetingJobRecord& record,
                                                           LaunchAction action,
                                                           base::Timestamp now);
  // Whether the action hands the job to the sealer afterwards.
  static bool sealsAfter(LaunchAction action);
};
std::string_view toString(MeetingJobPolicy::LaunchAction action);

struct MeetingJobStoreError {
  static constexpr std::string_view category = "meeting_job";
  struct Corrupt {
    std::filesystem::path file;
    std::string reason;
  };
  struct Unreadable {
    std::filesystem::path file;
    std::string reason;
  };
  std::variant<Corrupt, Unreadable> value;
  std::string code() const;
  std::string description() const;
};
using MeetingJobStoreException = base::ErrorOf<MeetingJobStoreError>;

// A record file that could not be read, reported by loadAll beside the ones that could.
struct MeetingJobLoadProblem {
  std::filesystem::path meetingFolder;
  std::string message;
};

// One job file per meeting folder under the meetings root. Reads are plain file reads and writes
// are atomic (0600), so any number of processes may use stores over the same root; writers of one
// folder's record are serialised by the folder's owner (the recorder, then the sealer).
class MeetingJobStore {
 public:
  explicit MeetingJobStore(std::filesystem::path meetingsRoot);

  const std::filesystem::path& root() const { return root_; }
  static std::filesystem::path jobFile(const std::filesystem::path& meetingFolder) {
    return meetingFolder / meetingJobFileName;
  }

  // Nothing when the folder has no job file. Throws MeetingJobStoreException (unreadable,
  // corrupt); the file is left as it is.
  std::optional<MeetingJobRecord> load(const std::filesystem::path& meetingFolder) const;
  // Writes the record atomically with mode 0600. Throws std::system_error.
  void save(const std::filesystem::path& meetingFolder, const MeetingJobRecord& record) const;
  // Every folder directly under the root with a job file, in folder-name order (the folders are
  // named by their UTC start, so oldest first). A file that cannot be read is logged and added to
  // `problems` when given; the others still load.
  std::vector<std::pair<std::filesystem::path, MeetingJobRecord>> loadAll(
      std::vector<MeetingJobLoadProblem>* problems = nullptr) const;

 private:
  std::filesystem::path root_;
};

// The recording lock of one meeting folder: an flock on "recording.lock", held while a process
// records into it, released by the kernel when that process dies however it dies.
class MeetingFolderLock {
 public:
  // The lock when no other process holds it; nothing when one does. Throws std::system_error
  // when the lock file cannot be opened.
  static std::optional<MeetingFolderLock> tryAcquire(const std::filesystem::path& meetingFolder);
  // Whether another process holds the folder's lock right now (false when there is no lock file).
  static bool isHeldElsewhere(const std::filesystem::path& meetingFolder);

  MeetingFolderLock(MeetingFolderLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  MeetingFolderLock& operator=(MeetingFolderLock&& other) noexcept;
  MeetingFolderLock(const MeetingFolderLock&) = delete;
  MeetingFolderLock& operator=(const MeetingFolderLock&) = delete;
  ~MeetingFolderLock();

 private:
  explicit MeetingFolderLock(int fd) : fd_(fd) {}
  int fd_ = -1;
};

// Whether every "<source>.journal.json" in the folder says its writer finished; true when there
// is none (nothing was being captured). A journal that cannot be read counts as unfinished.
bool meetingCaptureFinished(const std::filesystem::path& meetingFolder);

}  // namespace tamsel::meeting
