#include "screen_report.hpp"

#include <QAbstractButton>
#include <QComboBox>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPlainTextEdit>
#include <QTreeView>

namespace tamsel::desktopui {

namespace {
QString line(const char* kind, QString text, QWidget* widget, QRect rect) {
  const QPoint centre = widget->mapToGlobal(rect.center());
  text.replace(QLatin1Char('\n'), QLatin1Char(' ')).replace(QLatin1Char('\t'), QLatin1Char(' '));
  return QStringLiteral("%1\t%2\t%3,%4\n")
      .arg(QString::fromLatin1(kind), text)
      .arg(centre.x())
      .arg(centre.y());
}
}  // namespace

QString describeVisible(QWidget* window) {
  // First, whether the window has the keyboard and how it is drawn: a summoned window must be
  // active, and a scaled screen must show every control at its scaled place.
  QString out = line(
      "window", window->isActiveWindow() ? QStringLiteral("active") : QStringLiteral("inactive"),
      window, window->rect());
  out += line("platform",
              QStringLiteral("%1 %2 %3x%4")
                  .arg(QGuiApplication::platformName())
                  .arg(window->devicePixelRatioF())
                  .arg(window->width())
                  .arg(window->height()),
              window, window->rect());
  for (auto* w : window->findChildren<QWidget*>()) {
    if (!w->isVisible()) continue;
    if (auto* label = qobject_cast<QLabel*>(w)) {
      if (!label->text().isEmpty()) out += line("label", label->text(), w, w->rect());
    } else if (auto* button = qobject_cast<QAbstractButton*>(w)) {
      out += line("button", QString(button->text()).remove(QLatin1Char('&')), w, w->rect());
    } else if (auto* edit = qobject_cast<QPlainTextEdit*>(w)) {
      out += line("text", edit->toPlainText(), w, w->rect());
    } else if (auto* field = qobject_cast<QLineEdit*>(w)) {
      out += line("field", field->text(), w, w->rect());
    } else if (auto* combo = qobject_cast<QComboBox*>(w)) {
      out += line("choice", combo->currentText(), w, w->rect());
    } else if (auto* tree = qobject_cast<QTreeView*>(w)) {
      // A row's columns, tab-free, as one text: what a person reads across the line.
      const auto* model = tree->model();
      for (int row = 0; model && row < model->rowCount(); ++row) {
        QStringList cells;
        for (int column = 0; column < model->columnCount(); ++column)
          if (!tree->isColumnHidden(column)) cells << model->index(row, column).data().toString();
        const QRect rect = tree->visualRect(model->index(row, 0));
        if (!rect.isValid() || !tree->viewport()->rect().intersects(rect)) continue;
        out += line("row", cells.join(QStringLiteral(" | ")), tree->viewport(), rect);
      }
    } else if (auto* list = qobject_cast<QListView*>(w)) {
      const auto* model = list->model();
      for (int row = 0; model && row < model->rowCount(); ++row) {
        const auto index = model->index(row, 0);
        const QRect rect = list->visualRect(index);
        if (!rect.isValid() || !list->viewport()->rect().intersects(rect)) continue;
        out += line("row",
                    index.data(Qt::AccessibleTextRole).toString().isEmpty()
                        ? index.data().toString()
                        : index.data(Qt::AccessibleTextRole).toString(),
                    list->viewport(), rect);
      }
    }
  }
  return out;
}

}  // namespace tamsel::desktopui
