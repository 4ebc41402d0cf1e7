#include "ui/LogList.h"

#include <QTreeWidget>
#include <QVBoxLayout>

namespace qbrix::ui {

QTreeWidget* MakeLogList(QWidget* page, const QStringList& headers,
                         std::initializer_list<int> widths) {
    auto* layout = new QVBoxLayout(page);
    auto* list = new QTreeWidget(page);
    list->setObjectName("list");
    list->setRootIsDecorated(false);
    list->setUniformRowHeights(true);
    list->setSelectionBehavior(QAbstractItemView::SelectRows);
    list->setHeaderLabels(headers);
    int column = 0;
    for (int width : widths) {
        list->setColumnWidth(column++, width);
    }
    layout->addWidget(list);
    return list;
}

void DeleteBottomRow(QTreeWidget* list) {
    if (list->topLevelItemCount() > 0) {
        delete list->takeTopLevelItem(list->topLevelItemCount() - 1);
    }
}

}  // namespace qbrix::ui
