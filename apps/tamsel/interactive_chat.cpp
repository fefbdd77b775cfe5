// tamsel chat (without -m): an interactive chat in the terminal on the chat controller.
//
// The line editor (GNU readline) runs in its callback mode on the same event loop as the
// controller, so replies stream in while the user types. Finished output is printed above the
// prompt; the block of the reply still being written (and a spinner while nothing has come) is
// an open region just above the prompt, redrawn as it grows, and printed for good, rendered as
// Markdown, once the block is complete. The unsent line is kept as the session's draft.
#include <fcntl.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <clocale>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <unordered_map>

#include "cli.hpp"
#include "runtime.hpp"
#include "table.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"
#include "tamsel/kit/draft_storage.hpp"
#include "terminal_markdown.hpp"

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
    "  /cancel              stop the running reply\n"
    "  /approve once|session|always    /deny         answer the waiting approval\n"
    "  /answer N [N...] | TEXT         /decline      answer the waiting question\n"
    "  /quit                leave; the unsent line is kept for next time\n"
    "Keys:\n"
    "  Alt-Enter, or \\ at the end of a line   go on typing on a new line of the same message\n"
    "  y n a s (on an empty line)            answer a waiting approval: once, deny, always, "
    "session\n"
    "  Ctrl-C                                clear the line; stop the running reply; on an "
    "empty line, leave\n"
    "  Ctrl-D                                leave, keeping the unsent line for next time\n"
    "  Up / Down                             earlier lines (kept across restarts)\n";

constexpr const char* kSpinner[] = {"⠋", "⠙", "⠹", "⠸", "⠼", "⠴", "⠦", "⠧", "⠇", "⠏"};
constexpr std::size_t kHistoryLines = 1000;

class ChatTerminal;
ChatTerminal* active = nullptr;

std::size_t terminalColumns() {
  const auto width = terminalWidth();
  return width > 0 ? width : 80;
}

std::size_t terminalRows() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0) return size.ws_row;
  return 24;
}

}  // namespace

namespace {

class ChatTerminal {
 public:
  ChatTerminal(asio::io_context& io, DaemonChatViewModel& vm, kit::DraftStorage& drafts,
               std::filesystem::path historyFile, bool colour)
      : io_(io),
        vm_(vm),
        drafts_(drafts),
        input_(io, ::dup(STDIN_FILENO)),
        spinner_(io),
        historyFile_(std::move(historyFile)),
        colour_(colour) {}

  void run() {
    active = this;
    vm_.changed().connect([this] { render(); });
    rl_catch_signals = 0;
    rl_catch_sigwinch = 1;
    // The editor converts the prompt and the input through the locale: UTF-8 needs it set.
    std::setlocale(LC_CTYPE, "");
    rl_initialize();
    bindKeys();
    loadHistory();
    installPrompt();
    restoreDraft();
    waitForInput();
  }

  // Started on an existing session: once it has loaded, its last screenful is shown.
  void openedExistingSession() { awaitingOpen_ = true; }

  void stop() {
    if (stopped_) return;
    stopped_ = true;
    saveDraft();
    saveHistory();
    openText_.clear();
    spinnerShown_ = false;
    redraw();
    rl_callback_handler_remove();
    std::cout << std::endl;
    input_.cancel();
    spinner_.cancel();
    io_.stop();
  }

  // Ctrl-C: clear a half-typed line; else stop the running reply; else leave.
  void interrupt() {
    if (rl_end > 0 || !continued_.empty()) {
      continued_.clear();
      clearLine();
      updatePrompt();
      syncDraft();
      redraw();
      return;
    }
    if (vm_.isStreamActive()) {
      print("Cancelling…");
      vm_.cancel();
      return;
    }
    stop();
  }

  // Shows the whole session again, the user's own lines included.
  void printWholeSession() {
    std::string text = "— the whole session —";
    for (const auto& m : vm_.messages()) {
      if (m.author == "user")
        text += "\nyou: " + m.content;
      else if (m.author == "assistant" && !m.content.empty())
        text += "\n" + labelled(renderMarkdown(m.content, style()));
    }
    print(text);
  }

