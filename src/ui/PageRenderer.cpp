#include "ui/PageRenderer.h"

#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QRegularExpression>
#include <QTabWidget>
#include <QTreeWidget>

#include "core/StringTable.h"
#include "policy/PresetZones.h"
#include "ui/AboutBox.h"
#include "ui/ControlPanel.h"
#include "ui/PermissionDialog.h"
#include "ui/ProgramsPage.h"
#include "ui/QtMessages.h"
#include "ui/ZoneEditorDialog.h"

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

QString Str(int id) {
    return QString::fromStdString(core::LoadString(id));
}

policy::AppRecord SampleProgram(const char* imageName, const char* description, const char* path,
                                const policy::ZoneRecord& zone) {
    policy::AppRecord record{};
    driver::SetFieldText(record.imageName, imageName);
    driver::SetFieldText(record.description, description);
    driver::SetFieldText(record.path, path);
    record.zone = zone;
    return record;
}

// Rows for a Programs page that has no driver to read from; shown only, never sent.
void AddSamplePrograms(ControlPanel& panel) {
    auto* programs = panel.findChild<ProgramsPage*>();
    if (programs == nullptr || programs->List()->topLevelItemCount() > 0) {
        return;
    }
    const auto& presets = policy::PresetZones();
    programs->AddProgram(
        SampleProgram("MAILER.EXE", "Mail reader", "C:\\MAIL\\MAILER.EXE", presets[5]));
    programs->AddProgram(
        SampleProgram("BROWSE.EXE", "Web browser", "C:\\WEB\\BROWSE.EXE", presets[5]));
    programs->AddProgram(SampleProgram("UPDATE.EXE", "update.exe", "?", presets[3]));
    programs->AddProgram(SampleProgram("qctrl-brix.exe", "q-Brix Control",
                                       "C:\\Q-BRIX\\QCTRL-BRIX.EXE", presets[0]));
    programs->Model().Select(0);
}

}  // namespace

QStringList RenderPages(ControlPanel& panel, const QString& directory) {
    QStringList written;
    if (!QDir().mkpath(directory)) {
        return written;
    }
    QDir dir(directory);
    AddSamplePrograms(panel);
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

    policy::ZoneRecord zone = policy::PresetZones()[5];
    ZoneEditorDialog editor(zone, "Rule ", nullptr);
    Save(editor, dir.filePath(FileName(index++, "zone editor")), written);
    editor.Finish();
    policy::AppRecord question =
        SampleProgram("BROWSE.EXE", "Web browser", "C:\\WEB\\BROWSE.EXE", policy::EmptyZone());
    question.zone.rules[0].address = 0x0A000005;
    question.zone.rules[0].remotePort = 80;
    question.zone.rules[0].protocol = 1;
    question.zone.rules[0].direction = 2;
    PermissionDialog permissions(question, true);
    Save(permissions, dir.filePath(FileName(index++, "permissions for application")), written);
    return written;
}

}  // namespace qbrix::ui
