#include "tamsel/meeting/pulse_capture.hpp"

#include <pulse/pulseaudio.h>
#include <time.h>

#include <chrono>
#include <cmath>

#include "tamsel/base/log.hpp"
#include "tamsel/meeting/capture_callback_router.hpp"
#include "tamsel/meeting/capture_loss_detector.hpp"

namespace tamsel::meeting {

namespace {

constexpr double kRate = 48000;
constexpr std::int64_t kPieceFrames = 960;  // 20 ms: fits a pool slot
constexpr double kNoAudioSeconds = 3.0;
constexpr AudioFormat kCaptureFormat{kRate, 1, SampleType::float32, true};

// Runs an operation to its end on the control thread; the callbacks signal the loop.
void waitFor(pa_threaded_mainloop* loop, pa_operation* op) {
  if (!op) return;
  while (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_threaded_mainloop_wait(loop);
  pa_operation_unref(op);
}

class LoopLock {
 public:
  explicit LoopLock(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
  ~LoopLock() { pa_threaded_mainloop_unlock(loop_); }
  LoopLock(const LoopLock&) = delete;
  LoopLock& operator=(const LoopLock&) = delete;

 private:
  pa_threaded_mainloop* loop_;
};

}  // namespace

std::uint64_t hostTimeNow() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000ull +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

// ---- connection ----

PulseConnection::PulseConnection(const std::string& clientName) {
  loop_ = pa_threaded_mainloop_new();
  if (!loop_) throw AudioServerError("cannot create the audio main loop");
  pa_proplist* props = pa_proplist_new();
  pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, clientName.c_str());
  pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "dev.tamsel.desktop");
  context_ =
      pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop_), clientName.c_str(), props);
  pa_proplist_free(props);
  pa_context_set_state_callback(
      context_,
      [](pa_context*, void* loop) {
        pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
      },
      loop_);
  // Never start a server of our own: record from the one the user runs.
  if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
      pa_threaded_mainloop_start(loop_) < 0) {
    const std::string reason = pa_strerror(pa_context_errno(context_));
    pa_context_unref(context_);
    pa_threaded_mainloop_free(loop_);
    throw AudioServerError("cannot connect to the audio server: " + reason);
  }
  std::string failure;
  pa_threaded_mainloop_lock(loop_);
  for (;;) {
    const auto state = pa_context_get_state(context_);
    if (state == PA_CONTEXT_READY) break;
    if (!PA_CONTEXT_IS_GOOD(state)) {
      failure = pa_strerror(pa_context_errno(context_));
      break;
    }
    pa_threaded_mainloop_wait(loop_);
  }
  pa_threaded_mainloop_unlock(loop_);
  if (!failure.empty()) {
    pa_threaded_mainloop_stop(loop_);
    pa_context_unref(context_);
    pa_threaded_mainloop_free(loop_);
    loop_ = nullptr;
    throw AudioServerError("cannot connect to the audio server: " + failure);
  }
}

PulseConnection::~PulseConnection() {
  if (!loop_) return;
  {
    LoopLock lock(loop_);
    pa_context_disconnect(context_);
  }
  pa_threaded_mainloop_stop(loop_);
  pa_context_unref(context_);
  pa_threaded_mainloop_free(loop_);
}

namespace {
struct DeviceQuery {
  pa_threaded_mainloop* loop;
  AudioDeviceList list;
};

// The server's name, version and default devices, into `q.list`; the loop lock is held.
void readServerInfo(pa_context* context, DeviceQuery& q) {
  waitFor(q.loop,
          pa_context_get_server_info(
              context,
              [](pa_context*, const pa_server_info* info, void* data) {
                auto& q = *static_cast<DeviceQuery*>(data);
                if (info) {
                  q.list.serverName = info->server_name ? info->server_name : "";
                  q.list.serverVersion = info->server_version ? info->server_version : "";
                  q.list.defaultSink = info->default_sink_name ? info->default_sink_name : "";
                  q.list.defaultSource = info->default_source_name ? info->default_source_name : "";
                }
                pa_threaded_mainloop_signal(q.loop, 0);
              },
              &q));
}
}  // namespace