  // Printed above the prompt and the open region, which are redrawn after it. Output made while
  // the editor handles a finished line waits until the editor has started the next one.
  void print(const std::string& text) {
    if (inLineHandler_) {
      deferred_.push_back(text);
      return;
    }
    withScreen([&] {
      std::string out = text;
      while (!out.empty() && out.back() == '\n') out.pop_back();
      std::cout << out << "\n";
    });
  }

 private:
  // ---- the screen

  MarkdownStyle style() const {
    return {std::max<std::size_t>(terminalColumns() - 1, 20), colour_};
  }

  std::string dim(const std::string& text) const {
    return colour_ ? "\033[2m" + text + "\033[0m" : text;
  }

  static std::string labelled(std::string rendered) {
    while (!rendered.empty() && rendered.back() == '\n') rendered.pop_back();
    return "agent: " + rendered;
  }

  // Takes the prompt and the open region off the screen, runs `write`, and puts them back.
  template <class F>
  void withScreen(F&& write) {
    const int point = rl_point;
    char* line = rl_copy_text(0, rl_end);
    rl_save_prompt();
    rl_replace_line("", 0);
    rl_redisplay();
    std::cout << "\r\033[K";
    for (std::size_t i = 0; i < openRows_; ++i) std::cout << "\033[A\r\033[K";
    openRows_ = 0;
    write();
    const std::string open = openRegion();
    if (!open.empty()) {
      std::cout << open << "\n";
      openRows_ = rowsOf(open);
    }
    std::cout.flush();
    rl_restore_prompt();
    rl_replace_line(line, 0);
    rl_point = point;
    rl_redisplay();
    std::free(line);
  }

  void redraw() {
    if (!inLineHandler_) withScreen([] {});
  }

  std::string openRegion() const {
    if (!openText_.empty()) return openText_;
    if (!spinnerShown_) return {};
    const auto& activity = vm_.streamingStatus().activityLine;
    return dim(std::string(kSpinner[spinnerFrame_ % std::size(kSpinner)]) + " " +
               (activity.empty() ? "thinking…" : activity));
  }

  static std::size_t rowsOf(const std::string& text) {
    return terminalRowsOf(text, terminalColumns());
  }

  void tickSpinner() {
    spinner_.expires_after(std::chrono::milliseconds(120));
    spinner_.async_wait([this](const boost::system::error_code& ec) {
      if (ec || stopped_ || !spinnerShown_) return;
      ++spinnerFrame_;
      if (openText_.empty()) redraw();
      tickSpinner();
    });
  }

  // ---- the line editor

  std::string prompt() const {
    if (!continued_.empty()) return "… ";
    return vm_.selectedAgent().value_or("chat") + "> ";
  }

  // The editor keeps a pointer to the prompt, so it lives in a member.
  void installPrompt() {
    promptText_ = prompt();
    rl_callback_handler_install(promptText_.c_str(), &ChatTerminal::onLine);
  }

  void updatePrompt() {
    promptText_ = prompt();
    rl_set_prompt(promptText_.c_str());
  }

  static void clearLine() {
    rl_replace_line("", 0);
    rl_point = 0;
  }

  void bindKeys() {
    for (int key : {'y', 'n', 'a', 's'}) rl_bind_key(key, &ChatTerminal::onAnswerKey);
    rl_bind_keyseq("\\e\\r", &ChatTerminal::onNewlineKey);
    rl_bind_keyseq("\\e\\n", &ChatTerminal::onNewlineKey);
    rl_bind_key(4, &ChatTerminal::onCtrlD);
  }

  // y / n / a / s on an empty line answer a waiting approval; otherwise they are typed.
  static int onAnswerKey(int count, int key) {
    if (!active || rl_end > 0 || !active->continued_.empty() ||
        active->vm_.pendingApprovals().empty())
      return rl_insert(count, key);
    using D = DaemonChatViewModel::ApprovalDecision;
    const D decision = key == 'y'   ? D::once
                       : key == 'a' ? D::always
                       : key == 's' ? D::session
                                    : D::deny;
    active->answerApproval(decision);
    return 0;
  }

  // Alt-Enter: the line so far stays part of the message, which goes on on a new line (as a
  // line ending in a backslash does).
  static int onNewlineKey(int, int) {
    rl_point = rl_end;
    rl_insert_text("\\");
    return rl_newline(1, '\n');
  }

