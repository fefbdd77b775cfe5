// tamsel chat -m TEXT: send one message and show the reply as it is written.
#include <signal.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <clocale>
#include <fstream>
#include <iostream>
#include <sstream>

#include "cli.hpp"
#include "runtime.hpp"
#include "table.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "terminal_markdown.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;
namespace json = base::json;
using bridge::SSEEvent;

namespace {

std::string compact(const std::optional<bridge::JSON>& value, std::size_t limit = 80) {
  if (!value || value->is_null()) return {};
  std::string text = json::serialize(*value);
  if (text.size() > limit) text = text.substr(0, limit - 3) + "...";
  return text;
}

// Prompts go to stderr, never into stdout, which may be a file of JSON lines or a reply.
void note(const std::string& text) { std::cerr << text << std::endl; }

std::optional<std::string> readLine(const std::string& prompt) {
  std::cerr << prompt << std::flush;
  std::string line;
  if (!std::getline(std::cin, line)) return std::nullopt;
  return line;
}

// Renders a reply for a person: text as it grows, one line per tool call, the cards.
class ChatPrinter {
 public:
  // `markdown`: the reply is shown rendered, block by block (a terminal); without it, as sent.
  ChatPrinter(bool asJSON, std::optional<MarkdownStyle> markdown) : asJSON_(asJSON) {
    if (markdown && !asJSON) live_.emplace(std::cout, *markdown);
  }

  void show(const SSEEvent& event) {
    // The session is needed to cancel the run, whatever the output format.
    if (const auto* started = event.get<SSEEvent::SessionStarted>()) {
      sessionID = started->value.sessionId;
      // A script needs the id to continue the session; JSON output carries it in the event.
      if (!asJSON_) note("tamsel: session " + *sessionID);
    }
    if (asJSON_) {
      boost::json::object line;
      line["event"] = event.wireName;
      line["data"] = event.data;
      std::cout << json::serialize(line) << std::endl;
      return;
    }
    if (live_) {
      if (const auto* delta = event.get<SSEEvent::Delta>()) {
        live_->append(delta->value.text);
        sawDelta_ = true;
        return;
      }
      if (const auto* text = event.get<SSEEvent::AssistantText>()) {
        if (!sawDelta_) live_->append(text->value.text + "\n\n");
        printedAnyText_ = printedAnyText_ || !text->value.text.empty();
        return;
      }
      if (const auto* done = event.get<SSEEvent::Done>()) {
        if (!sawDelta_ && !printedAnyText_ && done->value.reply) live_->append(*done->value.reply);
        live_->finish();
        return;
      }
    }
    if (const auto* delta = event.get<SSEEvent::Delta>()) {
      std::cout << delta->value.text << std::flush;
      midLine_ = !delta->value.text.empty() && delta->value.text.back() != '\n';
      sawDelta_ = true;
    } else if (const auto* text = event.get<SSEEvent::AssistantText>()) {
      // Deltas already showed this text; print whole blocks only when the engine sent no deltas.
      if (!sawDelta_) {
        std::cout << text->value.text << std::flush;
        printedAnyText_ = !text->value.text.empty() || printedAnyText_;
        midLine_ = !text->value.text.empty() && text->value.text.back() != '\n';
      }
    } else if (const auto* tool = event.get<SSEEvent::Tool>()) {
      line("[tool] " + tool->value.tool + " " + compact(tool->value.args) + " " +
           tool->value.status.value_or("") +
           (tool->value.isError.value_or(false) ? " (error)" : ""));
    } else if (const auto* error = event.get<SSEEvent::Error>()) {
      line("[error] " + error->value.error);
    } else if (const auto* done = event.get<SSEEvent::Done>()) {
      if (!sawDelta_ && done->value.reply && !done->value.reply->empty() && !printedAnyText_) {
        std::cout << *done->value.reply;
        midLine_ = done->value.reply->back() != '\n';
      }
      if (midLine_) std::cout << "\n";
      midLine_ = false;
      std::cout << std::flush;
    }
  }

  // Ends a line the reply left open, so what follows starts on its own line.
  void finish() {
    if (live_) live_->suspend();
    if (midLine_) std::cout << std::endl;
    midLine_ = false;
  }

  void line(const std::string& text) {
    if (asJSON_) return;
    if (live_) live_->suspend();
    if (midLine_) std::cout << "\n";
    std::cout << text << std::endl;
    midLine_ = false;
    if (live_) live_->resume();
  }

  std::optional<std::string> sessionID;

