#include "tamsel/sealing/audio_artifact_sealer.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <regex>
#include <system_error>
#include <thread>

#include "tamsel/base/log.hpp"
#include "tamsel/base/uuid.hpp"

namespace tamsel::sealing {

namespace fs = std::filesystem;

std::string_view toString(SealingStage stage) {
  switch (stage) {
    case SealingStage::rendering:
      return "rendering";
    case SealingStage::encoding:
      return "encoding";
    case SealingStage::hashing:
      return "hashing";
    case SealingStage::installing:
      return "installing";
    case SealingStage::finished:
      return "finished";
  }
  return "unknown";
}

double SealingProgress::fraction() const {
  if (stage == SealingStage::finished) return 1.0;
  if (totalFrames <= 0) return 0.0;
  // Rendering costs about a tenth of encoding; hashing and installing take milliseconds.
  const double rendered = static_cast<double>(framesRendered) / static_cast<double>(totalFrames);
  const double encoded = static_cast<double>(framesEncoded) / static_cast<double>(totalFrames);
  return std::clamp(0.1 * rendered + 0.89 * encoded, 0.0, 0.99);
}

double SealingProgress::speed() const {
  if (elapsedSeconds <= 0) return 0;
  return static_cast<double>(framesEncoded) / 48000.0 / elapsedSeconds;
}

namespace {

using Clock = std::chrono::steady_clock;
double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

[[noreturn]] void ioFailure(const std::string& what) {
  throw AudioArtifactSealerException(
      AudioArtifactSealerError{AudioArtifactSealerError::Kind::io, what});
}

void writeNewFile(const fs::path& path, std::string_view contents) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) ioFailure("cannot create " + path.string() + ": " + std::strerror(errno));
  std::size_t done = 0;
  while (done < contents.size()) {
    const ssize_t n = ::write(fd, contents.data() + done, contents.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int error = errno;
      ::close(fd);
      ioFailure("cannot write " + path.string() + ": " + std::strerror(error));
    }
    done += static_cast<std::size_t>(n);
  }
  const bool synced = ::fsync(fd) == 0;
  const int error = errno;
  ::close(fd);
  if (!synced) ioFailure("cannot sync " + path.string() + ": " + std::strerror(error));
}

// Progress from several threads, handed on one call at a time.
class ProgressRelay {
 public:
  ProgressRelay(const AudioArtifactSealer::ProgressCallback& callback, std::int64_t total)
      : callback_(callback), started_(Clock::now()) {
    state_.totalFrames = total;
  }
  template <class Change>
  void update(Change change) {
    if (!callback_) return;
    std::lock_guard lock(mutex_);
    change(state_);
    state_.elapsedSeconds = secondsSince(started_);
    callback_(state_);
  }

 private:
  const AudioArtifactSealer::ProgressCallback& callback_;
  Clock::time_point started_;
  std::mutex mutex_;
  SealingProgress state_;
};

}  // namespace

std::optional<SealingFolderLock> SealingFolderLock::tryAcquire(const fs::path& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    throw AudioArtifactSealerException(
        AudioArtifactSealerError{AudioArtifactSealerError::Kind::missingTrack,
                                 folder.string() + ": " + std::strerror(errno)});
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return std::nullopt;
  }
  return SealingFolderLock(fd);
}

