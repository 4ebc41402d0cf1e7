#include "ui/DialogSetup.h"

#include <optional>

#include "ui/DialogPresenter.h"
#include "ui/PermissionDialog.h"
#include "ui/ZoneEditorDialog.h"

namespace qbrix::ui {

struct DialogSetup::State {
    QtZoneEditorLauncher zoneEditor;
    policy::ScopedZoneEditorLauncher zoneEditorScope{zoneEditor};
    QtPermissionDialogLauncher permissions;
    policy::ScopedPermissionDialogLauncher permissionsScope{permissions};
    UnattendedPresenter unattended;
    std::optional<ScopedPresenter> presenterScope;
};

DialogSetup::DialogSetup(bool unattended) : m_state(std::make_unique<State>()) {
    if (unattended) {
        m_state->presenterScope.emplace(m_state->unattended);
    }
}

DialogSetup::~DialogSetup() = default;

}  // namespace qbrix::ui
