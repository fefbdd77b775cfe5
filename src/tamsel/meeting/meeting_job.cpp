#include "tamsel/meeting/meeting_job.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/overloaded.hpp"
#include "tamsel/meeting/meeting_recording_paths.hpp"

namespace tamsel::meeting {

namespace json = boost::json;
namespace fs = std::filesystem;

namespace {

constexpr std::array<std::string_view, 11> stateNames{
    "releasingCapture", "sealing",       "queued",    "sealingFailed",
    "uploading",        "transcribing",  "generatingNotes", "waitingForApproval",
    "cancelling",       "done",          "retryableFailed"};

constexpr std::array<std::string_view, 3> stageDeadlineStateNames{"none", "pending", "expired"};

[[noreturn]] void fail(std::string_view key, std::string_view why) {
  throw base::json::DecodeError(fmt::format("job record: \"{}\" {}", key, why));
}

const json::object& objectOf(const json::value& value, std::string_view what) {
  const auto* object = value.if_object();
  if (!object) fail(what, "is not an object");
  return *object;
}

std::optional<std::string> optionalString(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  if (!v || v->is_null()) return std::nullopt;
  if (!v->is_string()) fail(key, "is not a string");
  return std::string(v->as_string());
}

std::string requiredString(const json::object& o, std::string_view key) {
  auto text = optionalString(o, key);
  if (!text) fail(key, "is missing");
  return *text;
}

std::optional<std::int64_t> optionalInteger(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  if (!v || v->is_null()) return std::nullopt;
  if (v->is_int64()) return v->as_int64();
  if (v->is_uint64() && v->as_uint64() <= static_cast<std::uint64_t>(INT64_MAX))
    return static_cast<std::int64_t>(v->as_uint64());
  fail(key, "is not an integer");
}

std::optional<base::Timestamp> optionalDate(const json::object& o, std::string_view key) {
  const auto text = optionalString(o, key);
  if (!text) return std::nullopt;
  const auto date = base::parseISO8601(*text);
  if (!date) fail(key, "is not a date");
  return date;
}

double numberOf(const json::value& v, std::string_view key) {
  if (v.is_double()) return v.as_double();
  if (v.is_int64()) return static_cast<double>(v.as_int64());
  if (v.is_uint64()) return static_cast<double>(v.as_uint64());
  fail(key, "is not a number");
}

json::value toJSON(const MeetingCaptureQualitySummary& summary) {
  json::array missing;
  for (const auto& gap : summary.missingCoverage)
    missing.push_back(json::object{{"source", toString(gap.source)},
                                   {"durationSeconds", gap.durationSeconds}});
  return json::object{{"routeTransitionCount", summary.routeTransitionCount},
                      {"missingCoverage", std::move(missing)}};
}

MeetingCaptureQualitySummary qualityFromJSON(const json::value& value) {
  const auto& o = objectOf(value, "captureQuality");
  MeetingCaptureQualitySummary summary;
  const auto count = optionalInteger(o, "routeTransitionCount");
  if (!count || *count < 0) fail("captureQuality.routeTransitionCount", "is missing or negative");
  summary.routeTransitionCount = *count;
  const auto* missing = o.if_contains("missingCoverage");
  if (!missing || !missing->is_array()) fail("captureQuality.missingCoverage", "is not a list");
  for (const auto& item : missing->as_array()) {
    const auto& gap = objectOf(item, "captureQuality.missingCoverage[]");
    const auto source = trackSourceFromString(requiredString(gap, "source"));
    if (!source) fail("captureQuality.missingCoverage[].source", "is not mic or system");
    const auto* duration = gap.if_contains("durationSeconds");
    if (!duration) fail("captureQuality.missingCoverage[].durationSeconds", "is missing");
    summary.missingCoverage.push_back(
        {*source, numberOf(*duration, "captureQuality.missingCoverage[].durationSeconds")});
  }
  return summary;
}

}  // namespace

std::string_view toString(MeetingJobState state) {
  return stateNames[static_cast<std::size_t>(state)];
}

std::optional<MeetingJobState> meetingJobStateFromString(std::string_view text) {
  for (std::size_t i = 0; i < stateNames.size(); ++i)
    if (stateNames[i] == text) return static_cast<MeetingJobState>(i);
  return std::nullopt;
}

std::string_view toString(MeetingStageDeadlineState state) {
  return stageDeadlineStateNames[static_cast<std::size_t>(state)];
}

std::optional<MeetingStageDeadlineState> meetingStageDeadlineStateFromString(
    std::string_view text) {
  for (std::size_t i = 0; i < stageDeadlineStateNames.size(); ++i)
    if (stageDeadlineStateNames[i] == text) return static_cast<MeetingStageDeadlineState>(i);
  return std::nullopt;
}

MeetingCaptureQualitySummary MeetingCaptureQualitySummary::fromTracks(
    const std::optional<TrackRecording>& mic, const std::optional<TrackRecording>& system) {
  MeetingCaptureQualitySummary summary;
  auto lengthSeconds = [](const TrackRecording& track) {
    return track.clock.sampleRate > 0
               ? static_cast<double>(track.clock.totalFrames) / track.clock.sampleRate
               : 0.0;
  };
  double meetingSeconds = 0;
  for (const auto* track : {&mic, &system})
    if (*track) meetingSeconds = std::max(meetingSeconds, lengthSeconds(**track));

  for (const auto source : {TrackSource::mic, TrackSource::system}) {
    const auto& track = source == TrackSource::mic ? mic : system;
    double missing = 0;
    if (!track || track->clock.totalFrames == 0) {
      missing = meetingSeconds;
    } else {
      std::int64_t dropped = 0;
      for (const auto& gap : track->gaps) {
        dropped += gap.droppedFrames;
        if (gap.reason == CaptureGapReason::routeTransition) ++summary.routeTransitionCount;
      }
      if (track->clock.sampleRate > 0)
        missing = static_cast<double>(dropped) / track->clock.sampleRate;
    }
    if (missing > 0) summary.missingCoverage.push_back({source, missing});
  }
  return summary;
}

json::value toJSON(const MeetingJobRecord& r) {
  json::object o;
  o["id"] = r.id;
  o["state"] = toString(r.state);
  o["createdAt"] = base::formatISO8601(r.createdAt);
  if (r.sealingDeadline) o["sealingDeadline"] = base::formatISO8601(*r.sealingDeadline);
  if (r.artifactSHA256) o["artifactSHA256"] = *r.artifactSHA256;
  if (r.cloudJobID) o["cloudJobID"] = *r.cloudJobID;
  o["retryCount"] = r.retryCount;
  if (r.lastError) o["lastError"] = *r.lastError;
  if (r.noteDeliveryAttempt) o["noteDeliveryAttempt"] = *r.noteDeliveryAttempt;
  if (r.stageDeadline) o["stageDeadline"] = base::formatISO8601(*r.stageDeadline);
  o["stageDeadlineState"] = toString(r.stageDeadlineState);
  if (r.captureQuality) o["captureQuality"] = toJSON(*r.captureQuality);
  return o;
}

std::string serializeJobRecord(const MeetingJobRecord& record) {
  return base::json::serialize(toJSON(record)) + "\n";
}

MeetingJobRecord meetingJobRecordFromJSON(const json::value& value) {
  const auto& o = objectOf(value, "record");
  MeetingJobRecord r;
  r.id = requiredString(o, "id");
  if (r.id.empty()) fail("id", "is empty");
  const auto state = meetingJobStateFromString(requiredString(o, "state"));
  if (!state) fail("state", "is not a job state");
  r.state = *state;
  const auto created = optionalDate(o, "createdAt");
  if (!created) fail("createdAt", "is missing");
  r.createdAt = *created;
  r.sealingDeadline = optionalDate(o, "sealingDeadline");
  r.artifactSHA256 = optionalString(o, "artifactSHA256");
  r.cloudJobID = optionalString(o, "cloudJobID");
  const auto retries = optionalInteger(o, "retryCount");
  if (!retries || *retries < 0) fail("retryCount", "is missing or negative");
  r.retryCount = *retries;
  r.lastError = optionalString(o, "lastError");
  r.noteDeliveryAttempt = optionalInteger(o, "noteDeliveryAttempt");
  r.stageDeadline = optionalDate(o, "stageDeadline");
  // Lenient: a record written before stages had deadlines has none.
  if (const auto text = optionalString(o, "stageDeadlineState")) {
    const auto stage = meetingStageDeadlineStateFromString(*text);
    if (!stage) fail("stageDeadlineState", "is not none, pending or expired");
    r.stageDeadlineState = *stage;
  }
  if (const auto* quality = o.if_contains("captureQuality"); quality && !quality->is_null())
    r.captureQuality = qualityFromJSON(*quality);
  return r;
}

// ---- launch policy ----

std::string_view toString(MeetingJobPolicy::LaunchAction action) {
  static constexpr std::array<std::string_view, 7> names{
      "markCrashedWhileRecording", "markCrashedWhileReleasingCapture",
      "resumeSealing",             "escalateSealingFailed",
      "keepQueued",                "keep",
      "sweepDelete"};
  return names[static_cast<std::size_t>(action)];
}

MeetingJobPolicy::LaunchAction MeetingJobPolicy::launchAction(const MeetingJobRecord& record,
                                                              const MeetingJobFolderFacts& facts,
                                                              base::Timestamp now) {
  using enum LaunchAction;
  // A job whose folder is still held by a live recorder belongs to that process, whatever it says.
  if (facts.recordingLive) return keep;
  switch (record.state) {
    // Nobody holds the folder, so the recorder died. Its journals say whether capture had
    // already let go of the devices; either way the raw tracks are kept and get sealed.
    case MeetingJobState::releasingCapture:
      return facts.captureFinished ? markCrashedWhileReleasingCapture : markCrashedWhileRecording;
    // A seal that was cut short is started again from the raw tracks until its deadline; past
    // it, the job is failed so it stops being retried forever.
    case MeetingJobState::sealing: {
      const auto deadline = record.sealingDeadline.value_or(
          record.createdAt + std::chrono::duration_cast<std::chrono::microseconds>(
                                 MeetingJobConfiguration::sealingDeadline));
      return deadline <= now ? escalateSealingFailed : resumeSealing;
    }
    // Sealed and waiting for upload: the upload stage picks it up.
    case MeetingJobState::queued:
      return keepQueued;
    // A failed seal stays for the user to see and retry by hand; its raw tracks stay with it.
    case MeetingJobState::sealingFailed:
      return keep;
    // Cloud stages are driven by the cloud client, which resumes them from the record.
    case MeetingJobState::uploading:
    case MeetingJobState::transcribing:
    case MeetingJobState::generatingNotes:
    case MeetingJobState::waitingForApproval:
    case MeetingJobState::cancelling:
      return keep;
    // Finished jobs are kept for a while so their notes can be looked at, then swept.
    case MeetingJobState::done:
      return now - record.createdAt >= MeetingJobConfiguration::sweepAge ? sweepDelete : keep;
    // A transient failure before an artifact existed is sealed again a bounded number of times;
    // one that failed later (artifact present) waits for the cloud stage's own retry.
    case MeetingJobState::retryableFailed:
      return !record.artifactSHA256 &&
                     record.retryCount < MeetingJobConfiguration::maxSealingRetries
                 ? resumeSealing
                 : keep;
  }
  return keep;
}

std::optional<MeetingJobRecord> MeetingJobPolicy::applyLaunchAction(const MeetingJobRecord& record,
                                                                    LaunchAction action,
                                                                    base::Timestamp now) {
  const auto deadline = now + std::chrono::duration_cast<std::chrono::microseconds>(
                                  MeetingJobConfiguration::sealingDeadline);
  MeetingJobRecord next = record;
  switch (action) {
    case LaunchAction::markCrashedWhileRecording:
    case LaunchAction::markCrashedWhileReleasingCapture:
      next.state = MeetingJobState::sealing;
      next.sealingDeadline = deadline;
      next.lastError = std::string(action == LaunchAction::markCrashedWhileRecording
                                       ? MeetingJobConfiguration::crashedWhileRecordingMessage
                                       : MeetingJobConfiguration::crashedWhileReleasingCaptureMessage);
      return next;
    case LaunchAction::resumeSealing:
      if (record.state == MeetingJobState::retryableFailed) ++next.retryCount;
      if (record.state != MeetingJobState::sealing || !record.sealingDeadline)
        next.sealingDeadline = deadline;
      next.state = MeetingJobState::sealing;
      return next;
    case LaunchAction::escalateSealingFailed:
      next.state = MeetingJobState::sealingFailed;
      next.lastError = std::string(MeetingJobConfiguration::sealingDeadlinePassedMessage);
      return next;
    case LaunchAction::keepQueued:
    case LaunchAction::keep:
    case LaunchAction::sweepDelete:
      return std::nullopt;
  }
  return std::nullopt;
}

bool MeetingJobPolicy::sealsAfter(LaunchAction action) {
  return action == LaunchAction::markCrashedWhileRecording ||
         action == LaunchAction::markCrashedWhileReleasingCapture ||
         action == LaunchAction::resumeSealing;
}

// ---- store ----

std::string MeetingJobStoreError::code() const {
  static const char* const names[] = {"corrupt", "unreadable"};
  return base::caseName(value, names);
}

std::string MeetingJobStoreError::description() const {
  return std::visit(
      base::Overloaded{
          [](const Corrupt& c) {
            return fmt::format("The meeting job record {} is damaged ({}); it was left as it is",
                               c.file.string(), c.reason);
          },
          [](const Unreadable& u) {
            return fmt::format("The meeting job record {} could not be read: {}", u.file.string(),
                               u.reason);
          }},
      value);
}

MeetingJobStore::MeetingJobStore(fs::path meetingsRoot) : root_(std::move(meetingsRoot)) {}

std::optional<MeetingJobRecord> MeetingJobStore::load(const fs::path& meetingFolder) const {
  const auto file = jobFile(meetingFolder);
  std::error_code ec;
  if (!fs::exists(file, ec)) {
    if (ec) throw MeetingJobStoreException({MeetingJobStoreError::Unreadable{file, ec.message()}});
    return std::nullopt;
  }
  std::string text;
  if (!base::readFile(file, text))
    throw MeetingJobStoreException(
        {MeetingJobStoreError::Unreadable{file, std::strerror(errno)}});
  try {
    return meetingJobRecordFromJSON(base::json::parse(text));
  } catch (const base::json::DecodeError& e) {
    throw MeetingJobStoreException({MeetingJobStoreError::Corrupt{file, e.what()}});
  }
}

void MeetingJobStore::save(const fs::path& meetingFolder, const MeetingJobRecord& record) const {
  base::writeFileAtomically(jobFile(meetingFolder), serializeJobRecord(record), 0600);
}

std::vector<std::pair<fs::path, MeetingJobRecord>> MeetingJobStore::loadAll(
    std::vector<MeetingJobLoadProblem>* problems) const {
  std::vector<fs::path> folders;
  std::error_code ec;
  for (fs::directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code typeError;
    if (it->is_directory(typeError) && fs::exists(jobFile(it->path()), typeError))
      folders.push_back(it->path());
  }
  std::sort(folders.begin(), folders.end());
  std::vector<std::pair<fs::path, MeetingJobRecord>> records;
  records.reserve(folders.size());
  for (auto& folder : folders) {
    try {
      if (auto record = load(folder)) records.emplace_back(std::move(folder), std::move(*record));
    } catch (const MeetingJobStoreException& e) {
      base::log::warn("meeting", "{}", e.what());
      if (problems) problems->push_back({folder, e.what()});
    }
  }
  return records;
}

// ---- folder lock ----

std::optional<MeetingFolderLock> MeetingFolderLock::tryAcquire(const fs::path& meetingFolder) {
  const auto path = meetingFolder / meetingRecordingLockFileName;
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0)
    throw std::system_error(errno, std::generic_category(),
                            "cannot open the recording lock " + path.string());
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return std::nullopt;
  }
  return MeetingFolderLock(fd);
}

bool MeetingFolderLock::isHeldElsewhere(const fs::path& meetingFolder) {
  const auto path = meetingFolder / meetingRecordingLockFileName;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // flock locks belong to open files, not processes: a lock this process holds through another
  // descriptor shows as held too, which is what a replay wants.
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

MeetingFolderLock& MeetingFolderLock::operator=(MeetingFolderLock&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

MeetingFolderLock::~MeetingFolderLock() {
  if (fd_ >= 0) ::close(fd_);
}

bool meetingCaptureFinished(const fs::path& meetingFolder) {
  const auto paths = MeetingRecordingPaths::in(meetingFolder);
  for (const auto source : {TrackSource::mic, TrackSource::system}) {
    const auto journal = paths.journal(source);
    std::error_code ec;
    if (!fs::exists(journal, ec)) continue;
    std::string text;
    if (!base::readFile(journal, text)) return false;
    try {
      const auto value = base::json::parse(text);
      const auto* object = value.if_object();
      const auto* finished = object ? object->if_contains("finished") : nullptr;
      if (!finished || !finished->is_bool() || !finished->as_bool()) return false;
    } catch (const base::json::DecodeError&) {
      return false;
    }
  }
  return true;
}

}  // namespace tamsel::meeting
