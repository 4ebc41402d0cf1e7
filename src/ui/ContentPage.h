// The "Content Options" page: a protocol selector, that protocol's antivirus and filter switches
// and its rule list with the rule commands. It edits the in-memory settings and rule lists;
// nothing reaches the registry before "Save". It also fills the tray's "Content Rules" pop-up
// and carries out its commands.
#pragma once

#include <QString>
#include <functional>
#include <string>

#include "content/ContentRule.h"
#include "content/LspSettings.h"
#include "ui/PropertyPage.h"

class QCheckBox;
class QComboBox;
class QMenu;
class QPushButton;
class QTreeWidget;
class QTreeWidgetItem;

namespace qbrix::ui {

class NumericEdit;

class ContentPage : public PropertyPage {
    Q_OBJECT
  public:
    // Commands of the page, numbered like their texts in the string table; the command bar
    // holds the buttons from "New" upward.
    static constexpr int kNewCommand = 5960;
    static constexpr int kEditCommand = 5961;
    static constexpr int kDeleteCommand = 5962;
    static constexpr int kEnableCommand = 5963;
    static constexpr int kImportCommand = 5964;
    static constexpr int kExportCommand = 5965;
    // Item data of a rule line: the rule's address and its image index.
    static constexpr int kRuleRole = Qt::UserRole;
    static constexpr int kImageRole = Qt::UserRole + 1;

    // Opens the Rule Editor on a rule and returns the dialog result (QDialog::Accepted on OK).
    using EditorRunner = std::function<int(content::ContentRule& rule)>;

    explicit ContentPage(content::LspSettings& settings, QWidget* parent = nullptr);

    bool HasUnsavedChanges() override { return m_modified; }
    void SaveOrDiscard(bool save) override;

    // Reads the settings (once per run), both rule lists and shows the selected protocol.
    void Reload();
    void Save();

    void NewRule();
    void EditRule();
    void DeleteRule();
    void ToggleEnable();
    void ExportRule();
    void ImportRule();
    // The rule list's right-click menu; the caller owns it.
    QMenu* BuildContextMenu();

    // The tray's "Content Rules" pop-up; `greyed` while the panel is visible.
    void FillTrayMenu(QMenu* menu, bool greyed);

    // Tests replace the modal editor.
    void SetEditorRunner(EditorRunner runner) { m_runEditor = std::move(runner); }

    content::RuleList& ShownRules();
    content::ContentRule* SelectedRule() const;
    QTreeWidget* RuleListView() const { return m_rules; }

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void ShowProtocol(int row);
    void StoreShownFields();
    void FollowAntivirusEnable();
    void FollowFilterEnable();
    void SetLine(QTreeWidgetItem* item, const content::ContentRule& rule);
    QTreeWidgetItem* AddLine(content::ContentRule& rule);
    void SelectLine(QTreeWidgetItem* item);
    void RunCommand(int command);
    void SetModified() {
        if (!m_filling) {
            m_modified = true;
        }
    }

    content::LspSettings& m_settings;
    EditorRunner m_runEditor;
    int m_shown = -1;  // protocol row whose block the fields show; none right after a reload
    bool m_modified = false;
    bool m_filling = false;
    QComboBox* m_protocol = nullptr;
    NumericEdit* m_maxSize = nullptr;
    QCheckBox* m_avEnable = nullptr;
    QCheckBox* m_blockVirus = nullptr;
    QCheckBox* m_avLog = nullptr;
    NumericEdit* m_avTimeout = nullptr;
    QCheckBox* m_filterEnable = nullptr;
    QTreeWidget* m_rules = nullptr;
    std::vector<QPushButton*> m_commandBar;
};

}  // namespace qbrix::ui
