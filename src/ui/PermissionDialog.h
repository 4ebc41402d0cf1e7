// "Permissions for Application": the widgets of `policy::PermissionDialogModel`. The zone list is
// filled again each time it drops down; "OK" binds the chosen zone, "Cancel" changes nothing.
#pragma once

#include <QComboBox>
#include <QDialog>
#include <functional>
#include <memory>

#include "policy/Permissions.h"
#include "ui/ZoneSelector.h"

class QLineEdit;
class QPlainTextEdit;

namespace qbrix::ui {

// A combo box that runs a function just before its list drops down.
class RefillingComboBox : public QComboBox {
    Q_OBJECT
  public:
    using QComboBox::QComboBox;
    std::function<void()> beforePopup;
    void showPopup() override;
};

class PermissionDialog : public QDialog {
    Q_OBJECT
  public:
    PermissionDialog(policy::AppRecord& record, bool askMode, QWidget* parent = nullptr);

    policy::PermissionDialogModel& Model() { return *m_model; }
    void done(int result) override;

  private:
    RefillingComboBox* m_zone = nullptr;
    ComboBoxItems m_items;
    std::unique_ptr<policy::PermissionDialogModel> m_model;
    bool m_accepted = false;
};

// The launcher the program installs: the dialog, put in front of the user by the current
// presenter, over the visible panel when there is one.
class QtPermissionDialogLauncher : public policy::PermissionDialogLauncher {
  public:
    bool Run(policy::AppRecord& record, bool askMode) override;
};

// The icon of a program file, found whatever the case of the path's names: the platform's icon
// for the file, or null when there is no such file.
QIcon ProgramFileIcon(const std::string& path);

}  // namespace qbrix::ui
