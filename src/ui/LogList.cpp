#include "ui/LogList.h"

#include <QMenu>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <filesystem>
#include <system_error>

#include "core/Messages.h"
#include "core/StringTable.h"
#include "ui/AnsiText.h"

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

void AddDeleteLogMenu(QTreeWidget* list, std::function<void()> deleteLog) {
    list->setContextMenuPolicy(Qt::CustomContextMenu);
    QObject::connect(list, &QWidget::customContextMenuRequested, list,
                     [list, deleteLog = std::move(deleteLog)](const QPoint& at) {
                         QMenu menu;
                         QAction* remove = menu.addAction(FromAnsi(core::LoadString(5962)));
                         if (menu.exec(list->viewport()->mapToGlobal(at)) == remove) {
                             deleteLog();
                         }
                     });
}

void DeleteLog(QTreeWidget* list, const std::string& fileName) {
    constexpr int kAskText = 114;      // "Are You sure to delete log?"
    constexpr int kAskCaption = 115;   // "Deleting Log"
    constexpr int kFailText = 116;     // "Cannot write log"
    constexpr int kFailCaption = 117;  // "Error"
    core::Messages& messages = core::CurrentMessages();
    if (messages.MessageBox(core::LoadString(kAskText), core::LoadString(kAskCaption),
                            core::MB_YESNO | core::MB_ICONQUESTION) != core::IDYES) {
        return;
    }
    std::error_code error;
    if (!fileName.empty()) {
        std::filesystem::resize_file(fileName, 0, error);
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        messages.MessageBox(core::LoadString(kFailText), core::LoadString(kFailCaption),
                            core::MB_OK | core::MB_ICONERROR);
        return;
    }
    list->clear();
}

}  // namespace qbrix::ui
