// "Internet Content Info": the read-only details of one content event, shown when the content
// processor put something into quarantine.
#pragma once

#include <QDialog>

#include "events/ContentEvent.h"

namespace qbrix::ui {

class ContentDetailsDialog : public QDialog {
    Q_OBJECT
  public:
    explicit ContentDetailsDialog(const events::ContentEvent& event, QWidget* parent = nullptr);
};

}  // namespace qbrix::ui
