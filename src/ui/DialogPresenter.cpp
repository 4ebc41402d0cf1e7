#include "ui/DialogPresenter.h"

#include <QDialog>

namespace qbrix::ui {

namespace {

class ModalPresenter : public DialogPresenter {
  public:
    int Present(QDialog& dialog) override { return dialog.exec(); }
};

ModalPresenter g_modalPresenter;
DialogPresenter* g_presenter = &g_modalPresenter;

}  // namespace

int UnattendedPresenter::Present(QDialog& dialog) {
    dialog.reject();
    return QDialog::Rejected;
}

DialogPresenter& CurrentPresenter() {
    return *g_presenter;
}

ScopedPresenter::ScopedPresenter(DialogPresenter& presenter) : m_previous(g_presenter) {
    g_presenter = &presenter;
}

ScopedPresenter::~ScopedPresenter() {
    g_presenter = m_previous;
}

}  // namespace qbrix::ui
