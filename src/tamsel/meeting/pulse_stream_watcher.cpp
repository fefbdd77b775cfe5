#include "tamsel/meeting/pulse_stream_watcher.hpp"

#include <pulse/pulseaudio.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tamsel/base/log.hpp"
#include "tamsel/base/mutex.hpp"
#include "tamsel/meeting/pulse_capture.hpp"

namespace tamsel::meeting {

namespace {

constexpr auto kReconnectInterval = std::chrono::seconds(2);
// Events come in bursts (a client connects: client, stream, source state); one read after the
// burst is enough.
constexpr auto kSettle = std::chrono::milliseconds(30);

// Properties a process is known by: taken from the client when the stream lacks them.
constexpr const char* kProcessKeys[] = {"application.process.id", "application.process.binary",
                                        "application.id", "application.name",
                                        "pipewire.access.portal.app_id"};

using Properties = std::map<std::string, std::string>;

// Every watcher of the process sees the same server: say it is gone once, not once per watcher.
std::atomic<bool> serverDownReported{false};

Properties readProperties(const pa_proplist* list) {
  Properties out;
  if (!list) return out;
  void* state = nullptr;
  while (const char* key = pa_proplist_iterate(list, &state)) {
    if (const char* value = pa_proplist_gets(list, key)) out.emplace(key, value);
  }
  return out;
}

void waitFor(pa_threaded_mainloop* loop, pa_operation* op) {
  if (!op) return;
  while (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_threaded_mainloop_wait(loop);
  pa_operation_unref(op);
}

struct SourceFacts {
  std::string name;
  bool running = false;
  bool monitor = false;
};

struct Reading {
  pa_threaded_mainloop* loop;
  std::string defaultSource;
  std::map<std::uint32_t, SourceFacts> sources;
  std::map<std::uint32_t, Properties> clients;
  std::vector<AudioStreamInfo> records, playbacks;
};

}  // namespace

struct PulseStreamWatcher::Impl {
  std::string clientName;
  Handler onTable;
  base::Mutex mutex;
  base::ConditionVariable wake;
  bool stopRequested GUARDED_BY(mutex) = false;
  bool dirty GUARDED_BY(mutex) = false;
  bool failed GUARDED_BY(mutex) = false;
  std::thread thread;
  std::optional<AudioStreamTable> last;  // watcher thread only

  void notify(bool setDirty, bool setFailed) {
    {
      base::MutexLock lock(mutex);
      dirty = dirty || setDirty;
      failed = failed || setFailed;
    }
    wake.notifyAll();
  }

  void deliver(AudioStreamTable table) {
    if (last && *last == table) return;
    last = table;
    if (onTable) onTable(table);
  }

  AudioStreamTable read(PulseConnection& connection) {
    Reading r{connection.loop(), {}, {}, {}, {}, {}};
    pa_threaded_mainloop_lock(r.loop);
    auto* context = connection.context();
    waitFor(r.loop, pa_context_get_server_info(
                        context,
                        [](pa_context*, const pa_server_info* info, void* data) {
                          auto& r = *static_cast<Reading*>(data);
                          if (info && info->default_source_name)
                            r.defaultSource = info->default_source_name;
                          pa_threaded_mainloop_signal(r.loop, 0);
                        },
                        &r));
    waitFor(r.loop, pa_context_get_source_info_list(
                        context,
                        [](pa_context*, const pa_source_info* info, int eol, void* data) {
                          auto& r = *static_cast<Reading*>(data);
                          if (eol || !info) return pa_threaded_mainloop_signal(r.loop, 0);
                          r.sources[info->index] = {info->name ? info->name : "",
                                                    info->state == PA_SOURCE_RUNNING,
                                                    info->monitor_of_sink != PA_INVALID_INDEX};
                        },
                        &r));
    waitFor(r.loop, pa_context_get_client_info_list(
                        context,
                        [](pa_context*, const pa_client_info* info, int eol, void* data) {
                          auto& r = *static_cast<Reading*>(data);
                          if (eol || !info) return pa_threaded_mainloop_signal(r.loop, 0);
                          r.clients[info->index] = readProperties(info->proplist);
                        },
                        &r));
    waitFor(r.loop, pa_context_get_source_output_info_list(
                        context,
                        [](pa_context*, const pa_source_output_info* info, int eol, void* data) {
                          auto& r = *static_cast<Reading*>(data);
                          if (eol || !info) return pa_threaded_mainloop_signal(r.loop, 0);
                          AudioStreamInfo s;
                          s.index = info->index;
                          s.direction = AudioStreamInfo::Direction::record;
                          if (info->client != PA_INVALID_INDEX) s.client = info->client;
                          s.corked = info->corked != 0;
                          s.device = std::to_string(info->source);  // resolved to a name below
                          s.sampleRate = info->sample_spec.rate;
                          s.propertiesRead = info->proplist != nullptr;
                          s.properties = readProperties(info->proplist);
                          r.records.push_back(std::move(s));
                        },
                        &r));
    waitFor(r.loop, pa_context_get_sink_input_info_list(
                        context,
                        [](pa_context*, const pa_sink_input_info* info, int eol, void* data) {
                          auto& r = *static_cast<Reading*>(data);
                          if (eol || !info) return pa_threaded_mainloop_signal(r.loop, 0);
                          AudioStreamInfo s;
                          s.index = info->index;
                          s.direction = AudioStreamInfo::Direction::playback;
                          if (info->client != PA_INVALID_INDEX) s.client = info->client;
                          s.corked = info->corked != 0;
                          s.device = std::to_string(info->sink);
                          s.sampleRate = info->sample_spec.rate;
                          s.propertiesRead = info->proplist != nullptr;
                          s.properties = readProperties(info->proplist);
                          r.playbacks.push_back(std::move(s));
                        },
                        &r));
    pa_threaded_mainloop_unlock(r.loop);

    AudioStreamTable table;
    table.defaultSource = r.defaultSource;
    for (const auto& [index, source] : r.sources)
      if (source.name == r.defaultSource) table.defaultSourceRunning = source.running;
    for (auto* list : {&r.records, &r.playbacks}) {
      for (auto& stream : *list) {
        if (stream.direction == AudioStreamInfo::Direction::record) {
          const auto found = r.sources.find(static_cast<std::uint32_t>(std::stoul(stream.device)));
          stream.deviceIsMonitor = found != r.sources.end() && found->second.monitor;
          stream.device = found != r.sources.end() ? found->second.name : std::string();
        }
        if (stream.client) {
          const auto client = r.clients.find(*stream.client);
          if (client != r.clients.end())
            for (const char* key : kProcessKeys)
              if (!stream.properties.count(key))
                if (const auto value = client->second.find(key); value != client->second.end())
                  stream.properties.emplace(key, value->second);
        }
        table.streams.push_back(std::move(stream));
      }
    }
    return table;
  }

