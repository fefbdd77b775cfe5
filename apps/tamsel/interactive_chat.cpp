// tamsel chat (without -m): an interactive chat in the terminal on the chat controller.
//
// The line editor (GNU readline) runs in its callback mode on the same event loop as the
// controller, so replies stream in while the user types: output is printed above the prompt and the
// line being typed is redrawn after it. The unsent line is kept as the session's draft.
#include <readline/history.h>
#include <readline/readline.h>
#include <signal.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/thread_pool.hpp>
#include <clocale>
#include <iostream>
#include <set>
#include <sstream>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/bridge/daemon_paths.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"
#include "tamsel/kit/draft_storage.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;
using desktop::DaemonChatViewModel;

namespace {

constexpr const char* kHelp =
    "Type a message and press Enter. While a reply runs, what you send is queued (or use "
    "/inject).\n"
    "  /new                 start a new session        /open ID     switch to a session\n"
    "  /sessions            list sessions              /agents      list agents\n"
    "  /agent NAME          talk to another agent      /history     show the whole session again\n"
    "  /queue               show queued messages       /edit N TEXT change queued message N\n"
    "  /retract N           drop queued message N      /send-now    cancel the reply, send the "
    "queue now\n"
    "  /inject TEXT         add TEXT to the running reply\n"
    "  /cancel              stop the running reply (also Ctrl-C)\n"
    "  /approve once|session|always    /deny         answer the waiting approval\n"
    "  /answer N [N...] | TEXT         /decline      answer the waiting question\n"
    "  /quit                leave (also Ctrl-D); an unsent line is kept for next time\n";

class ChatTerminal;
ChatTerminal* active = nullptr;

class ChatTerminal {
 public:
  ChatTerminal(asio::io_context& io, DaemonChatViewModel& vm, kit::DraftStorage& drafts)
      : io_(io), vm_(vm), drafts_(drafts), input_(io, ::dup(STDIN_FILENO)) {}

  void run() {
    active = this;
    vm_.changed().connect([this] { render(); });
    rl_catch_signals = 0;
    rl_catch_sigwinch = 1;
    // The editor converts the prompt and the input through the locale: UTF-8 needs it set.
    std::setlocale(LC_CTYPE, "");
    rl_initialize();
    installPrompt();
    restoreDraft();
    waitForInput();
  }

  void stop() {
    if (stopped_) return;
    stopped_ = true;
    saveDraft();
    rl_callback_handler_remove();
    std::cout << std::endl;
    input_.cancel();
    io_.stop();
  }

  // Ctrl-C: stop the running reply, or leave when nothing runs.
  void interrupt() {
    if (vm_.isStreamActive()) {
      print("Cancelling…");
      vm_.cancel();
    } else {
      stop();
    }
  }

  // Prints above the prompt and redraws the line being typed.
  void print(const std::string& text) {
    const int point = rl_point;
    char* line = rl_copy_text(0, rl_end);
    rl_save_prompt();
    rl_replace_line("", 0);
    rl_redisplay();
    std::cout << "\r\033[K" << text << std::endl;
    rl_restore_prompt();
    rl_replace_line(line, 0);
    rl_point = point;
    rl_redisplay();
    std::free(line);
  }

  static void clearLine() {
    rl_replace_line("", 0);
    rl_point = 0;
  }

  void printWholeSession() {
    printedMessages_ = 0;
    printedStreamLength_ = 0;
    render();
  }

 private:
  std::string prompt() const { return vm_.selectedAgent().value_or("chat") + "> "; }

  // The editor keeps a pointer to the prompt, so it lives in a member.
  void installPrompt() {
    promptText_ = prompt();
    rl_callback_handler_install(promptText_.c_str(), &ChatTerminal::onLine);
  }

  static void onLine(char* line) {
    if (!active) return;
    if (!line) {  // Ctrl-D
      active->stop();
      return;
    }
    std::string text(line);
    std::free(line);
    active->lineSubmitted_ = true;
    active->handle(text);
  }

