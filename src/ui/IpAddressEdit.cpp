#include "ui/IpAddressEdit.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <algorithm>

#include "core/Messages.h"

namespace qbrix::ui {

namespace {

constexpr int kFieldCount = 4;

bool AllDigits(const QString& text) {
    for (QChar c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

}  // namespace

IpAddressEdit::IpAddressEdit(QWidget* parent) : QFrame(parent) {
    setFrameStyle(QFrame::StyledPanel | QFrame::Sunken);
    setBackgroundRole(QPalette::Base);
    setAutoFillBackground(true);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(2, 1, 2, 1);
    layout->setSpacing(0);
    // Each field is as wide as three digits; the fields share what the control is given beyond.
    const int width = fontMetrics().horizontalAdvance("000") + 8;
    for (int i = 0; i < kFieldCount; ++i) {
        if (i > 0) {
            auto* dot = new QLabel(".", this);
            dot->setBackgroundRole(QPalette::Base);
            layout->addWidget(dot);
        }
        auto* field = new QLineEdit(this);
        field->setObjectName(QString::number(i));
        field->setFrame(false);
        field->setAlignment(Qt::AlignCenter);
        field->setMinimumWidth(width);
        field->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
        field->installEventFilter(this);
        connect(field, &QLineEdit::textEdited, this,
                [this, i](const QString& text) { FieldEdited(i, text); });
        layout->addWidget(field, 1);
        m_fields[i] = field;
    }
    setFocusProxy(m_fields[0]);
}

void IpAddressEdit::SetAddress(std::uint32_t address) {
    for (int i = 0; i < kFieldCount; ++i) {
        m_kept[i] = QString::number(address >> (8 * (kFieldCount - 1 - i)) & 0xFF);
        m_fields[i]->setText(m_kept[i]);
    }
}

void IpAddressEdit::Clear() {
    for (int i = 0; i < kFieldCount; ++i) {
        m_kept[i].clear();
        m_fields[i]->clear();
    }
}

std::uint32_t IpAddressEdit::Address() const {
    std::uint32_t address = 0;
    for (const QLineEdit* field : m_fields) {
        address = address << 8 | (field->text().toUInt() & 0xFF);
    }
    return address;
}

bool IpAddressEdit::IsComplete() const {
    for (const QLineEdit* field : m_fields) {
        if (field->text().isEmpty()) {
            return false;
        }
    }
    return true;
}

QString IpAddressEdit::Text() const {
    QStringList parts;
    for (const QLineEdit* field : m_fields) {
        parts << field->text();
    }
    return parts.join('.');
}

void IpAddressEdit::FocusFirstBlank() {
    for (QLineEdit* field : m_fields) {
        if (field->text().isEmpty()) {
            field->setFocus();
            return;
        }
    }
    m_fields[0]->setFocus();
}

// Every change of a field's text by the user comes here, typed or pasted: what is not a number
// from 0 to 255 is refused and the field gets its last accepted text back.
void IpAddressEdit::FieldEdited(int index, const QString& text) {
    QLineEdit* field = m_fields[index];
    if (text.contains('.') && Spread(index, text)) {
        return;
    }
    if (text.size() > 3 || !AllDigits(text) || text.toUInt() > 255) {
        core::CurrentMessages().Beep(core::MB_OK);
        const int cursor = std::min(field->cursorPosition() - 1, int(m_kept[index].size()));
        field->setText(m_kept[index]);
        field->setCursorPosition(std::max(cursor, 0));
        return;
    }
    m_kept[index] = text;
    emit Edited();
    if (text.size() == 3 && field->cursorPosition() == 3 && index + 1 < kFieldCount) {
        MoveTo(index + 1, kSelectAll);
    }
}

// A dotted address pasted into a field fills it and the fields after it, when every part is a
// number from 0 to 255 and there are fields enough.
bool IpAddressEdit::Spread(int index, const QString& text) {
    const QStringList parts = text.split('.');
    if (index + parts.size() > kFieldCount) {
        return false;
    }
    for (const QString& part : parts) {
        if (part.isEmpty() || part.size() > 3 || !AllDigits(part) || part.toUInt() > 255) {
            return false;
        }
    }
    for (int i = 0; i < parts.size(); ++i) {
        m_kept[index + i] = parts[i];
        m_fields[index + i]->setText(parts[i]);
    }
    emit Edited();
    const int last = index + static_cast<int>(parts.size()) - 1;
    MoveTo(last, static_cast<int>(parts.back().size()));
    return true;
}

void IpAddressEdit::MoveTo(int index, int cursor) {
    QLineEdit* field = m_fields[index];
    field->setFocus();
    if (cursor == kSelectAll) {
        field->selectAll();
    } else {
        field->deselect();
        field->setCursorPosition(cursor);
    }
}

bool IpAddressEdit::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::KeyPress) {
        return QFrame::eventFilter(watched, event);
    }
    int index = 0;
    while (index < kFieldCount && m_fields[index] != watched) {
        ++index;
    }
    if (index == kFieldCount) {
        return QFrame::eventFilter(watched, event);
    }
    QLineEdit* field = m_fields[index];
    auto* key = static_cast<QKeyEvent*>(event);
    const bool atStart = field->cursorPosition() == 0 && !field->hasSelectedText();
    const bool atEnd = field->cursorPosition() == field->text().size() && !field->hasSelectedText();
    if (key->text() == "." || key->text() == " ") {
        if (index + 1 < kFieldCount && !field->text().isEmpty()) {
            MoveTo(index + 1, kSelectAll);
        }
        return true;
    }
    if ((key->key() == Qt::Key_Backspace || key->key() == Qt::Key_Left) && atStart && index > 0) {
        MoveTo(index - 1, static_cast<int>(m_fields[index - 1]->text().size()));
        return true;
    }
    if (key->key() == Qt::Key_Right && atEnd && index + 1 < kFieldCount) {
        MoveTo(index + 1, 0);
        return true;
    }
    return QFrame::eventFilter(watched, event);
}

}  // namespace qbrix::ui