AudioDeviceList PulseConnection::devices() {
  DeviceQuery q{loop_, {}};
  LoopLock lock(loop_);
  readServerInfo(context_, q);
  waitFor(loop_,
          pa_context_get_source_info_list(
              context_,
              [](pa_context*, const pa_source_info* info, int eol, void* data) {
                auto& q = *static_cast<DeviceQuery*>(data);
                if (eol || !info) {
                  pa_threaded_mainloop_signal(q.loop, 0);
                  return;
                }
                q.list.sources.push_back(AudioDevice{
                    info->name, info->description ? info->description : "",
                    info->monitor_of_sink != PA_INVALID_INDEX, q.list.defaultSource == info->name,
                    info->sample_spec.rate, info->sample_spec.channels});
              },
              &q));
  waitFor(loop_, pa_context_get_sink_info_list(
                     context_,
                     [](pa_context*, const pa_sink_info* info, int eol, void* data) {
                       auto& q = *static_cast<DeviceQuery*>(data);
                       if (eol || !info) {
                         pa_threaded_mainloop_signal(q.loop, 0);
                         return;
                       }
                       q.list.sinks.push_back(
                           AudioDevice{info->name, info->description ? info->description : "",
                                       false, q.list.defaultSink == info->name,
                                       info->sample_spec.rate, info->sample_spec.channels});
                     },
                     &q));
  return q.list;
}

std::pair<std::string, std::string> PulseConnection::defaults() {
  DeviceQuery q{loop_, {}};
  LoopLock lock(loop_);
  readServerInfo(context_, q);
  return {q.list.defaultSink, q.list.defaultSource};
}

// ---- capture ----

struct PulseCaptureSource::Capture {
  explicit Capture(std::shared_ptr<TrackRecorder> recorder, pa_threaded_mainloop* loop)
      : router(recorder), sink(recorder), loop(loop) {}
  CaptureCallbackRouter router;
  std::weak_ptr<TrackRecorder> sink;
  pa_threaded_mainloop* loop;

  // Main-loop thread only: the device sample time is frames received plus frames lost.
  CaptureLossDetector loss{kRate};
  std::int64_t received = 0, lost = 0;

  // Read by the control thread.
  std::atomic<std::uint64_t> startedHost{0}, lastAudioHost{0}, buffers{0}, moves{0}, suspends{0};
  std::atomic<std::int64_t> lostFrames{0};
  std::atomic<std::uint32_t> firstFrames{0};
  std::atomic<float> rms{0};
  std::atomic<bool> streamLost{false}, serverChanged{false};

  void restartClock() {
    flush();
    loss.restart();
    received = lost = 0;
  }

  // Small fragments are gathered into one chunk of up to kPieceFrames before they are handed
  // over, so a backlog read after a stall does not flood the queue with tiny chunks.
  float staging[kPieceFrames];
  std::int64_t staged = 0, stagedSampleTime = 0;
  std::uint64_t stagedHost = 0;

  void flush() {
    if (staged == 0) return;
    router.deliver({kCaptureFormat, staging, staged},
                   {static_cast<double>(stagedSampleTime), stagedHost, true, true});
    staged = 0;
  }

  void addLost(std::int64_t frames) {
    flush();  // what was gathered lies before the lost stretch
    lost += frames;
    lostFrames.fetch_add(frames, std::memory_order_relaxed);
  }

  // The meter's level: RMS over 100 ms, whatever the fragment sizes (a few samples of a tone
  // say little about its level).
  double meterSum = 0;
  std::int64_t meterFrames = 0;
  void meter(const float* samples, std::int64_t frames) {
    for (std::int64_t i = 0; i < frames; ++i)
      meterSum += static_cast<double>(samples[i]) * samples[i];
    meterFrames += frames;
    if (meterFrames >= static_cast<std::int64_t>(kRate / 10)) {
      rms.store(static_cast<float>(std::sqrt(meterSum / static_cast<double>(meterFrames))),
                std::memory_order_relaxed);
      meterSum = 0;
      meterFrames = 0;
    }
  }

  static std::uint64_t duration(std::int64_t frames) {
    return static_cast<std::uint64_t>(static_cast<double>(frames) * 1e9 / kRate);
  }