  void waitForInput() {
    input_.async_wait(asio::posix::stream_descriptor::wait_read,
                      [this](const boost::system::error_code& ec) {
                        if (ec || stopped_) return;
                        rl_callback_read_char();
                        if (stopped_) return;
                        if (lineSubmitted_) {
                          // The editor hands the finished line back into its buffer; start the next
                          // one empty.
                          lineSubmitted_ = false;
                          clearLine();
                        }
                        // Keep the unsent line as the session's draft (the store debounces the
                        // writes).
                        const std::string current = rl_line_buffer ? rl_line_buffer : "";
                        if (current != lastDraft_) {
                          lastDraft_ = current;
                          vm_.setComposerText(current);
                        }
                        waitForInput();
                      });
  }

  void saveDraft() {
    const std::string current = rl_line_buffer ? rl_line_buffer : "";
    vm_.setComposerText(current);
    drafts_.flushNow();
  }

  void restoreDraft() {
    lastDraft_ = vm_.composerText();
    if (!lastDraft_.empty()) {
      rl_insert_text(lastDraft_.c_str());
      rl_forced_update_display();
    }
  }

  void switched() {
    printedMessages_ = 0;
    printedStreamLength_ = 0;
    shownRequests_.clear();
    clearLine();
    rl_callback_handler_remove();
    installPrompt();
    restoreDraft();
  }

  void handle(const std::string& raw) {
    std::string text = raw;
    lastDraft_.clear();
    if (!text.empty()) add_history(text.c_str());
    if (text.empty()) return;
    if (text[0] != '/') {
      vm_.submit(text);
      return;
    }
    std::istringstream words(text);
    std::string command;
    words >> command;
    std::string rest;
    std::getline(words, rest);
    if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
    if (command == "/quit" || command == "/exit") return stop();
    if (command == "/help") return print(kHelp);
    if (command == "/new") {
      vm_.startNewSession();
      switched();
      return print("New session.");
    }
    if (command == "/open") {
      if (rest.empty()) return print("Usage: /open SESSION_ID");
      vm_.selectSession(rest);
      switched();
      return print("Session " + rest);
    }
    if (command == "/sessions") {
      std::string list;
      for (const auto& s : vm_.sessions())
        list += "  " + s.id + "  " + s.title.value_or("(untitled)") + "\n";
      return print(list.empty() ? "No sessions." : list);
    }
    if (command == "/agents") {
      std::string list;
      for (const auto& a : vm_.agents())
        list += "  " + a.name + (a.displayName ? "  " + *a.displayName : "") + "\n";
      return print(list.empty() ? "No agents." : list);
    }
    if (command == "/agent") {
      vm_.selectAgent(rest);
      switched();
      return;
    }
    if (command == "/history") return printWholeSession();
    if (command == "/queue") {
      const auto queued = vm_.queuedDrafts();
      if (queued.empty()) return print("Nothing queued.");
      std::string list;
      for (std::size_t i = 0; i < queued.size(); ++i)
        list += "  " + std::to_string(i + 1) + ". " + queued[i].text + "\n";
      return print(list);
    }
    if (command == "/edit" || command == "/retract") {
      std::istringstream args(rest);
      std::size_t n = 0;
      args >> n;
      std::string newText;
      std::getline(args, newText);
      const auto queued = vm_.queuedDrafts();
      if (n < 1 || n > queued.size()) return print("No queued message " + std::to_string(n) + ".");
      if (command == "/retract") {
        vm_.retractQueuedDraft(queued[n - 1].id);
        return print("Retracted.");
      }
      vm_.editQueuedDraft(queued[n - 1].id, std::string(base::trim(newText)));
      return print("Edited.");
    }
    if (command == "/send-now") {
      vm_.forceSendQueued();
      return print("Sending the queue now.");
    }
    if (command == "/inject") {
      const auto outcome = vm_.submit(rest, true);
      if (outcome == DaemonChatViewModel::SubmitOutcome::sent)
        print("(no reply was running: sent)");
      return;
    }
    if (command == "/cancel") return vm_.cancel();
    if (command == "/approve" || command == "/deny") {
      const auto approvals = vm_.pendingApprovals();
      if (approvals.empty()) return print("No approval is waiting.");
      auto decision = DaemonChatViewModel::ApprovalDecision::deny;
      if (command == "/approve") {
        if (rest == "once" || rest.empty())
          decision = DaemonChatViewModel::ApprovalDecision::once;
        else if (rest == "session")
          decision = DaemonChatViewModel::ApprovalDecision::session;
        else if (rest == "always")
          decision = DaemonChatViewModel::ApprovalDecision::always;
        else
          return print("Usage: /approve once|session|always");
      }
      vm_.answerApproval(approvals.front().info.requestID, decision);
      return;
    }
    if (command == "/answer" || command == "/decline") {
      const auto questions = vm_.pendingQuestions();
      if (questions.empty()) return print("No question is waiting.");
      const auto& request = questions.front().request;
      if (command == "/decline") {
        vm_.declineQuestion(request.requestId);
        return print("Declined.");
      }
      std::vector<bridge::AnswerBody> answers;
      for (const auto& entry : request.questions) {
        bridge::AnswerBody answer{entry.id, {}};
        std::istringstream picks(rest);
        bool numbers = true;
        for (std::string word; picks >> word;) {
          char* end = nullptr;
          const long n = std::strtol(word.c_str(), &end, 10);
          if (*end || !entry.options || n < 1 ||
              static_cast<std::size_t>(n) > entry.options->size()) {
            numbers = false;
            break;
          }
          answer.values.push_back(entry.options->at(static_cast<std::size_t>(n - 1)).label);
        }
        if (!numbers) answer.values = {rest};
        answers.push_back(std::move(answer));
      }
      vm_.answerQuestion(request.requestId, std::move(answers));
      return print("Answered.");
    }
    print("Unknown command " + command + " (try /help)");
  }

