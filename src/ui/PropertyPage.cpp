#include "ui/PropertyPage.h"

#include <QLabel>
#include <QVBoxLayout>

namespace qbrix::ui {

PropertyPage::PropertyPage(QString caption, QWidget* parent)
    : QWidget(parent), m_caption(std::move(caption)) {}

PlaceholderPage::PlaceholderPage(QString caption, QString description, QWidget* parent)
    : PropertyPage(std::move(caption), parent) {
    auto* layout = new QVBoxLayout(this);
    auto* label = new QLabel(description, this);
    label->setWordWrap(true);
    label->setAlignment(Qt::AlignCenter);
    label->setEnabled(false);
    layout->addWidget(label);
}

}  // namespace qbrix::ui