SealingFolderLock& SealingFolderLock::operator=(SealingFolderLock&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

SealingFolderLock::~SealingFolderLock() {
  if (fd_ >= 0) ::close(fd_);
}

void SealingFolderLock::syncFolder() const { ::fsync(fd_); }

AudioArtifactSealer::AudioArtifactSealer() : AudioArtifactSealer(Options{}) {}

AudioArtifactSealer::AudioArtifactSealer(Options options)
    : renderer_(options.renderBlockSize),
      encoder_([&] {
        auto e = options.encoder;
        e.bitrate = options.bitrate;
        return e;
      }()),
      hasher_(options.hashBlockSize),
      bitrate_(options.bitrate) {}

fs::path AudioArtifactSealer::temporaryPathFor(const fs::path& finalPath) {
  return finalPath.parent_path() / (finalPath.stem().string() + ".tmp." + base::newUUIDString() +
                                    finalPath.extension().string());
}

fs::path AudioArtifactSealer::workingRenderPath(const MeetingRecordingPaths& paths) {
  return paths.micCAF.parent_path() / "mic.render.caf";
}

std::size_t AudioArtifactSealer::removeLeftovers(const MeetingRecordingPaths& paths) {
  std::vector<fs::path> doomed{workingRenderPath(paths), paths.renderedStereoCAF};
  const auto patternFor = [](const fs::path& final) {
    return std::regex(
        std::regex_replace(final.stem().string(), std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") +
        R"(\.tmp\.[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12})" +
        std::regex_replace(final.extension().string(), std::regex(R"(\.)"), R"(\.)"));
  };
  const std::regex combined = patternFor(paths.combinedM4A);
  const std::regex manifest = patternFor(paths.manifestJSON);
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(paths.micCAF.parent_path(), ec)) {
    const auto name = entry.path().filename().string();
    if (std::regex_match(name, combined) || std::regex_match(name, manifest))
      doomed.push_back(entry.path());
  }
  std::size_t removed = 0;
  for (const auto& path : doomed)
    if (fs::remove(path, ec)) ++removed;
  return removed;
}

MeetingSealingOutput AudioArtifactSealer::seal(const fs::path& folder,
                                               const ProgressCallback& progress,
                                               const std::atomic<bool>* cancel,
                                               SealingTimings* timings,
                                               const SealingFolderLock* heldLock) const {
  const auto started = Clock::now();
  SealingTimings t;
  const auto paths = MeetingRecordingPaths::in(folder);
  std::optional<SealingFolderLock> ownLock;
  if (!heldLock) {
    ownLock = SealingFolderLock::tryAcquire(folder);
    if (!ownLock)
      throw AudioArtifactSealerException(AudioArtifactSealerError{
          AudioArtifactSealerError::Kind::sealInProgress, folder.string()});
  }
  const SealingFolderLock& lock = heldLock ? *heldLock : *ownLock;
  if (const auto n = removeLeftovers(paths))
    base::log::info("meeting", "seal: removed {} files a previous seal left in {}", n,
                    folder.string());

  const auto input = MeetingSealingInput::load(paths);
  const auto plan = renderer_.plan(input);
  t.plan = secondsSince(started);
  if (plan.totalFrames <= 0)
    throw AudioArtifactSealerException(AudioArtifactSealerError{
        AudioArtifactSealerError::Kind::noCapturedSignal, "the tracks hold no frames"});

  const fs::path working = workingRenderPath(paths);
  const fs::path temporaryM4A = temporaryPathFor(paths.combinedM4A);
  const fs::path temporaryManifest = temporaryPathFor(paths.manifestJSON);
  const auto cleanUp = [&] {
    std::error_code ec;
    for (const auto& p : {working, paths.renderedStereoCAF, temporaryM4A, temporaryManifest})
      fs::remove(p, ec);
  };

  try {
    ProgressRelay relay(progress, plan.totalFrames);
    // Render and encode stop together: whichever fails first, or the caller's cancel.
    std::atomic<bool> stop{false};
    RenderedStereoFile rendered(working, plan.totalFrames);
    std::mutex errorLock;
    std::exception_ptr firstError;
    const auto failWith = [&](std::exception_ptr error) {
      {
        std::lock_guard guard(errorLock);
        if (!firstError) firstError = error;
      }
      stop = true;
      rendered.failed(error);
    };
    DigitalAudioSignalAnalyzer analyzer;
    StereoTimelineRenderer renderer = renderer_;
    renderer.blockObserver = [&](const float* block, std::int64_t frames) {
      analyzer.observe(block, frames);
    };
    renderer.readObserver = [&](std::int64_t done, std::int64_t) {
      relay.update([&](SealingProgress& p) { p.framesRendered = done; });
      if (cancel && cancel->load()) stop = true;
    };
    const auto renderStarted = Clock::now();
    std::thread renderThread([&] {
      try {
        renderer.render(input, plan, working, paths.renderedStereoCAF, &rendered, &stop);
        // Known only once every frame was seen; the encoder stops at once then.
        if (!analyzer.hasSignal())
          failWith(std::make_exception_ptr(AudioArtifactSealerException(
              AudioArtifactSealerError{AudioArtifactSealerError::Kind::noCapturedSignal, ""})));
      } catch (...) {
        failWith(std::current_exception());
      }
      t.render = secondsSince(renderStarted);
    });

    const auto encodeStarted = Clock::now();
    try {
      relay.update([](SealingProgress& p) { p.stage = SealingStage::encoding; });
      encoder_.encode(
          rendered, temporaryM4A,
          [&](std::int64_t encoded) {
            // Workers report out of order now and then: the count only moves forward.
            relay.update(
                [&](SealingProgress& p) { p.framesEncoded = std::max(p.framesEncoded, encoded); });
            if (cancel && cancel->load()) stop = true;
          },
          &stop);
    } catch (...) {
      failWith(std::current_exception());
    }
    renderThread.join();
    t.encode = secondsSince(encodeStarted);
    if (cancel && cancel->load()) throw std::runtime_error("cancelled");
    if (firstError) {
      try {
        std::rethrow_exception(firstError);
      } catch (const std::system_error& e) {
        ioFailure(e.what());
      }
    }

    relay.update([](SealingProgress& p) { p.stage = SealingStage::hashing; });
    const auto hashStarted = Clock::now();
    TrackManifest manifest;
    try {
      manifest.sha256 = hasher_.sha256Hex(temporaryM4A);
    } catch (const std::system_error& e) {
      ioFailure(e.what());
    }
    t.hash = secondsSince(hashStarted);

    relay.update([](SealingProgress& p) { p.stage = SealingStage::installing; });
    const auto installStarted = Clock::now();
    manifest.tracks.push_back(input.mic);
    if (input.system) manifest.tracks.push_back(*input.system);
    manifest.combinedDuration = static_cast<double>(plan.totalFrames) / M4AAudioEncoder::sampleRate;
    manifest.gaps = input.mic.gaps;
    if (input.system)
      manifest.gaps.insert(manifest.gaps.end(), input.system->gaps.begin(),
                           input.system->gaps.end());
    manifest.driftCorrection = plan.drift;
    writeNewFile(temporaryManifest, manifestEncoder_.encode(manifest));
    // The audio first: a manifest is never installed before the file its hash names.
    for (const auto& [from, to] : {std::pair{temporaryM4A, paths.combinedM4A},
                                   std::pair{temporaryManifest, paths.manifestJSON}}) {
      std::error_code ec;
      fs::rename(from, to, ec);
      if (ec) ioFailure("cannot install " + to.string() + ": " + ec.message());
      fs::permissions(to, fs::perms::owner_read | fs::perms::owner_write, ec);
    }
    lock.syncFolder();
    cleanUp();  // the rendered timeline was the encoder's input only
    t.manifestAndInstall = secondsSince(installStarted);
    t.total = secondsSince(started);
    relay.update([](SealingProgress& p) { p.stage = SealingStage::finished; });
    if (timings) *timings = t;

    MeetingSealingOutput output;
    output.artifact.combinedFileURL = paths.combinedM4A;
    output.artifact.manifest = std::move(manifest);
    output.artifact.usable = true;
    output.manifestURL = paths.manifestJSON;
    output.rawTrackURLs.push_back(paths.micCAF);
    if (input.system) output.rawTrackURLs.push_back(paths.systemCAF);
    return output;
  } catch (...) {
    cleanUp();
    throw;
  }
}

}  // namespace tamsel::sealing