  void render() {
    if (stopped_) return;
    if (vm_.currentSessionID() != shownSession_) {
      shownSession_ = vm_.currentSessionID();
      if (shownSession_) print("(session " + *shownSession_ + ")");
    }
    const auto& messages = vm_.messages();
    if (printedMessages_ > messages.size()) printedMessages_ = 0;
    // Finished messages are printed whole; the reply being written is printed as it grows.
    while (printedMessages_ < messages.size()) {
      const auto& m = messages[printedMessages_];
      const bool last = printedMessages_ + 1 == messages.size();
      if (m.author == "user") {
        // What was typed here is already on the screen.
        if (!m.id.starts_with("local-")) print("you: " + m.content);
      } else if (m.author == "assistant") {
        printTools(m);
        const bool streaming = last && vm_.isStreamActive();
        // Whole lines go out as the reply grows, so the line being typed below stays intact;
        // the rest follows when the reply is complete.
        std::size_t upTo = m.content.size();
        if (streaming) {
          const auto newline = m.content.rfind('\n');
          upTo = newline == std::string::npos || newline < printedStreamLength_
                     ? printedStreamLength_
                     : newline + 1;
        }
        if (upTo > printedStreamLength_) {
          std::string piece = m.content.substr(printedStreamLength_, upTo - printedStreamLength_);
          if (!piece.empty() && piece.back() == '\n') piece.pop_back();
          print((printedStreamLength_ == 0 ? "agent: " : "") + piece);
          printedStreamLength_ = upTo;
        }
        if (streaming) break;
      }
      ++printedMessages_;
      printedStreamLength_ = 0;
    }
    for (const auto& row : vm_.pendingApprovals()) {
      if (!shownRequests_.insert(row.info.requestID).second) continue;
      print("Approval needed: " + row.info.tool + (row.info.args ? " " + *row.info.args : "") +
            "\n  answer with /approve once, /approve session, /approve always or /deny");
    }
    for (const auto& row : vm_.pendingQuestions()) {
      if (!shownRequests_.insert(row.request.requestId).second) continue;
      std::string text = "Question:";
      for (const auto& q : row.request.questions) {
        text += "\n  " + q.question;
        if (q.options)
          for (std::size_t i = 0; i < q.options->size(); ++i)
            text += "\n    " + std::to_string(i + 1) + ". " + q.options->at(i).label;
      }
      print(text + "\n  answer with /answer N (or your own words) or /decline");
    }
    showOnce(vm_.errorMessage(), lastError_, "error: ");
    showOnce(vm_.notice(), lastNotice_, "");
    if (vm_.creditsError() && !shownCredits_) {
      shownCredits_ = true;
      print("error: Credits exhausted");
    }
    if (vm_.quotaError() && !shownQuota_) {
      shownQuota_ = true;
      print("error: Usage limit reached");
    }
  }

