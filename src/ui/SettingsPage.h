// The "Settings" page: the two log files, the quarantine folder, the antivirus engine and the
// default zone. Only Browse and a change of the default zone mark the page modified; the default
// zone takes effect and is stored at once, everything else when "Save" is pressed.
#pragma once

#include <functional>
#include <string>

#include "ui/PropertyPage.h"

class QCheckBox;
class QComboBox;
class QLineEdit;

namespace qbrix::ui {

class NumericEdit;

// The default-zone selector's behaviour, supplied by the firewall policy.
struct DefaultZoneBinding {
    // Rebuilds the list from the zone list and selects the stored default zone.
    std::function<void(QComboBox* list)> fill;
    // Sends the selected zone to the driver as the default zone and stores its name.
    std::function<void(QComboBox* list)> applySelection;
};

class SettingsPage : public PropertyPage {
    Q_OBJECT
public:
    // `runSelfTest` gets the engine chosen on screen, saved or not.
    SettingsPage(DefaultZoneBinding defaultZone,
                 std::function<void(const std::string& engineName)> runSelfTest,
                 QWidget* parent = nullptr);

    bool HasUnsavedChanges() override { return m_modified != 0; }
    void SaveOrDiscard(bool save) override;

    void Load();
    void Save();
    void Browse(QLineEdit* pathField);

private:
    struct LogFields {
        QCheckBox* use = nullptr;
        NumericEdit* size = nullptr;
        QLineEdit* path = nullptr;
    };
    void LoadLog(const char* suffix, LogFields& fields, bool pathFirst);
    void SaveLog(const char* suffix, const LogFields& fields, bool pathFirst);

    DefaultZoneBinding m_defaultZone;
    std::function<void(const std::string& engineName)> m_runSelfTest;
    LogFields m_firewall;
    LogFields m_content;
    QComboBox* m_zoneList = nullptr;
    QLineEdit* m_quarantine = nullptr;
    QComboBox* m_antivirus = nullptr;
    bool m_filling = false;
    int m_modified = 0;
};

}  // namespace qbrix::ui