 private:
  bool asJSON_;
  std::optional<LiveMarkdown> live_;
  bool midLine_ = false;
  bool sawDelta_ = false;
  bool printedAnyText_ = false;
};

struct ChatRun {
  const GlobalOptions& options;
  const ChatOptions& chat;
  bridge::DaemonClient& client;
  ChatPrinter printer;
  bool interactive;
  std::optional<bridge::ReplyStream> stream;
  int exitCode = kExitOK;

  asio::awaitable<void> answerApproval(const bridge::ApprovalEvent& approval) {
    std::optional<std::string> decision;
    if (chat.deny)
      decision = "deny";
    else if (chat.autoApprove)
      decision = chat.autoApprove;
    else if (interactive) {
      printer.finish();
      note("Approval needed: " + approval.tool.value_or("a tool") + " " +
           compact(approval.args, 200));
      while (!decision) {
        auto answer = readLine("Allow? [o]nce, [s]ession, [a]lways, [d]eny: ");
        if (!answer) break;
        const char c =
            answer->empty()
                ? ' '
                : static_cast<char>(std::tolower(static_cast<unsigned char>((*answer)[0])));
        if (c == 'o')
          decision = "once";
        else if (c == 's')
          decision = "session";
        else if (c == 'a')
          decision = "always";
        else if (c == 'd')
          decision = "deny";
      }
    }
    if (!decision) {
      note("tamsel: approval for " + approval.tool.value_or("a tool") + " (request " +
           approval.requestId +
           ") is waiting for another client to answer it; to decide here, run with --approve "
           "once|session|always or --deny");
      co_return;
    }
    const bridge::ApprovalResponseBody body{approval.requestId, *decision};
    co_await client.answerApproval(body);
    printer.line(*decision == "deny" ? "Denied." : "Approved (" + *decision + ").");
  }

  // The labels an answer picks: option numbers ("1 3") or labels; anything else is free text.
  static std::vector<std::string> pickedValues(
      const std::string& reply, const std::vector<bridge::QuestionOptionPayload>& options) {
    for (const auto& option : options)
      if (option.label == reply) return {reply};
    std::istringstream words(reply);
    std::vector<std::string> picked;
    for (std::string word; words >> word;) {
      char* end = nullptr;
      const long n = std::strtol(word.c_str(), &end, 10);
      if (*end != '\0' || n < 1 || static_cast<std::size_t>(n) > options.size()) return {reply};
      picked.push_back(options[static_cast<std::size_t>(n - 1)].label);
    }
    return picked.empty() ? std::vector<std::string>{reply} : picked;
  }

  asio::awaitable<void> decline(const bridge::QuestionRequestPayload& question) {
    const bridge::QuestionResponseBody body{question.requestId, std::string("decline"),
                                            std::nullopt};
    co_await client.answerQuestion(body);
    printer.line("Declined.");
  }

  asio::awaitable<void> answerQuestion(const bridge::QuestionRequestPayload& question) {
    if (chat.deny || chat.declineQuestions) co_return co_await decline(question);
    std::vector<bridge::AnswerBody> answers;
    if (!chat.answers.empty()) {
      // Given on the command line: one per question, in order.
      if (chat.answers.size() < question.questions.size()) {
        note("tamsel: the reply asks " + std::to_string(question.questions.size()) +
             " questions but --answer gave " + std::to_string(chat.answers.size()) +
             "; declining them");
        co_return co_await decline(question);
      }
      for (std::size_t i = 0; i < question.questions.size(); ++i) {
        const auto& entry = question.questions[i];
        const auto& options =
            entry.options ? *entry.options : std::vector<bridge::QuestionOptionPayload>{};
        answers.push_back({entry.id, pickedValues(chat.answers[i], options)});
      }
      const bridge::QuestionResponseBody body{question.requestId, std::string("answer"), answers};
      co_await client.answerQuestion(body);
      printer.line("Answered.");
      co_return;
    }
    if (!interactive) {
      note("tamsel: a question (request " + question.requestId +
           ") is waiting for another client to answer it; to decide here, run with --answer "
           "TEXT or --decline-questions");
      co_return;
    }
    printer.finish();
    for (const auto& entry : question.questions) {
      note((entry.header ? "[" + *entry.header + "] " : std::string()) + entry.question);
      const auto& options =
          entry.options ? *entry.options : std::vector<bridge::QuestionOptionPayload>{};
      for (std::size_t i = 0; i < options.size(); ++i) {
        std::string line = "  " + std::to_string(i + 1) + ". " + options[i].label;
        if (options[i].description) line += " — " + *options[i].description;
        if (options[i].recommended.value_or(false)) line += " (recommended)";
        note(line);
      }
      const bool multi = entry.multiSelect.value_or(false);
      auto reply = readLine(std::string(multi ? "Numbers separated by spaces" : "Number") +
                            (entry.allowOther.value_or(false) ? " or your own answer" : "") +
                            ", empty to decline: ");
      if (!reply || reply->empty()) co_return co_await decline(question);
      answers.push_back({entry.id, pickedValues(*reply, options)});
    }
    const bridge::QuestionResponseBody body{question.requestId, std::string("answer"), answers};
    co_await client.answerQuestion(body);
  }

