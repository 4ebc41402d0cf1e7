// An IPv4 address control: four fields of 0 to 255 between dots. A field takes digits only; a
// key that would make it more than 255, or any other character, is refused with a beep and the
// field keeps what it held. A dot or a space moves on to the next field, as does a field's third
// digit; backspace at the start of a field goes back to the one before. A field may be blank,
// and an address with a blank field is incomplete.
#pragma once

#include <QFrame>
#include <QString>
#include <array>
#include <cstdint>

class QLineEdit;

namespace qbrix::ui {

class IpAddressEdit : public QFrame {
    Q_OBJECT
  public:
    explicit IpAddressEdit(QWidget* parent = nullptr);

    // Shows a host-order address (the first field is the most significant byte).
    void SetAddress(std::uint32_t address);
    void Clear();
    // The host-order address; a blank field counts as 0.
    std::uint32_t Address() const;
    bool IsComplete() const;
    // The fields joined by dots: "10.0.0.1", or "10.0..1" with a blank third field.
    QString Text() const;
    QLineEdit* Field(int index) const { return m_fields[index]; }
    // Puts the cursor into the first blank field (the first field when none is blank).
    void FocusFirstBlank();

  signals:
    // The user changed a field.
    void Edited();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void FieldEdited(int index, const QString& text);
    bool Spread(int index, const QString& text);
    // Moves the cursor into a field, at a position or selecting the whole field.
    static constexpr int kSelectAll = -1;
    void MoveTo(int index, int cursor);

    std::array<QLineEdit*, 4> m_fields{};
    std::array<QString, 4> m_kept;  // each field's last accepted text
};

}  // namespace qbrix::ui