  void printTools(const kit::Message& m) {
    if (!m.toolBlock) return;
    for (const auto& tool : m.toolBlock->tools) {
      const std::string key = m.id + "/" + tool.id + "/" + kit::name(tool.status);
      if (!shownTools_.insert(key).second) continue;
      print("[tool] " + tool.name + (tool.args ? ": " + *tool.args : "") + " (" +
            kit::name(tool.status) + (tool.isError ? ", error" : "") + ")");
    }
  }

  void showOnce(const std::optional<std::string>& value, std::optional<std::string>& last,
                const std::string& prefix) {
    if (value == last) return;
    last = value;
    if (value) print(prefix + *value);
  }

  asio::io_context& io_;
  DaemonChatViewModel& vm_;
  kit::DraftStorage& drafts_;
  asio::posix::stream_descriptor input_;
  bool stopped_ = false;
  std::size_t printedMessages_ = 0;
  std::size_t printedStreamLength_ = 0;
  std::set<std::string> shownTools_, shownRequests_;
  std::optional<std::string> lastError_, lastNotice_;
  bool shownCredits_ = false, shownQuota_ = false;
  std::string lastDraft_;
  std::string promptText_;
  bool lineSubmitted_ = false;
  std::optional<std::string> shownSession_;
};

}  // namespace

int chatInteractive(const GlobalOptions& options, const std::optional<std::string>& agent,
                    const std::optional<std::string>& sessionID) {
  if (!::isatty(STDIN_FILENO)) {
    printError("The interactive chat needs a terminal; use tamsel chat -m TEXT");
    return kExitUsage;
  }
  if (!ensureEngine(options)) return kExitFailure;
  Runtime rt(options);
  auto& io = rt.io;
  auto& drafts = rt.services.drafts();
  const auto controller = rt.services.makeChatViewModel();
  auto& vm = *controller;

  ChatTerminal terminal(io, vm, drafts);
  vm.start();
  // Wait for the agents before the first prompt, bounded so a slow engine does not hang us.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (vm.agents().empty() && !vm.errorMessage() && std::chrono::steady_clock::now() < deadline)
    io.run_for(std::chrono::milliseconds(20));
  if (agent) vm.selectAgent(*agent);
  if (sessionID)
    vm.selectSession(*sessionID);
  else
    vm.startNewSession();
  io.restart();
  std::cout << "Tamsel chat — "
            << (sessionID ? "session " + *sessionID : std::string("new session")) << " with "
            << vm.selectedAgent().value_or("the default agent") << ". /help lists commands."
            << std::endl;

  asio::signal_set signals(io, SIGINT, SIGTERM);
  std::function<void()> listen = [&] {
    signals.async_wait([&](const boost::system::error_code& ec, int signal) {
      if (ec) return;
      if (signal == SIGTERM) return terminal.stop();
      terminal.interrupt();
      listen();
    });
  };
  listen();
  terminal.run();
  io.run();
  rt.services.eventStream().stop();
  return kExitOK;
}

}  // namespace tamsel::cli
