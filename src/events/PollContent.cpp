#include "events/PollContent.h"

#include "events/ContentEventQueue.h"
#include "events/LogFile.h"
#include "events/LogSettings.h"
#include "events/LogTexts.h"

namespace qbrix::events {

namespace {

bool g_contentPollBusy = false;

}  // namespace

PollContent::PollContent(ContentLogView& view, platform::FileMappings& mappings)
    : m_view(view), m_mappings(mappings) {}

ContentRow PollContent::RowOf(const ContentEvent& event) {
    return ContentRow{ContentKindLabel(event.type), EventName(event), EventAddress(event),
                      EventQuarantine(event)};
}

void PollContent::Run() {
    if (g_contentPollBusy) {
        return;
    }
    g_contentPollBusy = true;
    m_view.SetRedraw(false);
    LogSettings settings = ReadContentLogSettings();
    LogFile file(m_mappings);
    file.Open(settings.fileName, settings.fileSizeMb);
    ContentEvent event;
    while (TakeContentEvent(&event)) {
        if (ContentKindPopsUp(event.type)) {
            m_view.ShowDetails(event);
        }
        if (m_view.RowCount() > kLogListRowLimit) {
            m_view.DeleteLastRow();
        }
        m_view.InsertTopRow(RowOf(event));
        if (settings.useLog != 0) {
            file.Write(ContentLogLine(event));
        }
    }
    m_view.SetRedraw(true);
    g_contentPollBusy = false;
    file.CloseAndTrim();
}

void ResetContentPollFlag() {
    g_contentPollBusy = false;
}

}  // namespace qbrix::events