  // Ctrl-D at the end of the line leaves (the line is kept as the draft); elsewhere it deletes.
  static int onCtrlD(int count, int key) {
    if (!active) return 0;
    if (rl_point < rl_end) return rl_delete(count, key);
    active->leaveAfterThisKey_ = true;
    return 0;
  }

  static void onLine(char* line) {
    if (!active) return;
    if (!line) {  // end of input
      active->leaveAfterThisKey_ = true;
      return;
    }
    std::string text(line);
    std::free(line);
    active->lineSubmitted_ = true;
    active->submittedEcho_ = active->promptText_ + text;
    active->inLineHandler_ = true;
    if (!text.empty() && text.back() == '\\') {
      text.pop_back();
      active->continuedPending_ = text;
      return;
    }
    std::string message = active->continued_ + text;
    active->continued_.clear();
    active->handle(message);
  }

  void waitForInput() {
    input_.async_wait(asio::posix::stream_descriptor::wait_read,
                      [this](const boost::system::error_code& ec) {
                        if (ec || stopped_) return;
                        rl_callback_read_char();
                        if (stopped_) return;
                        if (leaveAfterThisKey_) return stop();
                        afterKey();
                        waitForInput();
                      });
  }

  // The editor hands a finished line back into its buffer and redraws the prompt after the line
  // handler; what the handler changed is applied once it has.
  void afterKey() {
    if (lineSubmitted_) {
      lineSubmitted_ = false;
      inLineHandler_ = false;
      clearLine();
      if (continuedPending_) {
        continued_ += *continuedPending_ + "\n";
        continuedPending_.reset();
      }
      if (openRows_ > 0) {
        // The finished line was echoed below the open region: take both off the screen and put
        // the line back as output, so the open region stays right above the prompt.
        std::cout << "\r\033[K";
        for (std::size_t i = 0; i < rowsOf(submittedEcho_) + openRows_; ++i)
          std::cout << "\033[A\r\033[K";
        openRows_ = 0;
        std::cout << submittedEcho_ << "\n";
      }
      updatePrompt();
      if (restoreAfterLine_) {
        restoreAfterLine_ = false;
        restoreDraft();
      }
      redraw();
      auto pending = std::move(deferred_);
      deferred_.clear();
      for (const auto& text : pending) print(text);
    }
    syncDraft();
  }

  // Keeps the unsent text as the session's draft (the store debounces the writes).
  void syncDraft() {
    const std::string current = continued_ + (rl_line_buffer ? rl_line_buffer : "");
    if (current != lastDraft_) {
      lastDraft_ = current;
      vm_.setComposerText(current);
    }
  }

  void saveDraft() {
    vm_.setComposerText(continued_ + (rl_line_buffer ? rl_line_buffer : ""));
    drafts_.flushNow();
  }

  void restoreDraft() {
    lastDraft_ = vm_.composerText();
    continued_.clear();
    if (lastDraft_.empty()) return;
    // A draft of several lines comes back as its earlier lines kept and the last one editable.
    const auto lastBreak = lastDraft_.rfind('\n');
    if (lastBreak != std::string::npos) {
      continued_ = lastDraft_.substr(0, lastBreak + 1);
      print(dim("(continuing a message of several lines)\n") + continued_);
      updatePrompt();
    }
    rl_insert_text(lastDraft_.c_str() + (lastBreak == std::string::npos ? 0 : lastBreak + 1));
    rl_redisplay();
  }

  void loadHistory() {
    using_history();
    stifle_history(static_cast<int>(kHistoryLines));
    if (!historyFile_.empty()) read_history(historyFile_.c_str());
  }

