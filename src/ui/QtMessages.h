// The message facade with real dialogs: message boxes and the don't-ask-again dialog.
#pragma once

#include <QDialog>

#include "core/Messages.h"

class QCheckBox;

namespace qbrix::ui {

class QtMessages : public core::Messages {
  public:
    int MessageBox(std::string_view text, std::string_view caption, unsigned style) override;
    core::NoAskAnswer AskNoAsk(std::string_view title, std::string_view message) override;
    void Beep(unsigned type) override;
    std::string AskSaveFileName(std::string_view title, std::string_view filter,
                                std::string_view defaultExtension,
                                std::string_view initialName) override;
    std::string AskOpenFileName(std::string_view title, std::string_view filter,
                                std::string_view defaultExtension) override;
};

// A file dialog filter "Description|*.ext|Description|*.ext" as Qt's
// "Description (*.ext);;Description (*.ext)"; a description that already names its patterns in
// parentheses is taken as it is.
QString QtFilter(std::string_view filter);

// A modal dialog with one text, a "Don't ask me again" box, OK and Cancel.
class NoAskWindow : public QDialog {
    Q_OBJECT
  public:
    NoAskWindow(const QString& title, const QString& message, QWidget* parent = nullptr);
    bool DontAskAgain() const;

  private:
    QCheckBox* m_dontAsk;
};

}  // namespace qbrix::ui
