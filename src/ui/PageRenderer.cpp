#include "ui/PageRenderer.h"

#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QRegularExpression>
#include <QTabWidget>
#include <QTreeWidget>
#include <algorithm>
#include <cstdio>
#include <memory>

#include "content/LspSettings.h"
#include "content/RuleEditorSupport.h"
#include "content/RuleTestReport.h"
#include "core/StringTable.h"
#include "events/ContentEvent.h"
#include "policy/PresetZones.h"
#include "stats/StatChartText.h"
#include "stats/StatPeriodList.h"
#include "ui/AboutBox.h"
#include "ui/AnsiText.h"
#include "ui/BarChart.h"
#include "ui/ContentDetailsDialog.h"
#include "ui/ControlPanel.h"
#include "ui/PermissionDialog.h"
#include "ui/ProgramsPage.h"
#include "ui/QtMessages.h"
#include "ui/RuleEditor.h"
#include "ui/RuleReportDialog.h"
#include "ui/UnitTesterDialog.h"
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
    return FromAnsi(core::LoadString(id));
}

void CopyText(char* field, std::size_t width, const char* text) {
    std::snprintf(field, width, "%s", text);
}

// A sample breakdown for the chart pictures: a week of traffic "by Weekdays", its buckets in
// the breakdown's own order and with its own labels.
void FillSampleChart(BarChart& chart) {
    ChartModel& model = chart.Model();
    model.SetColumnCount(static_cast<int>(stats::kStatColumnLabels.size()));
    for (int column = 0; column < model.ColumnCount(); ++column) {
        model.SetColumnLabel(column, stats::kStatColumnLabels[column]);
    }
    const std::vector<std::string> days = stats::WeekdayLabels();
    const std::int64_t bytes[7][4] = {
        {3100000, 500000, 200000, 100000},    {14500000, 2100000, 900000, 400000},
        {18200000, 2600000, 1100000, 500000}, {9800000, 1900000, 700000, 300000},
        {21000000, 3300000, 1500000, 600000}, {16400000, 2800000, 1000000, 450000},
        {5200000, 800000, 300000, 150000},
    };
    model.SetRowCount(std::min(static_cast<int>(days.size()), 7));
    for (int row = 0; row < model.RowCount(); ++row) {
        model.SetRowLabel(row, FromAnsi(days[row]));
        for (int column = 0; column < 4; ++column) {
            model.SetCellText(row, column, FromAnsi(stats::ChartCellText(bytes[row][column])));
        }
    }
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

    // The content dialogs on a sample rule that lives only here.
    content::LspSettings settings;
    std::unique_ptr<content::ContentRule> rule = content::MakeNewRule("Block banner images");
    rule->enable = 1;
    rule->popUp = 1;
    rule->group = "Advertising";
    content::UnitFields mainFields;
    mainFields.find = "<img[^>]*banner[^>]*>";
    mainFields.replaceOn = true;
    mainFields.replace = "<!-- removed -->";
    mainFields.comment = "banner images";
    content::ApplyUnitFields(rule->main, mainFields, content::kMainRuleCaption);
    content::RegRuleMatcher& sub = rule->InsertSubRule(nullptr);
    content::UnitFields subFields;
    subFields.find = "ads\\.";
    subFields.comment = "only ad servers";
    content::ApplyUnitFields(sub, subFields, content::kSubRuleCaption);
    sub.enable = 1;
    {
        RuleEditor editor(*rule, settings);
        Save(editor, dir.filePath(FileName(index++, "rule editor")), written);
    }
    content::RegRuleMatcher unit;
    content::UnitFields unitFields;
    unitFields.find = "a(b)c";
    content::ApplyUnitFields(unit, unitFields, content::kMainRuleCaption);
    {
        UnitTesterDialog tester(unit);
        if (auto* input = tester.findChild<QPlainTextEdit*>("input")) {
            input->setPlainText("xabcx");
            tester.RunTest();
        }
        Save(tester, dir.filePath(FileName(index++, "unit tester")), written);
    }
    content::WholeRuleReport report;
    content::RuleTestFields testFields;
    testFields.enable = true;
    testFields.name = rule->name;
    testFields.log = true;
    testFields.main = mainFields;
    content::RunWholeRuleTest(*rule, testFields,
                              "<p>news</p><img src=\"http://ads.example/banner1.gif\">", report);
    {
        RuleReportDialog dialog(report);
        Save(dialog, dir.filePath(FileName(index++, "rule report")), written);
    }
    events::ContentEvent event{};
    event.type = events::kWebFound;
    CopyText(event.address, sizeof(event.address), "http://downloads.example/tools/setup.exe");
    CopyText(event.name, sizeof(event.name), "setup.exe: Eicar-Test-Signature");
    CopyText(event.quarantine, sizeof(event.quarantine), "/var/lib/q-brix/quarantine/setup.exe");
    {
        ContentDetailsDialog details(event);
        Save(details, dir.filePath(FileName(index++, "content details")), written);
    }

    // The chart on sample data, flat and in 3D.
    for (bool threeD : {false, true}) {
        BarChart chart;
        chart.resize(640, 360);
        FillSampleChart(chart);
        chart.SetThreeD(threeD);
        Save(chart, dir.filePath(FileName(index++, threeD ? "chart 3d" : "chart flat")), written);
    }
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
