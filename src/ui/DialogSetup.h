// Installs the program's own dialogs in place of the policy's headless defaults for the
// object's lifetime: the zone editor and the permissions dialog. Without anyone at the screen
// (`unattended`), every such dialog is answered at once as if Escape was pressed.
#pragma once

#include <memory>

namespace qbrix::ui {

class DialogSetup {
  public:
    explicit DialogSetup(bool unattended);
    ~DialogSetup();
    DialogSetup(const DialogSetup&) = delete;
    DialogSetup& operator=(const DialogSetup&) = delete;

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace qbrix::ui
