#pragma once
// Capture from the Linux audio server through libpulse, which PulseAudio and PipeWire's pulse
// server both speak. MicrophoneSource records the default source (or a named one);
// SystemAudioTapSource records the monitor of the default sink: everything the machine plays.
//
// Each source has its own server connection with a threaded main loop. Its read callback is the
// capture callback: it derives the device sample time, copies the data into the track recorder
// and updates a few atomics, nothing else (no log, no allocation, no lock but the recorder's
// two). A control thread per source does everything else: it follows the default device, moves
// or reconnects the stream, logs, and raises the no-audio warning.
//
// Lost audio: PulseAudio keeps read_index continuous across a stretch it dropped and reports no
// overflow on record streams; PipeWire's read_index jumps (a hole). The check that works on both
// is the frames received against CLOCK_MONOTONIC: a deficit that stays once the backlog is read
// becomes lost frames, so the stretch lands on the timeline as a captureLoss gap.
//
// Exclusion: a monitor source mixes every client of the sink; the pulse protocol cannot leave
// one client's streams out of it, so the system track also holds the desktop's own playback.
// `exclusionNote()` says so for the track's result.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tamsel/base/mutex.hpp"
#include "tamsel/meeting/signal_monitors.hpp"
#include "tamsel/meeting/track_recorder.hpp"

struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;

namespace tamsel::meeting {

struct AudioCaptureRoute {
  std::string uid;   // the server's device name
  std::string name;  // its description
};

struct AudioDevice {
  std::string name, description;
  bool isMonitor = false;
  bool isDefault = false;
  std::uint32_t sampleRate = 0, channels = 0;
};

struct AudioDeviceList {
  std::string serverName, serverVersion;
  std::string defaultSource, defaultSink;
  std::vector<AudioDevice> sources, sinks;
};

class AudioServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One connection to the server with its own main-loop thread. Throws AudioServerError when the
// server cannot be reached within a few seconds.
class PulseConnection {
 public:
  explicit PulseConnection(const std::string& clientName);
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  AudioDeviceList devices();
  // The default sink and source as the server names them now.
  std::pair<std::string, std::string> defaults();

  pa_threaded_mainloop* loop() const { return loop_; }
  pa_context* context() const { return context_; }

 private:
  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
};

// Live figures of a track for meters and warnings; read from any thread.
// Start failures of the sources that are about the devices, not the server connection.
struct SystemTapError {
  enum class Kind { noOutputDevice, deviceStartFailed, outputDeviceChangedDuringStart };
  Kind kind;
  std::string detail;  // deviceStartFailed: the server's reason
  std::string description() const;
};
struct MicrophoneSourceError {
  enum class Kind { inputDeviceChangedRepeatedlyDuringStart };
  Kind kind;
  std::string description() const;
};
using SystemTapException = MeetingException<SystemTapError>;
using MicrophoneSourceException = MeetingException<MicrophoneSourceError>;

// What start() does when the default device is read again once the stream is connected: the
// stream may have been connected to a device that stopped being the default meanwhile. The
// system track cannot tell which output the user meant and fails; the microphone follows the
// new default, up to `kMicStartAttempts` connections.
enum class StartDeviceCheck { settled, reconnect, fail };
inline constexpr int kMicStartAttempts = 3;
StartDeviceCheck checkStartDevice(TrackSource source, const std::string& connected,
                                  const std::string& defaultNow, int attempt);

struct CaptureHealth {
  double levelDBFS = -120;       // RMS of the latest buffer
  double secondsSinceAudio = 0;  // since the last buffer (or since start when none came)
  std::uint64_t buffers = 0;
};

// One track's capture as the meeting capture engine drives it.
class MeetingCaptureSource {
 public:
  virtual ~MeetingCaptureSource() = default;
  virtual TrackSource source() const = 0;
  // Prepares the recorder, starts delivering into it and following the device. Throws.
  virtual AudioCaptureRoute start(std::shared_ptr<TrackRecorder> recordingSink) = 0;
  // Stops delivering; the recorder is left to the caller to stop. Safe to call twice.
  virtual void stop() = 0;
  virtual CaptureHealth health() const = 0;
  // Called on the source's own thread (never the capture callback): the track moved to another
  // device; the track could not follow its device and ended (the reason); a warning for people.
  std::function<void(const AudioCaptureRoute&)> routeChangeHandler;
  std::function<void(const std::string& reason)> routeFailureHandler;
  std::function<void(const std::string& warning)> warningHandler;
};

class PulseCaptureSource : public MeetingCaptureSource {
 public:
  ~PulseCaptureSource() override;
  PulseCaptureSource(const PulseCaptureSource&) = delete;
  PulseCaptureSource& operator=(const PulseCaptureSource&) = delete;

