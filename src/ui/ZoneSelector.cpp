#include "ui/ZoneSelector.h"

#include <QComboBox>

#include "ui/AnsiText.h"

namespace qbrix::ui {

void ComboBoxItems::Clear() {
    m_box->clear();
}

void ComboBoxItems::Add(std::string_view text) {
    m_box->addItem(FromAnsi(text));
}

int ComboBoxItems::Count() const {
    return m_box->count();
}

std::string ComboBoxItems::Text(int index) const {
    return ToAnsi(m_box->itemText(index));
}

void ComboBoxItems::Select(int index) {
    m_box->setCurrentIndex(index);
}

int ComboBoxItems::Selected() const {
    return m_box->currentIndex();
}

namespace {

// The selector's logic, owned by its combo box.
template <typename Combo>
class SelectorBinding : public QObject {
  public:
    explicit SelectorBinding(QComboBox* box) : QObject(box), m_items(box), m_combo(m_items) {}
    Combo& Selector() { return m_combo; }

  private:
    ComboBoxItems m_items;
    Combo m_combo;
};

}  // namespace

void BindOverrideSelector(QComboBox* box) {
    auto* binding = new SelectorBinding<policy::OverrideZoneCombo>(box);
    binding->Selector().Fill("", nullptr);
    QObject::connect(box, &QComboBox::activated, binding,
                     [binding] { binding->Selector().ApplySelection(); });
}

DefaultZoneBinding MakeDefaultZoneBinding() {
    DefaultZoneBinding binding;
    binding.fill = [](QComboBox* list) {
        ComboBoxItems items(list);
        policy::DefaultZoneCombo(items).Fill(nullptr, nullptr);
    };
    binding.applySelection = [](QComboBox* list) {
        ComboBoxItems items(list);
        policy::DefaultZoneCombo(items).ApplySelection();
    };
    return binding;
}

}  // namespace qbrix::ui