  static void onRead(pa_stream* stream, std::size_t, void* data) {
    auto& c = *static_cast<Capture*>(data);
    for (;;) {
      const std::size_t readable = pa_stream_readable_size(stream);
      if (readable == 0 || readable == static_cast<std::size_t>(-1)) break;
      const void* bytes = nullptr;
      std::size_t size = 0;
      if (pa_stream_peek(stream, &bytes, &size) < 0 || size == 0) break;
      const auto frames = static_cast<std::int64_t>(size / sizeof(float));
      if (!bytes) {
        // A hole: the server skipped this much (PipeWire after a stall, when its buffer ran
        // over). Unlike a device that delivers an empty buffer on time, these frames existed and
        // were lost, so they are a captureLoss gap rather than silence written in their place.
        if (c.loss.anchored()) c.addLost(frames);
        pa_stream_drop(stream);
        continue;
      }
      const std::uint64_t now = hostTimeNow();
      if (!c.loss.anchored()) c.loss.anchor(now, frames);
      // The last fragment readable now: is the stream behind the clock for good?
      if (readable <= size)
        if (const auto missing = c.loss.check(now, c.received + c.lost + frames))
          c.addLost(missing);
      const auto* samples = static_cast<const float*>(bytes);
      for (std::int64_t done = 0; done < frames;) {
        if (c.staged == 0) {
          c.stagedSampleTime = c.received + c.lost;
          c.stagedHost = now - duration(frames - done);
        }
        const std::int64_t n = std::min(kPieceFrames - c.staged, frames - done);
        std::copy(samples + done, samples + done + n, c.staging + c.staged);
        c.staged += n;
        c.received += n;
        done += n;
        if (c.staged == kPieceFrames) c.flush();
      }
      c.meter(samples, frames);
      if (c.buffers.fetch_add(1, std::memory_order_relaxed) == 0)
        c.firstFrames.store(static_cast<std::uint32_t>(frames), std::memory_order_relaxed);
      c.lastAudioHost.store(now, std::memory_order_relaxed);
      pa_stream_drop(stream);
    }
    c.flush();  // nothing more to read now: hand over what was gathered
  }

  static void onState(pa_stream* stream, void* data) {
    auto& c = *static_cast<Capture*>(data);
    const auto state = pa_stream_get_state(stream);
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED)
      c.streamLost.store(true, std::memory_order_relaxed);
    pa_threaded_mainloop_signal(c.loop, 0);
  }

  static void onMoved(pa_stream*, void* data) {
    auto& c = *static_cast<Capture*>(data);
    // The new device's frames start a new mapping onto the track's timeline.
    if (auto sink = c.sink.lock()) sink->rebindRoute();
    c.restartClock();
    c.moves.fetch_add(1, std::memory_order_relaxed);
  }

  static void onSuspended(pa_stream*, void* data) {
    static_cast<Capture*>(data)->suspends.fetch_add(1, std::memory_order_relaxed);
  }

  static void onServerEvent(pa_context*, pa_subscription_event_type_t type, std::uint32_t,
                            void* data) {
    const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    if (facility == PA_SUBSCRIPTION_EVENT_SERVER || facility == PA_SUBSCRIPTION_EVENT_SINK ||
        facility == PA_SUBSCRIPTION_EVENT_SOURCE)
      static_cast<Capture*>(data)->serverChanged.store(true, std::memory_order_relaxed);
  }
};

PulseCaptureSource::PulseCaptureSource(TrackSource source, std::optional<std::string> fixedDevice)
    : fixedDevice_(std::move(fixedDevice)), source_(source) {}

PulseCaptureSource::~PulseCaptureSource() { stop(); }

