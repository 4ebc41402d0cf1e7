// A page of the control panel. The panel asks the active page two things before it hides or
// exits: whether it has unsaved changes, and then to save or discard them.
#pragma once

#include <QString>
#include <QWidget>

namespace qbrix::ui {

class PropertyPage : public QWidget {
    Q_OBJECT
public:
    explicit PropertyPage(QString caption, QWidget* parent = nullptr);

    const QString& Caption() const { return m_caption; }

    // Nonzero (true) when the page holds changes that are not saved yet.
    virtual bool HasUnsavedChanges() { return false; }
    // Saves (save = true) or discards the page's changes.
    virtual void SaveOrDiscard(bool save) { (void)save; }

private:
    QString m_caption;
};

// A page whose subsystem is not part of this build yet: it says what the page will hold.
class PlaceholderPage : public PropertyPage {
    Q_OBJECT
public:
    PlaceholderPage(QString caption, QString description, QWidget* parent = nullptr);
};

}  // namespace qbrix::ui
