#include "ui/NumericEdit.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>

#include "core/Messages.h"

namespace qbrix::ui {

NumericEdit::NumericEdit(unsigned bound, QWidget* parent) : QLineEdit(parent), m_bound(bound) {
    setText(QString::number(m_value));
}

void NumericEdit::SetValue(unsigned value) {
    m_value = value;
    setText(QString::number(m_value));
}

// A step from a value outside the range lands on the nearer end of the range.
void NumericEdit::Step(int delta) {
    long long next =
        std::clamp(static_cast<long long>(m_value) + delta, 1LL, static_cast<long long>(m_bound));
    if (next != m_value) {
        SetValue(static_cast<unsigned>(next));
    }
}

void NumericEdit::keyPressEvent(QKeyEvent* event) {
    const QString text = event->text();
    bool digit = text.size() == 1 && text[0] >= '0' && text[0] <= '9';
    bool backspace = event->key() == Qt::Key_Backspace;
    bool navigation = event->key() == Qt::Key_Left || event->key() == Qt::Key_Right ||
                      event->key() == Qt::Key_Home || event->key() == Qt::Key_End ||
                      event->key() == Qt::Key_Tab || event->key() == Qt::Key_Backtab;
    if (navigation) {
        QLineEdit::keyPressEvent(event);
        return;
    }
    if (!digit && !backspace) {
        core::CurrentMessages().Beep(core::MB_OK);
        event->accept();
        return;
    }
    QLineEdit::keyPressEvent(event);
    bool ok = false;
    unsigned value = this->text().toUInt(&ok);
    if (ok && value >= 1 && value <= m_bound) {
        m_value = value;
        return;
    }
    core::CurrentMessages().Beep(core::MB_OK);
    setText(QString::number(m_value));
}

NumericSpin::NumericSpin(unsigned bound, const QString& editId, const QString& spinId,
                         QWidget* parent)
    : QWidget(parent) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    m_edit = new NumericEdit(bound, this);
    m_edit->setObjectName(editId);
    m_edit->setMaximumWidth(60);
    layout->addWidget(m_edit);
    auto* spin = new QWidget(this);
    spin->setObjectName(spinId);
    auto* arrows = new QVBoxLayout(spin);
    arrows->setContentsMargins(0, 0, 0, 0);
    arrows->setSpacing(0);
    auto* up = new QToolButton(spin);
    up->setArrowType(Qt::UpArrow);
    up->setObjectName("up");
    auto* down = new QToolButton(spin);
    down->setArrowType(Qt::DownArrow);
    down->setObjectName("down");
    for (QToolButton* button : {up, down}) {
        button->setFixedSize(16, 11);
        button->setAutoRepeat(true);
        arrows->addWidget(button);
    }
    connect(up, &QToolButton::clicked, m_edit, [this] { m_edit->Step(1); });
    connect(down, &QToolButton::clicked, m_edit, [this] { m_edit->Step(-1); });
    layout->addWidget(spin);
}

}  // namespace qbrix::ui