AudioCaptureRoute PulseCaptureSource::start(std::shared_ptr<TrackRecorder> recordingSink) {
  recorder_ = std::move(recordingSink);
  connection_ = std::make_unique<PulseConnection>(
      source_ == TrackSource::mic ? "Tamsel Desktop microphone" : "Tamsel Desktop system audio");
  const auto [defaultSink, defaultSource] = connection_->defaults();
  const std::string device = desiredDevice(defaultSink, defaultSource);
  if (device.empty() || device == ".monitor") {
    if (source_ == TrackSource::system)
      throw SystemTapException({SystemTapError::Kind::noOutputDevice, {}});
    throw AudioServerError("the audio server has no input device");
  }
  if (source_ == TrackSource::mic)
    base::log::info(logSource(), "install tap fmt={:f}Hz/{}ch", kRate, 1);
  else
    base::log::info(logSource(), "tap fmt={:f}Hz/{}ch", kRate, 1);
  willStart(*recorder_);
  recorder_->prepare(kCaptureFormat);
  capture_ = std::make_unique<Capture>(recorder_, connection_->loop());
  {
    LoopLock lock(connection_->loop());
    pa_context_set_subscribe_callback(connection_->context(), &Capture::onServerEvent,
                                      capture_.get());
    waitFor(connection_->loop(),
            pa_context_subscribe(
                connection_->context(),
                static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER |
                                                    PA_SUBSCRIPTION_MASK_SINK |
                                                    PA_SUBSCRIPTION_MASK_SOURCE),
                [](pa_context*, int, void* loop) {
                  pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
                },
                connection_->loop()));
  }
  std::string connected = device;
  for (int attempt = 1;; ++attempt) {
    if (!connectStream(connected)) {
      const std::string reason = [&] {
        LoopLock lock(connection_->loop());
        return std::string(pa_strerror(pa_context_errno(connection_->context())));
      }();
      if (source_ == TrackSource::system)
        throw SystemTapException({SystemTapError::Kind::deviceStartFailed, reason});
      throw AudioServerError(std::string(logSource()) + ": cannot record from " + connected + ": " +
                             reason);
    }
    if (fixedDevice_) break;
    const auto [sinkNow, sourceNow] = connection_->defaults();
    const std::string wantedNow = desiredDevice(sinkNow, sourceNow);
    const auto check = checkStartDevice(source_, connected, wantedNow, attempt);
    if (check == StartDeviceCheck::settled) break;
    disconnectStream();
    if (check == StartDeviceCheck::fail) {
      if (source_ == TrackSource::system)
        throw SystemTapException({SystemTapError::Kind::outputDeviceChangedDuringStart, {}});
      throw MicrophoneSourceException(
          {MicrophoneSourceError::Kind::inputDeviceChangedRepeatedlyDuringStart});
    }
    connected = wantedNow;
  }
  currentDevice_ = connected;
  if (source_ == TrackSource::mic) base::log::info(logSource(), "engine started");
  capture_->startedHost.store(hostTimeNow());
  control_ = std::thread([this] { controlLoop(); });
  return AudioCaptureRoute{connected, describe(connected)};
}

StartDeviceCheck checkStartDevice(TrackSource source, const std::string& connected,
                                  const std::string& defaultNow, int attempt) {
  // A default that vanished meanwhile is left to the control thread, which follows it.
  if (defaultNow.empty() || defaultNow == ".monitor" || defaultNow == connected)
    return StartDeviceCheck::settled;
  if (source == TrackSource::system) return StartDeviceCheck::fail;
  return attempt < kMicStartAttempts ? StartDeviceCheck::reconnect : StartDeviceCheck::fail;
}

std::string SystemTapError::description() const {
  switch (kind) {
    case Kind::noOutputDevice:
      return "the audio server has no output device";
    case Kind::deviceStartFailed:
      return "systap: cannot record the output device's monitor: " + detail;
    case Kind::outputDeviceChangedDuringStart:
      return "systap: the default output device changed while the recording started";
  }
  return "system audio error";
}

std::string MicrophoneSourceError::description() const {
  return "mic: the default input device kept changing while the recording started";
}

