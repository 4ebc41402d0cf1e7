#include "ui/SettingsPage.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "core/Messages.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "ui/AnsiText.h"
#include "ui/BitmapCheckBox.h"
#include "ui/NumericEdit.h"

namespace qbrix::ui {

namespace {

constexpr unsigned kSizeBound = 100;
// The "Write Log File" boxes draw from the bitmaps 119 to 121.
constexpr int kSettingsCheckBitmap = 119;

// A list that tells its owner just before it opens, so it can be rebuilt.
class OpeningComboBox : public QComboBox {
  public:
    using QComboBox::QComboBox;
    std::function<void()> beforeOpen;
    void showPopup() override {
        if (beforeOpen) {
            beforeOpen();
        }
        QComboBox::showPopup();
    }
};

QString FromStd(const std::string& path) {
    return QFile::decodeName(path.c_str());
}

}  // namespace

SettingsPage::SettingsPage(DefaultZoneBinding defaultZone,
                           std::function<void(const std::string& engineName)> runSelfTest,
                           QWidget* parent)
    : PropertyPage("Settings", parent),
      m_defaultZone(std::move(defaultZone)),
      m_runSelfTest(std::move(runSelfTest)) {
    setObjectName("2963");
    auto* layout = new QVBoxLayout(this);

    auto addLogGroup = [this, layout](const QString& title, LogFields& fields, const char* useId,
                                      const char* sizeId, const char* spinId, const char* pathId,
                                      const char* browseId) {
        auto* group = new QGroupBox(title, this);
        auto* grid = new QGridLayout(group);
        fields.use = new BitmapCheckBox("Write Log File", kSettingsCheckBitmap, group);
        fields.use->setObjectName(useId);
        grid->addWidget(fields.use, 0, 0, 1, 3);
        grid->addWidget(new QLabel("Log File Size", group), 1, 0);
        auto* spin = new NumericSpin(kSizeBound, sizeId, spinId, group);
        fields.size = spin->Edit();
        auto* sizeRow = new QHBoxLayout();
        sizeRow->addWidget(spin);
        sizeRow->addWidget(new QLabel("Mb", group));
        sizeRow->addStretch(1);
        grid->addLayout(sizeRow, 1, 1, 1, 2);
        grid->addWidget(new QLabel("Log File Path", group), 2, 0);
        fields.path = new QLineEdit(group);
        fields.path->setObjectName(pathId);
        grid->addWidget(fields.path, 2, 1);
        auto* browse = new QPushButton("Browse", group);
        browse->setObjectName(browseId);
        QLineEdit* pathField = fields.path;
        connect(browse, &QPushButton::clicked, this, [this, pathField] { Browse(pathField); });
        grid->addWidget(browse, 2, 2);
        grid->setColumnStretch(1, 1);
        layout->addWidget(group);
        return grid;
    };

    QGridLayout* firewall = addLogGroup("Firewall", m_firewall, "205", "208", "207", "209", "210");
    firewall->addWidget(new QLabel("Default Zone"), 3, 0);
    auto* zoneList = new OpeningComboBox(this);
    zoneList->setObjectName("274");
    zoneList->beforeOpen = [this] {
        if (m_defaultZone.fill) {
            m_filling = true;
            m_defaultZone.fill(m_zoneList);
            m_filling = false;
        }
    };
    m_zoneList = zoneList;
    connect(m_zoneList, &QComboBox::activated, this, [this] {
        if (m_filling) {
            return;
        }
        if (m_defaultZone.applySelection) {
            m_defaultZone.applySelection(m_zoneList);
        }
        m_modified = 1;
    });
    firewall->addWidget(m_zoneList, 3, 1);

    QGridLayout* content =
        addLogGroup("Content Antivirus", m_content, "206", "212", "213", "215", "214");
    content->addWidget(new QLabel("Quarantine "), 3, 0);
    m_quarantine = new QLineEdit(this);
    m_quarantine->setObjectName("217");
    content->addWidget(m_quarantine, 3, 1, 1, 2);
    content->addWidget(new QLabel("Antivirus"), 4, 0);
    m_antivirus = new QComboBox(this);
    m_antivirus->setObjectName("266");
    m_antivirus->addItems({"Disabled", "NOD32", "Sophos", "Unasoft"});
    content->addWidget(m_antivirus, 4, 1);
    auto* test = new QPushButton("Test", this);
    test->setObjectName("301");
    connect(test, &QPushButton::clicked, this, [this] {
        if (m_runSelfTest) {
            m_runSelfTest(ToAnsi(m_antivirus->currentText()));
        }
    });
    content->addWidget(test, 4, 2);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    auto* save = new QPushButton("Save", this);
    save->setObjectName("216");
    connect(save, &QPushButton::clicked, this, [this] {
        Save();
        m_modified = 0;
    });
    buttons->addWidget(save);
    layout->addLayout(buttons);
    layout->addStretch(1);

    // The defaults of the first reads: files in the program's own directory, logs on, 1 Mb.
    m_firewall.path->setText(FromStd(platform::ProgramFile("firewall.log")));
    m_content.path->setText(FromStd(platform::ProgramFile("content.log")));
    m_quarantine->setText(FromStd(platform::ProgramFile("quarantine")));
    for (LogFields* fields : {&m_firewall, &m_content}) {
        fields->use->setChecked(true);
        fields->size->SetValue(1);
    }
    Load();
    m_modified = 0;
}

// The firewall log reads (and writes) its path first, the content log last.
void SettingsPage::LoadLog(const char* suffix, LogFields& fields, bool pathFirst) {
    core::RegistryKey key(suffix, core::kGuiRootPath);
    std::string path = QFile::encodeName(fields.path->text()).toStdString();
    platform::DWORD size = fields.size->Value();
    platform::DWORD use = fields.use->isChecked() ? 1 : 0;
    auto readPath = [&] { path = key.GetString(core::kFileNameValue, path.c_str()); };
    if (pathFirst) {
        readPath();
        size = key.GetDword(core::kFileSizeValue, size);
        use = key.GetDword(core::kUseLogValue, use);
    } else {
        use = key.GetDword(core::kUseLogValue, use);
        size = key.GetDword(core::kFileSizeValue, size);
        readPath();
    }
    fields.use->setChecked(use != 0);
    fields.size->SetValue(size);
    fields.path->setText(FromStd(path));
}

void SettingsPage::Load() {
    LoadLog(core::kFwLogSuffix, m_firewall, true);
    LoadLog(core::kLspLogSuffix, m_content, false);
    core::RegistryKey av(core::kAvSuffix, core::kLspRootPath);
    std::string quarantine = QFile::encodeName(m_quarantine->text()).toStdString();
    m_quarantine->setText(FromStd(av.GetString(core::kQuarantineValue, quarantine.c_str())));
    // The first entry that begins with the stored name, not case-sensitive; else the first.
    std::string stored = av.GetString(core::kAvNameValue, "");
    int index = m_antivirus->findText(FromAnsi(stored), Qt::MatchStartsWith);
    if (index < 0 && stored.find("ClamAV") != std::string::npos) {
        // ClamAV, chosen with q-brixctl or the registry tool, is shown (and kept on Save) as an
        // entry after the vendors' engines.
        m_antivirus->addItem(FromAnsi(stored));
        index = m_antivirus->count() - 1;
    }
    m_antivirus->setCurrentIndex(index < 0 ? 0 : index);
    if (m_defaultZone.fill) {
        m_filling = true;
        m_defaultZone.fill(m_zoneList);
        m_filling = false;
    }
}

void SettingsPage::SaveLog(const char* suffix, const LogFields& fields, bool pathFirst) {
    core::RegistryKey key(suffix, core::kGuiRootPath);
    std::string path = QFile::encodeName(fields.path->text()).toStdString();
    if (pathFirst) {
        key.SetString(core::kFileNameValue, path);
        key.SetDword(core::kFileSizeValue, fields.size->Value());
        key.SetDword(core::kUseLogValue, fields.use->isChecked() ? 1 : 0);
    } else {
        key.SetDword(core::kUseLogValue, fields.use->isChecked() ? 1 : 0);
        key.SetDword(core::kFileSizeValue, fields.size->Value());
        key.SetString(core::kFileNameValue, path);
    }
}

void SettingsPage::Save() {
    platform::RegistryTransaction transaction;
    SaveLog(core::kFwLogSuffix, m_firewall, true);
    SaveLog(core::kLspLogSuffix, m_content, false);
    core::RegistryKey av(core::kAvSuffix, core::kLspRootPath);
    av.SetString(core::kQuarantineValue, QFile::encodeName(m_quarantine->text()).toStdString());
    av.SetString(core::kAvNameValue, ToAnsi(m_antivirus->currentText()));
    av.Close();
    transaction.Commit();
}

void SettingsPage::SaveOrDiscard(bool save) {
    if (save) {
        Save();
    } else {
        Load();
    }
    m_modified = 0;
}

void SettingsPage::Browse(QLineEdit* pathField) {
    std::string path = core::CurrentMessages().AskSaveFileName("Log File Path", "", "", "");
    if (path.empty()) {
        return;
    }
    pathField->setText(FromStd(path));
    m_modified = 1;
}

}  // namespace qbrix::ui
