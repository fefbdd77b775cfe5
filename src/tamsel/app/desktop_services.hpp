#pragma once
// The composition root: the one place where the application is wired together. It owns, for the
// application's life, the folders, the presence token, the device identifier, one DaemonClient
// configuration (one capability list), one EventStreamClient, one DesktopRPCService with its
// method table, SessionHistory, DraftStorage, the preferences store, the calendar provider and
// DaemonManager, and it builds the controllers a front end asks for.
//
// A front end gives it the main executor, the environment read once at start-up, its options and
// its hooks (how to ask the user a question), and keeps it alive longer than every controller it
// got from it. Parts are made on first use, so a command that only reads history never opens
// the calendar. Lives on the main executor: call it there.
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tamsel/base/app_folders.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/main_executor.hpp"
#include "tamsel/bridge/daemon_paths.hpp"
#include "tamsel/calendar/calendar_permission_store.hpp"
#include "tamsel/desktop/daemon_manager.hpp"
#include "tamsel/hotkey/double_tap.hpp"
#include "tamsel/hotkey/double_tap_watcher.hpp"

namespace tamsel::base {
class PreferencesStore;
}
namespace tamsel::bridge {
class DaemonClient;
class EventStreamClient;
class HttpSessions;
class SessionHistory;
}  // namespace tamsel::bridge
namespace tamsel::bridge::rpc {
class DesktopRPCService;
}
namespace tamsel::calendar {
class CalendarProvider;
}
namespace tamsel::kit {
class DraftStorage;
}
namespace tamsel::desktop {
class DaemonChatViewModel;
class MeetingController;
}  // namespace tamsel::desktop

namespace tamsel::app {

struct MeetingWatch;

struct DesktopOptions {
  std::uint16_t enginePort = 7533;
  // The engine's daemon-mode arguments; "{port}" becomes the port. Empty: the default.
  std::vector<std::string> engineArguments;
  std::optional<std::filesystem::path> axServerBundle;
  // The engine's home with its session files; default ~/.verdane.
  std::optional<std::filesystem::path> engineHome;
  // Supervision timings and switches (its port and arguments come from above).
  desktop::DaemonManager::Config supervision;
  // Replaces the manager's effects (tests); the engine search is the default.
  desktop::DaemonManager::Hooks supervisionHooks;
};

// What the front end does for the core.
struct FrontEndHooks {
  // Asks the user whether the engine may use the calendars; empty when nobody can answer.
  calendar::PermissionPrompter askCalendarPermission;
  // What a double tap of the trigger key does (the window raises itself; the headless front end
  // opens a chat). Runs on the main executor; its argument is the side of the completing press.
  std::function<void(hotkey::OptionSide)> summon;
  // What the hotkey's backend has to say later (a keyboard plugged in or gone); may be empty.
  std::function<void(const std::string&)> hotkeyNotice;
  // How stopped meetings are sealed (meeting_watch.hpp: in this process or a child's); empty:
  // they are left for a front end that can.
  std::function<std::function<void(const std::filesystem::path&)>(const std::atomic<bool>*)>
      meetingSealer;
};

// Whether the summon hotkey runs, and in words: its backend, or why there is none.
struct HotkeyStatus {
  enum class Kind { off, watching, unavailable };
  Kind kind = Kind::off;
  std::string text;
};

class DesktopServices {
 public:
  // The capabilities this desktop announces to the engine on every call that starts work.
  static const std::vector<std::string>& consumerCapabilities();

  DesktopServices(base::MainExecutor& main, base::env::Environment environment,
                  DesktopOptions options, FrontEndHooks hooks = {});
  // Parts that depend on others go first.
  ~DesktopServices();
  DesktopServices(const DesktopServices&) = delete;
  DesktopServices& operator=(const DesktopServices&) = delete;

  base::MainExecutor& mainExecutor() const { return main_; }
  const base::env::Environment& environment() const { return environment_; }
  const DesktopOptions& options() const { return options_; }
  const base::AppFolders& folders() const { return folders_; }
  const bridge::DaemonPaths& daemonPaths() const { return paths_; }
  std::filesystem::path appFolder() const { return folders_.appSupportDirectory(); }
  std::filesystem::path engineHome() const;
  // False when TAMSEL_DESKTOP_RPC is "0".
  bool rpcEnabled() const;
  // Where recorded meetings go, one folder each: "meetings" in the app folder.
  std::filesystem::path meetingsFolder() const { return appFolder() / "meetings"; }
  // False when TamselMeetingDisableSystap is set: meetings record the microphone alone.
  bool meetingSystemAudioEnabled() const { return !environment_.meetingDisableSystap; }
  // The user's opt-in to record detected meetings without asking (off until set). `tamsel run`
  // watches for meetings only when it is on.
  bool meetingAutoRecord();
  void setMeetingAutoRecord(bool on);  // throws when the preferences cannot be written

  // A secret: never log or print it.
  const std::string& presenceToken();
  const std::string& deviceID();

  bridge::DaemonClient& client();
  bridge::EventStreamClient& eventStream();
  // Null when the RPC channel is switched off.
  bridge::rpc::DesktopRPCService* rpcService();
  bridge::SessionHistory& sessionHistory();
  kit::DraftStorage& drafts();
  base::PreferencesStore& preferences();
  // Null when the calendar cannot be opened (logged); the RPC channel then serves no calendar.
  std::shared_ptr<calendar::CalendarProvider> calendar();
  desktop::DaemonManager& daemonManager();

  // The display servers and input devices the hotkey may use.
  hotkey::HotkeySession hotkeySession() const;
  // The trigger setting from the preferences.
  hotkey::HotkeyTriggerMode hotkeyTriggerMode();
  // Saves the setting (throws when it cannot be saved) and, when the hotkey was started, starts
  // it again as the new setting asks.
  HotkeyStatus setHotkeyTriggerMode(hotkey::HotkeyTriggerMode mode);
  // Starts the summon hotkey when the trigger setting is a double tap: the monitor calls the
  // front end's summon hook. Unavailable (with the explanation) when no backend can see keys in
  // other applications; everything else keeps working then. Calling it again restarts it.
  HotkeyStatus startSummonHotkey();
  void stopSummonHotkey();

  // Watches for meetings on the audio server (tamsel/app/meeting_watch.hpp): detection, call
  // activity and sleep feed one controller that records into meetingsFolder() and seals what
  // it stopped. `beforeStart` connects to the controller before it starts. Throws when the
  // audio server cannot be watched. The root must outlive it.
  std::unique_ptr<MeetingWatch> startMeetingWatch(
      bool autoStart, double graceSeconds,
      std::function<void(desktop::MeetingController&)> beforeStart = {});

  // The front end's sealer (FrontEndHooks::meetingSealer), for the watch and for replaying jobs.
  std::function<void(const std::filesystem::path&)> meetingSealer(
      const std::atomic<bool>* cancel = nullptr) const;

  // A chat controller over the shared clients and stores; the root must outlive it.
  std::unique_ptr<desktop::DaemonChatViewModel> makeChatViewModel();

 private:
  struct Parts;
  base::MainExecutor& main_;
  base::env::Environment environment_;
  DesktopOptions options_;
  FrontEndHooks hooks_;
  base::AppFolders folders_;
  bridge::DaemonPaths paths_;
  std::unique_ptr<Parts> parts_;
};

}  // namespace tamsel::app