bool PulseCaptureSource::connectStream(const std::string& device) {
  auto* loop = connection_->loop();
  LoopLock lock(loop);
  pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, static_cast<std::uint32_t>(kRate), 1};
  pa_proplist* props = pa_proplist_new();
  pa_proplist_sets(props, PA_PROP_MEDIA_ROLE, "production");
  pa_proplist_sets(props, PA_PROP_MEDIA_NAME,
                   source_ == TrackSource::mic ? "meeting microphone" : "meeting system audio");
  auto* stream =
      pa_stream_new_with_proplist(connection_->context(), "meeting capture", &spec, nullptr, props);
  pa_proplist_free(props);
  if (!stream) return false;
  pa_stream_set_read_callback(stream, &Capture::onRead, capture_.get());
  pa_stream_set_state_callback(stream, &Capture::onState, capture_.get());
  pa_stream_set_moved_callback(stream, &Capture::onMoved, capture_.get());
  pa_stream_set_suspended_callback(stream, &Capture::onSuspended, capture_.get());
  // 40 ms fragments (fewer wake-ups; a recording needs no low latency); a 2 s server-side
  // buffer rides out a short stall of this process.
  pa_buffer_attr attr{};
  attr.maxlength = static_cast<std::uint32_t>(2 * kRate * sizeof(float));
  attr.fragsize = static_cast<std::uint32_t>(0.04 * kRate * sizeof(float));
  attr.tlength = attr.prebuf = attr.minreq = static_cast<std::uint32_t>(-1);
  // A microphone stream on the default source is left unnamed so the server moves it with
  // the default; the control thread moves it as well where the server does not.
  const char* target = (source_ == TrackSource::mic && !fixedDevice_) ? nullptr : device.c_str();
  if (pa_stream_connect_record(stream, target, &attr, PA_STREAM_ADJUST_LATENCY) < 0) {
    pa_stream_unref(stream);
    return false;
  }
  for (;;) {
    const auto state = pa_stream_get_state(stream);
    if (state == PA_STREAM_READY) break;
    if (!PA_STREAM_IS_GOOD(state)) {
      pa_stream_set_read_callback(stream, nullptr, nullptr);
      pa_stream_set_state_callback(stream, nullptr, nullptr);
      pa_stream_set_moved_callback(stream, nullptr, nullptr);
      pa_stream_set_suspended_callback(stream, nullptr, nullptr);
      pa_stream_unref(stream);
      return false;
    }
    pa_threaded_mainloop_wait(loop);
  }
  capture_->streamLost.store(false);
  stream_ = stream;
  return true;
}

void PulseCaptureSource::disconnectStream() {
  if (!stream_) return;
  LoopLock lock(connection_->loop());
  pa_stream_set_read_callback(stream_, nullptr, nullptr);
  pa_stream_set_state_callback(stream_, nullptr, nullptr);
  pa_stream_set_moved_callback(stream_, nullptr, nullptr);
  pa_stream_set_suspended_callback(stream_, nullptr, nullptr);
  pa_stream_disconnect(stream_);
  pa_stream_unref(stream_);
  stream_ = nullptr;
}

void PulseCaptureSource::stop() {
  {
    base::MutexLock lock(controlLock_);
    stopRequested_ = true;
  }
  controlWake_.notifyAll();
  if (control_.joinable()) control_.join();
  if (connection_) {
    disconnectStream();
    {
      LoopLock lock(connection_->loop());
      pa_context_set_subscribe_callback(connection_->context(), nullptr, nullptr);
    }
    connection_.reset();
  }
}

std::string PulseCaptureSource::describe(const std::string& device) {
  struct Query {
    pa_threaded_mainloop* loop;
    std::string description;
  } q{connection_->loop(), {}};
  LoopLock lock(connection_->loop());
  const auto found = [](pa_context*, const auto* info, int eol, void* data) {
    auto& q = *static_cast<Query*>(data);
    if (!eol && info && info->description) q.description = info->description;
    if (eol || !info) pa_threaded_mainloop_signal(q.loop, 0);
  };
  if (source_ == TrackSource::mic || device.size() <= 8 ||
      device.compare(device.size() - 8, 8, ".monitor") != 0) {
    waitFor(connection_->loop(), pa_context_get_source_info_by_name(
                                     connection_->context(), device.c_str(),
                                     +[](pa_context* c, const pa_source_info* i, int eol, void* d) {
                                       decltype(found){}(c, i, eol, d);
                                     },
                                     &q));
  } else {
    // A monitor is named after its sink; the sink's description is what a person knows.
    const std::string sink = device.substr(0, device.size() - 8);
    waitFor(connection_->loop(), pa_context_get_sink_info_by_name(
                                     connection_->context(), sink.c_str(),
                                     +[](pa_context* c, const pa_sink_info* i, int eol, void* d) {
                                       decltype(found){}(c, i, eol, d);
                                     },
                                     &q));
  }
  return q.description.empty() ? device : q.description;
}