  TrackSource source() const override { return source_; }
  // Prepares the recorder (mono float 48 kHz), connects the stream to the current device and
  // starts following it. Throws AudioServerError, TrackRecorderException, SystemTapException,
  // MicrophoneSourceException.
  AudioCaptureRoute start(std::shared_ptr<TrackRecorder> recordingSink) override;
  // Disconnects; the recorder is left to the caller to stop. Safe to call twice.
  void stop() override;

  CaptureHealth health() const override;

 protected:
  PulseCaptureSource(TrackSource source, std::optional<std::string> fixedDevice);
  // Called by start() before the recorder is prepared.
  virtual void willStart(TrackRecorder&) {}
  // The device the track should be on now, from the server's defaults.
  virtual std::string desiredDevice(const std::string& defaultSink,
                                    const std::string& defaultSource) const = 0;
  const char* logSource() const { return source_ == TrackSource::mic ? "mic" : "systap"; }
  std::optional<std::string> fixedDevice_;

 private:
  struct Capture;  // what the callbacks see
  bool connectStream(const std::string& device);
  void disconnectStream();
  void controlLoop();
  void followDefaults();
  std::string describe(const std::string& device);

  const TrackSource source_;
  std::unique_ptr<PulseConnection> connection_;
  std::unique_ptr<Capture> capture_;
  pa_stream* stream_ = nullptr;  // under the main loop's lock
  std::shared_ptr<TrackRecorder> recorder_;
  std::string currentDevice_;  // control thread

  base::Mutex controlLock_;
  base::ConditionVariable controlWake_;
  bool stopRequested_ GUARDED_BY(controlLock_) = false;
  std::thread control_;
};

class MicrophoneSource final : public PulseCaptureSource {
 public:
  // `device`: a source name to record instead of the default (then it is not followed).
  // `silenceGraceSeconds`: the digital-silence warning's grace (3.0 s in the app).
  explicit MicrophoneSource(std::optional<std::string> device = std::nullopt,
                            double silenceGraceSeconds = 3.0);
  // Called on the mic writer thread for each published activity. The source must outlive the
  // recorder's writer (finish the recorder before the source goes).
  std::function<void(MicrophoneSignalActivity)> signalActivities;

 private:
  // Installs the signal monitors on the recorder's writer side.
  void willStart(TrackRecorder& recorder) override;
  std::string desiredDevice(const std::string& defaultSink,
                            const std::string& defaultSource) const override;
  std::shared_ptr<DigitalSilenceMonitor> signalMonitor_;
  std::shared_ptr<LowSignalMonitor> lowSignalMonitor_;
};

class SystemAudioTapSource final : public PulseCaptureSource {
 public:
  explicit SystemAudioTapSource(std::optional<std::string> sink = std::nullopt);
  // Why the desktop's own playback is not left out of this track.
  static const char* exclusionNote();

 private:
  std::string desiredDevice(const std::string& defaultSink,
                            const std::string& defaultSource) const override;
};

// The monotonic clock in nanoseconds: the host clock of every capture time stamp.
std::uint64_t hostTimeNow();

}  // namespace tamsel::meeting
