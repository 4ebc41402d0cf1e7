// An edit that takes only the digits 0-9 and backspace, keeps a number from 1 up to its bound,
// and puts the value it showed before back (with a beep) when a key leaves no such number; with
// its up-down buttons, the two together behave as an edit with a spin buddy. A value set from
// outside (a stored one) is shown and kept as it is, even outside the range, until the user
// changes it: the bound applies only to what is typed or stepped.
#pragma once

#include <QLineEdit>
#include <QWidget>

namespace qbrix::ui {

class NumericEdit : public QLineEdit {
    Q_OBJECT
  public:
    NumericEdit(unsigned bound, QWidget* parent = nullptr);

    unsigned Value() const { return m_value; }
    void SetValue(unsigned value);
    void Step(int delta);

  protected:
    void keyPressEvent(QKeyEvent* event) override;

  private:
    unsigned m_bound;
    unsigned m_value = 1;  // the value the text shows
};

// A NumericEdit with its up-down buttons (the spin control, range 1 to the bound).
class NumericSpin : public QWidget {
    Q_OBJECT
  public:
    NumericSpin(unsigned bound, const QString& editId, const QString& spinId,
                QWidget* parent = nullptr);
    NumericEdit* Edit() const { return m_edit; }

  private:
    NumericEdit* m_edit;
};

}  // namespace qbrix::ui
