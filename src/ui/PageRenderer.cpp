#include "ui/PageRenderer.h"

#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QRegularExpression>
#include <QTabWidget>

#include "core/StringTable.h"
#include "ui/AboutBox.h"
#include "ui/ControlPanel.h"
#include "ui/QtMessages.h"

namespace qbrix::ui {

namespace {

QString FileName(int index, const QString& caption) {
    QString name = caption.toLower();
    name.replace(QRegularExpression("[^a-z0-9]+"), "-");
    return QString("%1-%2.png").arg(index, 2, 10, QChar('0')).arg(name);
}

bool Save(QWidget& widget, const QString& path, QStringList& written) {
    widget.show();
    QApplication::processEvents();
    bool saved = widget.grab().save(path);
    if (saved) {
        written << path;
    }
    return saved;
}

QString Str(int id) { return QString::fromStdString(core::LoadString(id)); }

}  // namespace

QStringList RenderPages(ControlPanel& panel, const QString& directory) {
    QStringList written;
    if (!QDir().mkpath(directory)) {
        return written;
    }
    QDir dir(directory);
    QTabWidget* tabs = panel.Tabs();
    for (int i = 0; i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        if (!Save(panel, dir.filePath(FileName(i + 1, "panel " + tabs->tabText(i))), written)) {
            return {};
        }
    }
    tabs->setCurrentIndex(0);
    panel.hide();

    int index = tabs->count() + 1;
    AboutBox about;
    Save(about, dir.filePath(FileName(index++, "about")), written);
    NoAskWindow noAsk(Str(89), Str(74));
    Save(noAsk, dir.filePath(FileName(index++, "admin required")), written);
    QMessageBox exitPrompt(QMessageBox::Question, Str(33), Str(32),
                           QMessageBox::Yes | QMessageBox::No);
    Save(exitPrompt, dir.filePath(FileName(index++, "exit prompt")), written);
    return written;
}

}  // namespace qbrix::ui