CaptureHealth PulseCaptureSource::health() const {
  CaptureHealth h;
  if (!capture_) return h;
  const float rms = capture_->rms.load(std::memory_order_relaxed);
  h.levelDBFS = rms > 1e-6f ? 20.0 * std::log10(static_cast<double>(rms)) : -120.0;
  const auto last = capture_->lastAudioHost.load(std::memory_order_relaxed);
  const auto since = last ? last : capture_->startedHost.load(std::memory_order_relaxed);
  const auto now = hostTimeNow();
  h.secondsSinceAudio = since && now > since ? static_cast<double>(now - since) / 1e9 : 0.0;
  h.buffers = capture_->buffers.load(std::memory_order_relaxed);
  return h;
}

void PulseCaptureSource::followDefaults() {
  const auto [defaultSink, defaultSource] = connection_->defaults();
  const std::string wanted = desiredDevice(defaultSink, defaultSource);
  if (wanted.empty() || wanted == ".monitor" || !stream_) return;
  std::string current;
  std::uint32_t index;
  {
    LoopLock lock(connection_->loop());
    const char* name = pa_stream_get_device_name(stream_);
    current = name ? name : "";
    index = pa_stream_get_index(stream_);
  }
  if (current == wanted) return;
  // The server leaves a monitor stream on the old sink's monitor: move it ourselves.
  struct Move {
    pa_threaded_mainloop* loop;
    bool ok = false;
  } move{connection_->loop()};
  {
    LoopLock lock(connection_->loop());
    waitFor(connection_->loop(), pa_context_move_source_output_by_name(
                                     connection_->context(), index, wanted.c_str(),
                                     [](pa_context*, int success, void* data) {
                                       auto& m = *static_cast<Move*>(data);
                                       m.ok = success != 0;
                                       pa_threaded_mainloop_signal(m.loop, 0);
                                     },
                                     &move));
  }
  if (!move.ok) base::log::warn(logSource(), "cannot move the stream to {}", wanted);
}

