#include "approval_notifier.hpp"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

#include "tamsel/base/log.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktopui {

namespace {
const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");

using Decision = desktop::DaemonChatViewModel::ApprovalDecision;
std::optional<Decision> decisionOf(const QString& action) {
  if (action == QLatin1String("once")) return Decision::once;
  if (action == QLatin1String("session")) return Decision::session;
  if (action == QLatin1String("always")) return Decision::always;
  if (action == QLatin1String("deny")) return Decision::deny;
  return std::nullopt;
}
}  // namespace

ApprovalNotifier::ApprovalNotifier(desktop::DaemonChatViewModel& vm, QDBusConnection bus,
                                   std::function<bool()> shouldNotify, QObject* parent)
    : QObject(parent), vm_(vm), bus_(std::move(bus)), shouldNotify_(std::move(shouldNotify)) {
  bus_.connect(kService, kPath, kInterface, QStringLiteral("ActionInvoked"), this,
               SLOT(onActionInvoked(uint, QString)));
  bus_.connect(kService, kPath, kInterface, QStringLiteral("NotificationClosed"), this,
               SLOT(onClosed(uint, uint)));
  connection_ = vm_.requests().changed().connect([this] { refresh(); });
}

ApprovalNotifier::~ApprovalNotifier() {
  vm_.requests().changed().disconnect(connection_);
  for (const auto& [request, id] : byRequest_) {
    auto call = QDBusMessage::createMethodCall(kService, kPath, kInterface,
                                               QStringLiteral("CloseNotification"));
    call << id;
    bus_.call(call, QDBus::NoBlock);
  }
}

void ApprovalNotifier::refresh() {
  const auto& rows = vm_.requests()->approvalRows;
  for (const auto& [requestID, row] : rows) {
    if (seen_.count(requestID)) continue;
    seen_[requestID] = true;
    if (shouldNotify_ && shouldNotify_()) show(requestID);
  }
  std::vector<std::string> gone;
  for (const auto& [requestID, id] : byRequest_)
    if (!rows.count(requestID)) gone.push_back(requestID);
  for (const auto& requestID : gone) close(requestID);
  // Forget what was considered once it is answered, so the map stays small.
  std::erase_if(seen_, [&](const auto& entry) { return !rows.count(entry.first); });
}

void ApprovalNotifier::show(const std::string& requestID) {
  const auto& row = vm_.requests()->approvalRows.at(requestID);
  QString body = QString::fromStdString(row.info.args.value_or(""));
  if (!row.info.flags.empty())
    body +=
        QStringLiteral("\n") + tr("Flags: %1").arg(QString::fromStdString(row.info.flags.front()));
  auto call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
  const QStringList actions{QStringLiteral("once"),    tr("Allow once"),
                            QStringLiteral("session"), tr("Allow for this session"),
                            QStringLiteral("always"),  tr("Always allow"),
                            QStringLiteral("deny"),    tr("Deny")};
  QVariantMap hints{{QStringLiteral("urgency"), QVariant::fromValue<uchar>(2)},
                    {QStringLiteral("desktop-entry"), QStringLiteral("dev.tamsel.desktop")}};
  call << QStringLiteral("Tamsel") << uint(0) << QStringLiteral("dev.tamsel.desktop")
       << tr("Approval needed: %1").arg(QString::fromStdString(row.info.tool)) << body << actions
       << hints << int(0);
  // Asynchronous: a slow or missing notification server never holds up the window.
  auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
  connect(watcher, &QDBusPendingCallWatcher::finished, this,
          [this, requestID](QDBusPendingCallWatcher* w) {
            QDBusPendingReply<uint> reply = *w;
            w->deleteLater();
            if (reply.isError()) {
              base::log::info("desktop", "no desktop notification: {}",
                              reply.error().message().toStdString());
              return;
            }
            // Answered while the server was still answering us: close it at once.
            if (!vm_.requests()->approvalRows.count(requestID)) {
              byRequest_[requestID] = reply.value();
              close(requestID);
              return;
            }
            byRequest_[requestID] = reply.value();
          });
}

void ApprovalNotifier::close(const std::string& requestID) {
  const auto found = byRequest_.find(requestID);
  if (found == byRequest_.end()) return;
  auto call = QDBusMessage::createMethodCall(kService, kPath, kInterface,
                                             QStringLiteral("CloseNotification"));
  call << found->second;
  bus_.asyncCall(call);
  byRequest_.erase(found);
}

void ApprovalNotifier::onActionInvoked(uint id, const QString& action) {
  for (const auto& [requestID, shown] : byRequest_) {
    if (shown != id) continue;
    const auto request = requestID;
    if (const auto decision = decisionOf(action)) vm_.answerApproval(request, *decision);
    return;
  }
}

void ApprovalNotifier::onClosed(uint id, uint) {
  std::erase_if(byRequest_, [id](const auto& entry) { return entry.second == id; });
}

}  // namespace tamsel::desktopui
