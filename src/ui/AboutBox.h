// The About box: product, version and what the program does.
#pragma once

#include <QDialog>

namespace qbrix::ui {

class AboutBox : public QDialog {
    Q_OBJECT
public:
    explicit AboutBox(QWidget* parent = nullptr);
};

}  // namespace qbrix::ui
