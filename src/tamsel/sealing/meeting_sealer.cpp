#include "tamsel/sealing/meeting_sealer.hpp"

#include "tamsel/base/log.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "tamsel/meeting/meeting_recording_paths.hpp"

namespace tamsel::sealing {

namespace {

using meeting::MeetingJobRecord;
using meeting::MeetingJobState;

bool retryableRendererFailure(StereoTimelineRendererError::Kind kind) {
  using K = StereoTimelineRendererError::Kind;
  // Writing the rendered timeline can fail for want of space; the tracks themselves will not
  // change by trying again.
  return kind == K::conversionFailed || kind == K::cannotCreateFormat;
}

}  // namespace

MeetingSealResult MeetingSealer::seal(const std::filesystem::path& folder,
                                      const AudioArtifactSealer::ProgressCallback& progress,
                                      const std::atomic<bool>* cancel) const {
  MeetingSealResult result;
  // Taken before the job is touched: a seal already running keeps its record as it has it.
  std::optional<SealingFolderLock> lock;
  try {
    lock = SealingFolderLock::tryAcquire(folder);
  } catch (const AudioArtifactSealerException& e) {
    result.error = e.what();
    return result;
  }
  if (!lock) {
    result.error =
        AudioArtifactSealerError{AudioArtifactSealerError::Kind::sealInProgress, folder.string()}
            .description();
    result.retryable = true;
    return result;
  }
  const meeting::MeetingJobStore store(folder.parent_path());
  std::optional<MeetingJobRecord> job;
  const auto saveJob = [&] {
    if (!job) return;
    try {
      store.save(folder, *job);
      result.jobState = std::string(meeting::toString(job->state));
    } catch (const std::exception& e) {
      result.jobState.reset();
      result.jobWarning = std::string("job record not written: ") + e.what();
      base::log::warn("meeting", "seal: {}", result.jobWarning);
    }
  };
  try {
    // A folder without a microphone track is no meeting: it gets no record.
    if (std::filesystem::exists(meeting::MeetingRecordingPaths::in(folder).micCAF))
      job = store.load(folder);
    if (!job && std::filesystem::exists(meeting::MeetingRecordingPaths::in(folder).micCAF)) {
      job = MeetingJobRecord{};
      job->id = base::newUUIDString();
      job->createdAt = base::nowTimestamp();
    }
  } catch (const std::exception& e) {
    // A record we cannot read is left as it is; the seal goes on without it.
    result.jobWarning = std::string("job record left alone: ") + e.what();
    base::log::warn("meeting", "seal: {}", result.jobWarning);
  }
  if (job) {
    job->state = MeetingJobState::sealing;
    job->sealingDeadline =
        base::nowTimestamp() + std::chrono::duration_cast<std::chrono::microseconds>(
                                   meeting::MeetingJobConfiguration::sealingDeadline);
    saveJob();
  }

  try {
    result.output = sealer_.seal(folder, progress, cancel, &result.timings, &*lock);
  } catch (const AudioArtifactSealerException& e) {
    result.error = e.what();
    result.retryable = e.error().retryable();
    result.noCapturedSignal = e.error().kind == AudioArtifactSealerError::Kind::noCapturedSignal;
  } catch (const StereoTimelineRendererException& e) {
    result.error = e.what();
    result.retryable = retryableRendererFailure(e.error().kind);
  } catch (const std::exception& e) {
    // Encoder, file and interruption failures: the raw tracks are intact, sealing again can work.
    result.error = cancel && cancel->load() ? "sealing was interrupted" : e.what();
    result.retryable = true;
  }

  if (job) {
    job->sealingDeadline.reset();
    if (result.output) {
      job->state = MeetingJobState::queued;
      job->artifactSHA256 = result.output->artifact.manifest.sha256;
      job->lastError.reset();
    } else {
      job->state =
          result.retryable ? MeetingJobState::retryableFailed : MeetingJobState::sealingFailed;
      job->lastError = result.error;
      job->artifactSHA256.reset();
    }
    saveJob();
  }
  // The caller reports a failure its own way (the command prints it, a controller logs it).
  if (!result.output)
    base::log::info("meeting", "seal of {} failed: {}", folder.string(), result.error);
  return result;
}

}  // namespace tamsel::sealing