  void run() {
    bool reportedDown = false;
    for (;;) {
      {
        base::MutexLock lock(mutex);
        if (stopRequested) return;
        dirty = true;
        failed = false;
      }
      std::unique_ptr<PulseConnection> connection;
      try {
        connection = std::make_unique<PulseConnection>(clientName);
      } catch (const std::exception& e) {
        if (!reportedDown && !serverDownReported.exchange(true))
          base::log::warn("meeting", "{}; trying again every 2 s", e.what());
        reportedDown = true;
        deliver({});  // nothing uses audio on a server that is gone
        base::MutexLock lock(mutex);
        if (!stopRequested) wake.waitFor(mutex, kReconnectInterval);
        continue;
      }
      if (reportedDown && serverDownReported.exchange(false))
        base::log::info("meeting", "audio server is back");
      reportedDown = false;
      {
        pa_threaded_mainloop_lock(connection->loop());
        pa_context_set_state_callback(
            connection->context(),
            [](pa_context* context, void* data) {
              auto* self = static_cast<Impl*>(data);
              if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) self->notify(false, true);
            },
            this);
        pa_context_set_subscribe_callback(
            connection->context(),
            [](pa_context*, pa_subscription_event_type_t, std::uint32_t, void* data) {
              static_cast<Impl*>(data)->notify(true, false);
            },
            this);
        if (auto* op = pa_context_subscribe(
                connection->context(),
                static_cast<pa_subscription_mask_t>(
                    PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SOURCE |
                    PA_SUBSCRIPTION_MASK_CLIENT | PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT |
                    PA_SUBSCRIPTION_MASK_SINK_INPUT),
                nullptr, nullptr))
          pa_operation_unref(op);
        pa_threaded_mainloop_unlock(connection->loop());
      }
      for (;;) {
        bool readNow = false, lost = false;
        {
          base::MutexLock lock(mutex);
          while (!stopRequested && !dirty && !failed) wake.wait(mutex);
          if (stopRequested) break;
          lost = failed;
          if (!lost && dirty) {
            wake.waitFor(mutex, kSettle);
            dirty = false;
            readNow = !stopRequested;
          }
        }
        if (lost) {
          base::log::warn("meeting", "lost the audio server connection; reconnecting");
          deliver({});
          break;
        }
        if (readNow) deliver(read(*connection));
      }
      {
        pa_threaded_mainloop_lock(connection->loop());
        pa_context_set_subscribe_callback(connection->context(), nullptr, nullptr);
        pa_context_set_state_callback(connection->context(), nullptr, nullptr);
        pa_threaded_mainloop_unlock(connection->loop());
      }
      connection.reset();
      base::MutexLock lock(mutex);
      if (stopRequested) return;
      wake.waitFor(mutex, kReconnectInterval);
    }
  }
};

PulseStreamWatcher::PulseStreamWatcher(std::string clientName, Handler onTable)
    : impl_(std::make_unique<Impl>()) {
  impl_->clientName = std::move(clientName);
  impl_->onTable = std::move(onTable);
}

PulseStreamWatcher::~PulseStreamWatcher() { stop(); }

void PulseStreamWatcher::start() {
  if (impl_->thread.joinable()) return;
  {
    base::MutexLock lock(impl_->mutex);
    impl_->stopRequested = false;
  }
  impl_->last.reset();
  impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
}

void PulseStreamWatcher::stop() {
  {
    base::MutexLock lock(impl_->mutex);
    impl_->stopRequested = true;
  }
  impl_->wake.notifyAll();
  if (impl_->thread.joinable()) impl_->thread.join();
}

}  // namespace tamsel::meeting
