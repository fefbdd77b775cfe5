#include "request_cards.hpp"

#include <QButtonGroup>
#include <QCheckBox>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktopui {

using desktop::DaemonChatViewModel;
using Decision = DaemonChatViewModel::ApprovalDecision;

RequestCards::RequestCards(DaemonChatViewModel& vm, QWidget* parent) : QWidget(parent), vm_(vm) {
  setAccessibleName(tr("Waiting approvals and questions"));
  layout_ = new QVBoxLayout(this);
  layout_->setContentsMargins(0, 0, 0, 0);
  connection_ = vm_.requests().changed().connect([this] { refresh(); });
  transcriptConnection_ = vm_.transcript().changed().connect([this] { markElsewhere(); });
  refresh();
}

RequestCards::~RequestCards() {
  vm_.requests().changed().disconnect(connection_);
  vm_.transcript().changed().disconnect(transcriptConnection_);
}

void RequestCards::markElsewhere() {
  const auto current = vm_.currentSessionKey();
  auto& ids = vm_.sessionIdentityRegistry();
  for (auto& [requestID, entry] : elsewhere_) {
    const bool here = entry.sessionKey.empty() ||
                      (current && ids.realID(*current) == ids.realID(entry.sessionKey));
    entry.line->setVisible(!here);
  }
}

QWidget* RequestCards::firstCard() const {
  for (int i = 0; i < layout_->count(); ++i)
    if (auto* w = layout_->itemAt(i)->widget()) return w;
  return nullptr;
}

namespace {
QFrame* frame(QWidget* parent, const QString& name) {
  auto* card = new QFrame(parent);
  card->setFrameShape(QFrame::StyledPanel);
  card->setAccessibleName(name);
  card->setAutoFillBackground(true);
  QPalette palette = card->palette();
  palette.setColor(QPalette::Window, QColor(0xff, 0xf8, 0xe1));
  card->setPalette(palette);
  return card;
}

QLabel* text(QWidget* parent, const QString& value, const QString& name) {
  auto* label = new QLabel(value, parent);
  label->setWordWrap(true);
  label->setTextFormat(Qt::PlainText);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  label->setAccessibleName(name);
  return label;
}
}  // namespace

QWidget* RequestCards::approvalCard(const std::string& requestID) {
  const auto& row = vm_.requests()->approvalRows.at(requestID);
  const auto tool = QString::fromStdString(row.info.tool);
  auto* card = frame(this, tr("Approval needed: %1").arg(tool));
  auto* column = new QVBoxLayout(card);
  auto* title = text(card, tr("Approval needed: %1").arg(tool), tr("Approval"));
  QFont bold = title->font();
  bold.setBold(true);
  title->setFont(bold);
  column->addWidget(title);
  // Requests of every session wait here: one in another session says where, with a way there.
  auto* where = new QWidget(card);
  auto* whereRow = new QHBoxLayout(where);
  whereRow->setContentsMargins(0, 0, 0, 0);
  QString session = QString::fromStdString(row.sessionKey);
  for (const auto& s : vm_.sessions())
    if (s.id == vm_.sessionIdentityRegistry().realID(row.sessionKey) && s.title)
      session = QString::fromStdString(*s.title);
  whereRow->addWidget(text(where, tr("Waiting in another session: %1").arg(session), tr("Session")),
                      1);
  auto* go = new QPushButton(tr("Go there"), where);
  go->setAccessibleName(tr("Open the session this approval waits in"));
  const auto sessionKey = row.sessionKey;
  connect(go, &QPushButton::clicked, this, [this, sessionKey] {
    vm_.selectSession(vm_.sessionIdentityRegistry().realID(sessionKey));
  });
  whereRow->addWidget(go);
  column->addWidget(where);
  elsewhere_[requestID] = {row.sessionKey, where};
  if (row.info.args && !row.info.args->empty())
    column->addWidget(text(card, QString::fromStdString(*row.info.args), tr("Arguments")));
  if (!row.info.flags.empty()) {
    QStringList flags;
    for (const auto& f : row.info.flags) flags << QString::fromStdString(f);
    column->addWidget(
        text(card, tr("Flags: %1").arg(flags.join(QStringLiteral(", "))), tr("Flags")));
  }
  auto* buttons = new QHBoxLayout;
  const std::pair<QString, Decision> choices[] = {
      {tr("Allow &once"), Decision::once},
      {tr("Allow for this &session"), Decision::session},
      {tr("&Always allow"), Decision::always},
      {tr("&Deny"), Decision::deny}};
  for (const auto& [label, decision] : choices) {
    auto* button = new QPushButton(label, card);
    button->setAccessibleName(QString(label).remove(QLatin1Char('&')) + QStringLiteral(": ") +
                              tool);
    connect(button, &QPushButton::clicked, this,
            [this, requestID, decision = decision] { vm_.answerApproval(requestID, decision); });
    buttons->addWidget(button);
  }
  buttons->addStretch();
  column->addLayout(buttons);
  return card;
}