  // Owner-only: typed lines can hold anything.
  void saveHistory() {
    if (historyFile_.empty()) return;
    std::error_code ec;
    std::filesystem::create_directories(historyFile_.parent_path(), ec);
    const int fd = ::open(historyFile_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return;
    ::fchmod(fd, 0600);
    ::close(fd);
    write_history(historyFile_.c_str());
  }

  // A switch of session: the next line starts from the new session's draft.
  void switched() {
    shownRequests_.clear();
    openText_.clear();
    committed_ = 0;
    awaitingOpen_ = true;
    restoreAfterLine_ = true;
  }

  void answerApproval(DaemonChatViewModel::ApprovalDecision decision) {
    const auto approvals = vm_.pendingApprovals();
    if (approvals.empty()) return print("No approval is waiting.");
    vm_.answerApproval(approvals.front().info.requestID, decision);
  }

  // ---- commands

  void handle(const std::string& text) {
    lastDraft_.clear();
    if (!text.empty()) add_history(text.c_str());
    if (base::trim(text).empty()) return;
    if (text[0] != '/') {
      vm_.submit(text);
      return;
    }
    std::istringstream words(text);
    std::string command;
    words >> command;
    std::string rest;
    std::getline(words, rest);
    rest = std::string(base::trim(rest));
    if (command == "/quit" || command == "/exit") {
      leaveAfterThisKey_ = true;
      return;
    }
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
      if (rest.empty()) return print("Usage: /agent NAME");
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
      return answerApproval(decision);
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

  // ---- what the controller shows

  // A message's role and text, hashed: what "the same message" means when a reload renames it.
  static std::size_t keyOf(const kit::Message& m) {
    return std::hash<std::string>{}(DaemonChatViewModel::sessionKeyFor(m));
  }

  // A message counts as shown once its id, or an earlier message of the same role and text, was
  // printed: a reload that gives a shown message another id (or moves it) never prints it again.
  // Shown messages keep their key, so a render walks the transcript without rereading its text.
  bool alreadyShown(const kit::Message& m, std::unordered_map<std::size_t, int>& seen) {
    const auto shown = shownIDs_.find(m.id);
    const std::size_t key = shown != shownIDs_.end() ? shown->second : keyOf(m);
    const int occurrence = ++seen[key];
    if (shown != shownIDs_.end()) return true;
    if (shownKeys_[key] >= occurrence) {
      shownIDs_.emplace(m.id, key);
      return true;
    }
    return false;
  }

  void markShown(const kit::Message& m) {
    const std::size_t key = keyOf(m);
    shownIDs_.insert_or_assign(m.id, key);
    ++shownKeys_[key];
  }

  // After opening a session: its last screenful is shown, the rest counted.
  void skipToLastScreen() {
    const auto& messages = vm_.messages();
    const std::size_t budget = terminalRows() > 8 ? terminalRows() - 6 : 4;
    std::size_t rows = 0, keep = 0;
    for (auto it = messages.rbegin(); it != messages.rend(); ++it) {
      rows += rowsOf(it->content) + (it->toolBlock ? it->toolBlock->tools.size() : 0);
      if (rows > budget && keep > 0) break;
      ++keep;
    }
    const std::size_t hidden = messages.size() - keep;
    for (std::size_t i = 0; i < hidden; ++i) {
      markShown(messages[i]);
      if (messages[i].toolBlock)
        for (const auto& tool : messages[i].toolBlock->tools) shownTools_.insert(toolKey(tool));
    }
    if (hidden > 0)
      print(dim("(" + std::to_string(hidden) + " earlier message" + (hidden == 1 ? "" : "s") +
                " not shown; /history shows the whole session)"));
  }

  void render() {
    if (stopped_) return;
    if (vm_.currentSessionID() != shownSession_) {
      shownSession_ = vm_.currentSessionID();
      if (shownSession_) print("(session " + *shownSession_ + ")");
    }
    if (awaitingOpen_) {
      if (vm_.isLoading()) return;
      awaitingOpen_ = false;
      if (vm_.currentSessionID()) skipToLastScreen();
    }
    const auto& messages = vm_.messages();
    std::unordered_map<std::size_t, int> seen;
    bool streaming = false;
    for (std::size_t i = 0; i < messages.size(); ++i) {
      const auto& m = messages[i];
      const bool last = i + 1 == messages.size();
      if (m.author == "assistant") printTools(m);
      if (last && m.author == "assistant" && vm_.isStreamActive()) {
        streaming = true;
        stream(m);
        break;
      }
      if (alreadyShown(m, seen)) continue;
      if (m.author == "user") {
        // What was typed here is already on the screen.
        if (!m.id.starts_with("local-")) print("you: " + m.content);
      } else if (m.author == "assistant" && !m.content.empty()) {
        finish(m);
      }
      if (m.author != "assistant" || !m.content.empty() || !last) markShown(m);
    }
    if (!streaming && (!openText_.empty() || spinnerShown_)) {
      openText_.clear();
      spinnerShown_ = false;
      redraw();
    }
    for (const auto& row : vm_.pendingApprovals()) {
      if (!shownRequests_.insert(row.info.requestID).second) continue;
      print("Approval needed: " + row.info.tool + (row.info.args ? " " + *row.info.args : "") +
            "\n  press y (once), s (this session), a (always) or n (deny); or /approve, /deny");
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

  // The reply being written: finished blocks are printed rendered, the block still growing is
  // shown as it is in the open region, a spinner while nothing has come.
  void stream(const kit::Message& m) {
    if (m.id != streamingID_) {
      streamingID_ = m.id;
      committed_ = 0;
    }
    const std::string_view rest =
        std::string_view(m.content).substr(std::min(committed_, m.content.size()));
    const std::size_t boundary = lastBlockBoundary(rest);
    if (boundary > 0) {
      std::string rendered = renderMarkdown(rest.substr(0, boundary), style());
      openText_.clear();
      print(committed_ == 0 ? labelled(rendered) : rendered);
      committed_ += boundary;
    }
    const std::string_view open = std::string_view(m.content).substr(committed_);
    openText_ =
        open.empty() ? std::string() : (committed_ == 0 ? "agent: " : "") + std::string(open);
    while (!openText_.empty() && openText_.back() == '\n') openText_.pop_back();
    const bool spin = openText_.empty();
    if (spin && !spinnerShown_) {
      spinnerShown_ = true;
      tickSpinner();
    }
    spinnerShown_ = spin;
    redraw();
  }

  // A reply complete: what was not printed yet is printed rendered.
  void finish(const kit::Message& m) {
    const std::size_t from = m.id == streamingID_ ? std::min(committed_, m.content.size()) : 0;
    openText_.clear();
    spinnerShown_ = false;
    if (from < m.content.size()) {
      const std::string rendered =
          renderMarkdown(std::string_view(m.content).substr(from), style());
      print(from == 0 ? labelled(rendered) : rendered);
    } else {
      redraw();
    }
    if (m.id == streamingID_) {
      streamingID_.clear();
      committed_ = 0;
    }
  }

  static std::string toolKey(const kit::ToolEntrySnapshot& tool) {
    return tool.toolUseId.value_or(tool.id) + "/" + kit::name(tool.status);
  }

  void printTools(const kit::Message& m) {
    if (!m.toolBlock) return;
    for (const auto& tool : m.toolBlock->tools) {
      if (!shownTools_.insert(toolKey(tool)).second) continue;
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
  asio::steady_timer spinner_;
  std::filesystem::path historyFile_;
  bool colour_ = false;
  bool stopped_ = false;
  // What has been shown: message ids, and how many messages of each role and text.
  std::unordered_map<std::string, std::size_t> shownIDs_;
  std::unordered_map<std::size_t, int> shownKeys_;
  std::set<std::string> shownTools_, shownRequests_;
  std::string streamingID_;
  std::size_t committed_ = 0;  // bytes of the streaming reply printed for good
  std::string openText_;
  std::size_t openRows_ = 0;
  bool spinnerShown_ = false;
  std::size_t spinnerFrame_ = 0;
  bool awaitingOpen_ = false;
  std::optional<std::string> lastError_, lastNotice_;
  bool shownCredits_ = false, shownQuota_ = false;
  std::string lastDraft_;
  std::string promptText_;
  std::string submittedEcho_;  // the prompt and the line as the editor left them on the screen
  std::string continued_;      // earlier lines of a message typed over several lines
  std::optional<std::string> continuedPending_;
  bool lineSubmitted_ = false, inLineHandler_ = false, restoreAfterLine_ = false;
  bool leaveAfterThisKey_ = false;
  std::vector<std::string> deferred_;
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

  const bool colour = ::isatty(STDOUT_FILENO) && !rt.services.environment().noColor;
  ChatTerminal terminal(io, vm, drafts, rt.services.appFolder() / "chat_history", colour);
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

  asio::signal_set signals(io, SIGINT, SIGTERM, SIGHUP);
  std::function<void()> listen = [&] {
    signals.async_wait([&](const boost::system::error_code& ec, int signal) {
      if (ec) return;
      if (signal != SIGINT) return terminal.stop();
      terminal.interrupt();
      listen();
    });
  };
  listen();
  if (sessionID) terminal.openedExistingSession();
  terminal.run();
  io.run();
  rt.services.eventStream().stop();
  return kExitOK;
}

}  // namespace tamsel::cli
