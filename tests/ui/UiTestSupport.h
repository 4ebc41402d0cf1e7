// Helpers for the user-interface tests: a presenter whose "user" is a function working on the
// dialog's widgets, and widget lookup by object name.
#pragma once

#include <gtest/gtest.h>

#include <QDialog>
#include <functional>

#include "ui/DialogPresenter.h"

namespace qbrix::ui::test_support {

class ScriptedPresenter : public DialogPresenter {
  public:
    // The script returns the dialog's result; without a script the dialog is closed with Escape.
    using Script = std::function<int(QDialog&)>;
    explicit ScriptedPresenter(Script script = {}) : m_script(std::move(script)), m_scope(*this) {}
    int Present(QDialog& dialog) override {
        ++presented;
        titles.push_back(dialog.windowTitle().toStdString());
        int result = m_script ? m_script(dialog) : QDialog::Rejected;
        dialog.done(result);
        return result;
    }
    void SetScript(Script script) { m_script = std::move(script); }
    int presented = 0;
    std::vector<std::string> titles;

  private:
    Script m_script;
    ScopedPresenter m_scope;
};

template <typename T>
T* Child(QWidget& parent, const char* id) {
    T* widget = parent.findChild<T*>(id);
    EXPECT_NE(nullptr, widget) << id;
    return widget;
}

}  // namespace qbrix::ui::test_support