QWidget* RequestCards::questionCard(const std::string& requestID) {
  const auto request = vm_.requests()->questionRows.at(requestID).request;
  auto* card = frame(this, tr("Question from the agent"));
  auto* column = new QVBoxLayout(card);
  // Collects the answer of each question when the user sends them.
  std::vector<std::function<bridge::AnswerBody()>> collectors;
  for (const auto& entry : request.questions) {
    QString heading = QString::fromStdString(entry.question);
    if (entry.header)
      heading = QString::fromStdString(*entry.header) + QStringLiteral(": ") + heading;
    auto* label = text(card, heading, tr("Question"));
    QFont bold = label->font();
    bold.setBold(true);
    label->setFont(bold);
    column->addWidget(label);
    std::vector<QAbstractButton*> options;
    const bool multi = entry.multiSelect.value_or(false);
    auto* group = new QButtonGroup(card);
    group->setExclusive(!multi);
    if (entry.options)
      for (const auto& option : *entry.options) {
        QString caption = QString::fromStdString(option.label);
        if (option.description)
          caption += QStringLiteral(" — ") + QString::fromStdString(*option.description);
        QAbstractButton* button = multi
                                      ? static_cast<QAbstractButton*>(new QCheckBox(caption, card))
                                      : new QRadioButton(caption, card);
        button->setAccessibleName(QString::fromStdString(option.label));
        if (!multi && options.empty()) button->setChecked(true);
        group->addButton(button);
        column->addWidget(button);
        options.push_back(button);
      }
    QLineEdit* other = nullptr;
    if (!entry.options || entry.options->empty() || entry.allowOther.value_or(false)) {
      other = new QLineEdit(card);
      other->setPlaceholderText(entry.options && !entry.options->empty() ? tr("Or your own answer")
                                                                         : tr("Your answer"));
      other->setAccessibleName(
          tr("Your own answer to: %1").arg(QString::fromStdString(entry.question)));
      column->addWidget(other);
    }
    collectors.push_back([entry, options, other] {
      bridge::AnswerBody answer{entry.id, {}};
      if (other && !other->text().trimmed().isEmpty()) {
        answer.values.push_back(other->text().trimmed().toStdString());
        return answer;
      }
      for (std::size_t i = 0; i < options.size(); ++i)
        if (options[i]->isChecked()) answer.values.push_back(entry.options->at(i).label);
      return answer;
    });
  }
  auto* buttons = new QHBoxLayout;
  auto* answer = new QPushButton(tr("A&nswer"), card);
  answer->setAccessibleName(tr("Send the answer"));
  auto* decline = new QPushButton(tr("D&ecline"), card);
  decline->setAccessibleName(tr("Decline the question"));
  connect(answer, &QPushButton::clicked, this, [this, requestID, collectors] {
    std::vector<bridge::AnswerBody> answers;
    for (const auto& collect : collectors) answers.push_back(collect());
    vm_.answerQuestion(requestID, std::move(answers));
  });
  connect(decline, &QPushButton::clicked, this,
          [this, requestID] { vm_.declineQuestion(requestID); });
  buttons->addWidget(answer);
  buttons->addWidget(decline);
  buttons->addStretch();
  column->addLayout(buttons);
  return card;
}

void RequestCards::refresh() {
  const auto& state = vm_.requests().state();
  std::map<std::string, QWidget*> next;
  for (const auto& [id, row] : state.approvalRows) {
    auto found = cards_.find(id);
    next[id] = found != cards_.end() ? found->second : approvalCard(id);
  }
  for (const auto& [id, row] : state.questionRows) {
    auto found = cards_.find(id);
    next[id] = found != cards_.end() ? found->second : questionCard(id);
  }
  for (auto& [id, card] : cards_)
    if (!next.count(id)) {
      layout_->removeWidget(card);
      card->hide();
      card->deleteLater();
    }
  for (auto& [id, card] : next)
    if (!cards_.count(id)) layout_->addWidget(card);
  cards_ = std::move(next);
  std::erase_if(elsewhere_, [this](const auto& entry) { return !cards_.count(entry.first); });
  markElsewhere();
  setVisible(!cards_.empty());
}

}  // namespace tamsel::desktopui
