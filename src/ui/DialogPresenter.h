// How the program's own modal dialogs (the zone editor, the permissions dialog) are put in front
// of the user. The default runs the dialog's event loop; an unattended run (no one at the
// screen) and the tests install a presenter that answers the dialog itself, so a question never
// blocks forever.
#pragma once

class QDialog;

namespace qbrix::ui {

class DialogPresenter {
  public:
    virtual ~DialogPresenter() = default;
    // Shows the dialog modally and returns its result (QDialog::Accepted or Rejected).
    virtual int Present(QDialog& dialog) = 0;
};

// Closes every dialog at once as if Escape was pressed: for runs without anyone to answer.
class UnattendedPresenter : public DialogPresenter {
  public:
    int Present(QDialog& dialog) override;
};

// The presenter in use: one that runs the dialog until something else is installed.
DialogPresenter& CurrentPresenter();

// Installs a presenter for the guard's lifetime and restores the previous one afterwards.
class ScopedPresenter {
  public:
    explicit ScopedPresenter(DialogPresenter& presenter);
    ~ScopedPresenter();
    ScopedPresenter(const ScopedPresenter&) = delete;
    ScopedPresenter& operator=(const ScopedPresenter&) = delete;

  private:
    DialogPresenter* m_previous;
};

}  // namespace qbrix::ui