  asio::awaitable<void> run() {
    bridge::SendMessageRequest request;
    request.text = chat.message;
    request.agent = chat.agent;
    if (chat.sessionID)
      request.sessionId = chat.sessionID;
    else
      request.newSession = true;
    request.clientMessageId = base::newUUIDString();
    stream = co_await client.sendMessage(request);
    while (auto event = co_await stream->next()) {
      printer.show(*event);
      if (const auto* approval = event->get<SSEEvent::Approval>())
        co_await answerApproval(approval->value);
      if (const auto* question = event->get<SSEEvent::Question>())
        co_await answerQuestion(question->value);
      if (const auto* failure = event->get<SSEEvent::Failure>()) {
        printError(failure->value.error.description());
        exitCode = kExitFailure;
      }
    }
    printer.finish();
    if (stream->endedPrematurely() && exitCode == kExitOK) {
      printError("The reply ended before it was complete");
      exitCode = kExitFailure;
    }
  }
};

}  // namespace

namespace {
// The message of `-m -`, a pipe or --file, read whole; an empty one is refused before anything
// is sent.
std::string readMessage(const ChatOptions& chat) {
  std::string text = chat.message;
  if (chat.messageFile) {
    std::ostringstream all;
    if (*chat.messageFile == "-") {
      all << std::cin.rdbuf();
    } else {
      std::ifstream in(*chat.messageFile, std::ios::binary);
      if (!in) throw CommandException({CommandError::Usage{"cannot read " + *chat.messageFile}});
      all << in.rdbuf();
    }
    text = all.str();
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  }
  if (text.find_first_not_of(" \t\r\n") == std::string::npos)
    throw CommandException({CommandError::Usage{"the message is empty"}});
  return text;
}
}  // namespace

int chatOnce(const GlobalOptions& options, const ChatOptions& given) {
  ChatOptions chat = given;
  chat.message = readMessage(given);
  chat.messageFile.reset();
  if (chat.continueLatest) chat.sessionID = latestSessionID(options, chat.agent);
  ensureEngine(options);
  Runtime rt(options);
  auto& io = rt.io;
  auto& client = rt.services.client();
  // A person at a terminal reads the reply rendered; a pipe or file gets it as the engine wrote it.
  std::optional<MarkdownStyle> markdown;
  if (const auto width = terminalWidth(); width > 0) {
    std::setlocale(LC_CTYPE, "");
    markdown =
        MarkdownStyle{std::max<std::size_t>(width - 1, 20), !rt.services.environment().noColor};
  }
  ChatRun run{options,
              chat,
              client,
              ChatPrinter(chat.asJSON, markdown),
              static_cast<bool>(::isatty(STDIN_FILENO)),
              {}};

  bool interrupted = false;
  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int) {
    if (ec) return;
    interrupted = true;
    // Dropping the stream closes the request; the engine is also asked to stop the run.
    asio::co_spawn(
        io,
        [&]() -> asio::awaitable<void> {
          if (run.stream) run.stream->cancel();
          try {
            const bridge::CancelRequest body{
                run.printer.sessionID ? run.printer.sessionID : chat.sessionID, chat.agent,
                std::nullopt};
            co_await client.cancel(body);
          } catch (const std::exception&) {
          }
          io.stop();
        },
        asio::detached);
  });

  std::exception_ptr failure;
  asio::co_spawn(io, run.run(), [&](std::exception_ptr e) {
    failure = e;
    signals.cancel();
  });
  io.run();
  run.printer.finish();
  if (interrupted) {
    printError("Cancelled");
    return kExitInterrupted;
  }
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& e) {
      printError(e.what());
    }
    return kExitFailure;
  }
  return run.exitCode;
}

}  // namespace tamsel::cli