void PulseCaptureSource::controlLoop() {
  auto& c = *capture_;
  std::uint64_t movesSeen = 0, suspendsSeen = 0, buffersLogged = 0;
  std::int64_t lostLogged = 0;
  bool firstLogged = false, noAudioWarned = false;
  std::optional<std::uint64_t> lostSince;  // when the stream went away and no new one took over
  for (;;) {
    {
      base::MutexLock lock(controlLock_);
      if (stopRequested_) return;
      controlWake_.waitFor(controlLock_, std::chrono::milliseconds(100));
      if (stopRequested_) return;
    }
    const auto buffers = c.buffers.load(std::memory_order_relaxed);
    if (!firstLogged && buffers > 0) {
      firstLogged = true;
      if (source_ == TrackSource::mic)
        base::log::info(logSource(), "first buffer frames={} fmt={:f}Hz/{}ch", c.firstFrames.load(),
                        kRate, 1);
    }
    if (source_ == TrackSource::mic && buffers / 100 > buffersLogged) {
      buffersLogged = buffers / 100;
      base::log::debug(logSource(), "buffer #{}", buffersLogged * 100);
    }
    if (const auto lost = c.lostFrames.load(); lost != lostLogged) {
      base::log::warn(logSource(), "{} frames lost by the audio server, kept as a gap",
                      lost - lostLogged);
      lostLogged = lost;
    }
    if (const auto s = c.suspends.load(); s != suspendsSeen) {
      suspendsSeen = s;
      base::log::info(logSource(), "device suspended or resumed");
    }
    try {
      if (c.serverChanged.exchange(false)) followDefaults();
      if (c.streamLost.load()) {
        // The device went and took the stream with it: record from what is the default now.
        const auto [defaultSink, defaultSource] = connection_->defaults();
        const std::string wanted = desiredDevice(defaultSink, defaultSource);
        disconnectStream();
        if (!lostSince) lostSince = hostTimeNow();
        if (!wanted.empty() && wanted != ".monitor" && connectStream(wanted)) {
          lostSince.reset();
          recorder_->rebindRoute();
          {
            LoopLock lock(connection_->loop());
            c.restartClock();
          }
          c.moves.fetch_add(1);
        } else if (hostTimeNow() - *lostSince > 1'000'000'000ull) {
          recorder_->fail(
              source_ == TrackSource::mic
                  ? TrackRecordingFailure{TrackRecordingFailure::MicInputRouteChanged{}}
                  : TrackRecordingFailure{TrackRecordingFailure::SystemOutputRouteChanged{}});
          base::log::warn(logSource(), "cannot follow the device; the track ends here");
          if (routeFailureHandler) routeFailureHandler("no device to record from");
          return;
        }
      }
      if (const auto m = c.moves.load(); m != movesSeen) {
        movesSeen = m;
        std::string device;
        {
          LoopLock lock(connection_->loop());
          const char* name = stream_ ? pa_stream_get_device_name(stream_) : nullptr;
          device = name ? name : "";
        }
        currentDevice_ = device;
        base::log::info(logSource(), "rebound route uid={}", device);
        if (routeChangeHandler) routeChangeHandler(AudioCaptureRoute{device, describe(device)});
      }
    } catch (const std::exception& e) {
      base::log::warn(logSource(), "{}", e.what());
    }
    const auto h = health();
    if (h.secondsSinceAudio >= kNoAudioSeconds && !noAudioWarned) {
      noAudioWarned = true;
      const std::string text =
          std::string(logSource()) + ": no audio from " + currentDevice_ + " for 3 s";
      base::log::warn(logSource(), "no audio from {} for 3 s", currentDevice_);
      if (warningHandler) warningHandler(text);
    } else if (h.secondsSinceAudio < 1.0 && noAudioWarned) {
      noAudioWarned = false;
    }
  }
}

// ---- the two sources ----

MicrophoneSource::MicrophoneSource(std::optional<std::string> device, double silenceGraceSeconds)
    : PulseCaptureSource(TrackSource::mic, std::move(device)),
      signalMonitor_(std::make_shared<DigitalSilenceMonitor>(silenceGraceSeconds)),
      lowSignalMonitor_(std::make_shared<LowSignalMonitor>()) {}

void MicrophoneSource::willStart(TrackRecorder& recorder) {
  recorder.chunkObserver = [silence = signalMonitor_, low = lowSignalMonitor_,
                            this](const AudioBuffer& buffer) {
    const auto& f = buffer.format();
    if (buffer.frameLength() <= 0 || !(f.sampleRate > 0)) return;
    const double seconds = static_cast<double>(buffer.frameLength()) / f.sampleRate;
    const auto level = measure(f, buffer.data(), buffer.frameLength());
    const auto s = silence->observe(level.hasLevel && level.digitallySilent, seconds);
    const auto l = low->observe(level.hasLevel ? std::optional(level.rms) : std::nullopt, seconds);
    const auto p = publish(s, l, low->warningIssued());
    for (const auto& activity : {p.first, p.second})
      if (activity && signalActivities) signalActivities(*activity);
  };
}

std::string MicrophoneSource::desiredDevice(const std::string&,
                                            const std::string& defaultSource) const {
  return fixedDevice_ ? *fixedDevice_ : defaultSource;
}

SystemAudioTapSource::SystemAudioTapSource(std::optional<std::string> sink)
    : PulseCaptureSource(TrackSource::system, std::move(sink)) {}

const char* SystemAudioTapSource::exclusionNote() {
  return "not applied: the sink's monitor mixes every client, and the audio server offers no "
         "way to leave one out";
}

std::string SystemAudioTapSource::desiredDevice(const std::string& defaultSink,
                                                const std::string&) const {
  // Under PipeWire @DEFAULT_MONITOR@ is the default source: name the sink's monitor instead.
  return (fixedDevice_ ? *fixedDevice_ : defaultSink) + ".monitor";
}

}  // namespace tamsel::meeting
