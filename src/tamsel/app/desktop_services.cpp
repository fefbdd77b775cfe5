#include "tamsel/app/desktop_services.hpp"

#include <boost/asio/thread_pool.hpp>

#include "tamsel/base/log.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_local_presence.hpp"
#include "tamsel/bridge/desktop_rpc_switch.hpp"
#include "tamsel/bridge/device_identity.hpp"
#include "tamsel/bridge/event_stream_client.hpp"
#include "tamsel/bridge/http_transport.hpp"
#include "tamsel/bridge/pidfile_reader.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/bridge/session_history.hpp"
#include "tamsel/calendar/desktop_calendar.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"
#include "tamsel/desktop/engine_locator.hpp"
#include "tamsel/hotkey/trigger_preference.hpp"
#include "tamsel/kit/draft_storage.hpp"
#include "tamsel/platform/child_process.hpp"

namespace tamsel::app {

namespace fs = std::filesystem;
constexpr const char* kSource = "DesktopServices";

// Declared in dependency order: members are destroyed bottom-up, so controllers go before the
// clients and stores they use.
struct DesktopServices::Parts {
  std::optional<std::string> presenceToken;
  std::optional<std::string> deviceID;
  std::shared_ptr<bridge::HttpSessions> sessions;
  std::unique_ptr<bridge::DaemonClient> client;
  std::unique_ptr<desktop::DaemonChatEngine> chatEngine;
  std::unique_ptr<base::PreferencesStore> preferences;
  std::unique_ptr<kit::DraftStorage> drafts;
  // Session files are decoded here, never on the main executor.
  std::unique_ptr<boost::asio::thread_pool> fileWorker;
  std::unique_ptr<bridge::SessionHistory> history;
  std::unique_ptr<bridge::EventStreamClient> eventStream;
  bool calendarTried = false;
  std::shared_ptr<calendar::CalendarProvider> calendar;
  bool rpcMade = false;
  std::shared_ptr<bridge::rpc::DesktopRPCService> rpcService;
  std::unique_ptr<desktop::DaemonManager> manager;
  bool hotkeyStarted = false;
  std::unique_ptr<hotkey::DoubleTapWatcher> hotkey;
};

const std::vector<std::string>& DesktopServices::consumerCapabilities() {
  static const std::vector<std::string> capabilities{
      "approvals", "questions", "inject", "queue", "session_started", "deliverables"};
  return capabilities;
}

DesktopServices::DesktopServices(base::MainExecutor& main, base::env::Environment environment,
                                 DesktopOptions options, FrontEndHooks hooks)
    : main_(main),
      environment_(std::move(environment)),
      options_(std::move(options)),
      hooks_(std::move(hooks)),
      folders_(base::AppFolders::from(environment_)),
      paths_(folders_),
      parts_(std::make_unique<Parts>()) {}

// The parts go in the reverse of their declaration; the file worker joins after the history.
DesktopServices::~DesktopServices() = default;

fs::path DesktopServices::engineHome() const {
  return options_.engineHome ? *options_.engineHome : fs::path(environment_.home) / ".verdane";
}

bool DesktopServices::rpcEnabled() const {
  return bridge::DesktopRPCSwitch::isEnabled(environment_.desktopRPC);
}

const std::string& DesktopServices::presenceToken() {
  if (!parts_->presenceToken)
    parts_->presenceToken = bridge::DaemonLocalPresence::forThisProcess(environment_.presenceToken,
                                                                        paths_.tokenFilePath());
  return *parts_->presenceToken;
}

const std::string& DesktopServices::deviceID() {
  if (!parts_->deviceID) parts_->deviceID = bridge::desktopDeviceID(appFolder());
  return *parts_->deviceID;
}

bridge::DaemonClient& DesktopServices::client() {
  if (!parts_->client) {
    parts_->sessions = std::make_shared<bridge::HttpSessions>();
    parts_->client = std::make_unique<bridge::DaemonClient>(
        bridge::DaemonClient::Config{options_.enginePort, presenceToken(), deviceID(),
                                     consumerCapabilities(), parts_->sessions});
  }
  return *parts_->client;
}

bridge::EventStreamClient& DesktopServices::eventStream() {
  if (!parts_->eventStream) {
    bridge::EventStreamClient::Config config{options_.enginePort, presenceToken(), deviceID()};
    // The engine process: the pidfile's PID with its start time, so a reused PID is not taken
    // for the same engine.
    config.engineInstance = [pidfile = paths_.pidfilePath()]() -> std::optional<std::string> {
      const auto pid = bridge::PidfileReader::readProcessID(pidfile);
      const auto started = pid ? platform::processStartTime(*pid) : std::nullopt;
      if (!started) return std::nullopt;
      return std::to_string(*pid) + "@" + std::to_string(*started);
    };
    parts_->eventStream =
        std::make_unique<bridge::EventStreamClient>(main_.ioExecutor(), std::move(config));
  }
  return *parts_->eventStream;
}

bridge::SessionHistory& DesktopServices::sessionHistory() {
  if (!parts_->history) {
    parts_->fileWorker = std::make_unique<boost::asio::thread_pool>(1);
    parts_->history =
        std::make_unique<bridge::SessionHistory>(engineHome(), parts_->fileWorker->get_executor());
  }
  return *parts_->history;
}

kit::DraftStorage& DesktopServices::drafts() {
  if (!parts_->drafts)
    parts_->drafts =
        std::make_unique<kit::DraftStorage>(kit::DraftStorage::defaultsIn(appFolder()));
  return *parts_->drafts;
}

base::PreferencesStore& DesktopServices::preferences() {
  if (!parts_->preferences)
    parts_->preferences =
        std::make_unique<base::PreferencesStore>(base::PreferencesStore::fileIn(appFolder()));
  return *parts_->preferences;
}

namespace {
constexpr const char* kMeetingAutoRecordKey = "dev.tamsel.desktop.meetingAutoRecord";
}

bool DesktopServices::meetingAutoRecord() {
  const auto value = preferences().value(kMeetingAutoRecordKey);
  return value && value->is_bool() && value->as_bool();
}

void DesktopServices::setMeetingAutoRecord(bool on) {
  preferences().set(kMeetingAutoRecordKey, boost::json::value(on));
}

std::shared_ptr<calendar::CalendarProvider> DesktopServices::calendar() {
  if (!parts_->calendarTried) {
    parts_->calendarTried = true;
    try {
      auto permissions = std::make_shared<calendar::PreferencesPermissionStore>(
          base::PreferencesStore::fileIn(appFolder()));
      parts_->calendar = calendar::makeDesktopCalendarProvider(
          main_.ioExecutor(), appFolder(), std::move(permissions), hooks_.askCalendarPermission);
    } catch (const std::exception& e) {
      base::log::warn(kSource, "calendar unavailable: {}", e.what());
    }
  }
  return parts_->calendar;
}

bridge::rpc::DesktopRPCService* DesktopServices::rpcService() {
  if (!parts_->rpcMade) {
    parts_->rpcMade = true;
    if (!rpcEnabled()) return nullptr;
    auto dispatcher =
        std::make_shared<bridge::rpc::DesktopRPCMethodDispatcher>(bridge::rpc::Platform::current());
    const auto provider = calendar();
    if (provider) calendar::registerCalendarMethods(*dispatcher, provider);
    bridge::rpc::DesktopRPCService::Options rpcOptions;
    rpcOptions.socketPath = paths_.socketPath();
    rpcOptions.pidfilePath = paths_.pidfilePath();
    parts_->rpcService = std::make_shared<bridge::rpc::DesktopRPCService>(
        main_.ioExecutor(), std::move(dispatcher), rpcOptions);
    if (provider)
      calendar::forwardCalendarChanges(provider, parts_->rpcService, main_.ioExecutor());
  }
  return parts_->rpcService.get();
}

desktop::DaemonManager& DesktopServices::daemonManager() {
  if (!parts_->manager) {
    auto config = options_.supervision;
    config.port = options_.enginePort;
    if (!options_.engineArguments.empty()) config.daemonArguments = options_.engineArguments;
    config.axServerBundleOverride = options_.axServerBundle;
    if (!config.axServerBundleOverride && environment_.axServerBundlePath &&
        !environment_.axServerBundlePath->empty())
      config.axServerBundleOverride = fs::path(*environment_.axServerBundlePath);
    desktop::DaemonManager::Dependencies deps{&client(), &eventStream(), rpcService(), paths_,
                                              presenceToken()};
    auto hooks = options_.supervisionHooks;
    if (!hooks.locateEngine) {
      hooks.locateEngine = [inputs = desktop::EngineLocator::forThisProcess(environment_)] {
        return desktop::EngineLocator::locate(inputs);
      };
    }
    parts_->manager = std::make_unique<desktop::DaemonManager>(main_, std::move(config),
                                                               std::move(deps), std::move(hooks));
  }
  return *parts_->manager;
}

hotkey::HotkeySession DesktopServices::hotkeySession() const {
  return hotkey::HotkeySession{environment_.display, environment_.waylandDisplay, "/dev/input"};
}

hotkey::HotkeyTriggerMode DesktopServices::hotkeyTriggerMode() {
  return hotkey::loadTriggerMode(preferences());
}

HotkeyStatus DesktopServices::setHotkeyTriggerMode(hotkey::HotkeyTriggerMode mode) {
  hotkey::saveTriggerMode(preferences(), mode);
  if (!parts_->hotkeyStarted) return {};
  return startSummonHotkey();
}

HotkeyStatus DesktopServices::startSummonHotkey() {
  stopSummonHotkey();
  parts_->hotkeyStarted = true;
  const auto mode = hotkeyTriggerMode();
  const auto side = hotkey::doubleTapSide(mode);
  if (!side)
    return {HotkeyStatus::Kind::off,
            "the summon hotkey is off (trigger mode " + std::string(hotkey::rawValue(mode)) + ")"};
  auto watcher = std::make_unique<hotkey::DoubleTapWatcher>(
      main_, *side,
      [this](hotkey::OptionSide pressed) {
        base::log::info(kSource, "double tap of the {} Alt key: summon", hotkey::rawValue(pressed));
        if (hooks_.summon) hooks_.summon(pressed);
      },
      hooks_.hotkeyNotice);
  if (auto failure = watcher->start(hotkeySession())) {
    base::log::info(kSource, "summon hotkey unavailable: {}", *failure);
    return {HotkeyStatus::Kind::unavailable, *failure};
  }
  parts_->hotkey = std::move(watcher);
  return {HotkeyStatus::Kind::watching,
          "double tap of the " + std::string(hotkey::rawValue(*side)) +
              " Alt key summons, through " + parts_->hotkey->backendDescription()};
}

void DesktopServices::stopSummonHotkey() {
  parts_->hotkeyStarted = false;
  parts_->hotkey.reset();
}

std::unique_ptr<desktop::DaemonChatViewModel> DesktopServices::makeChatViewModel() {
  if (!parts_->chatEngine)
    parts_->chatEngine = std::make_unique<desktop::DaemonChatEngine>(client());
  desktop::DaemonChatViewModel::Dependencies deps{parts_->chatEngine.get(), &eventStream(),
                                                  &sessionHistory(), &drafts(), &preferences()};
  return std::make_unique<desktop::DaemonChatViewModel>(main_, deps);
}

}  // namespace tamsel::app
