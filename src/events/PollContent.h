// The Content log page's timer step: drains the content-event queue into the page's list and the
// content log file, popping the panel up for the kinds that ask for it. The page itself only
// displays what it is told through ContentLogView.
#pragma once

#include <string>

#include "events/ContentEvent.h"
#include "platform/Files.h"

namespace qbrix::events {

// Lists keep at most this many rows plus the one being inserted.
inline constexpr int kLogListRowLimit = 1000;

struct ContentRow {
    std::string type;  // the kind label
    std::string name;
    std::string address;
    std::string quarantine;
};

class ContentLogView {
  public:
    virtual ~ContentLogView() = default;
    // Redrawing is off around each batch so that a burst repaints once.
    virtual void SetRedraw(bool on) = 0;
    virtual int RowCount() = 0;
    virtual void DeleteLastRow() = 0;
    // New rows go to the top.
    virtual void InsertTopRow(const ContentRow& row) = 0;
    // Makes the panel topmost, shows it in front with the Content log page active, shows the
    // details of `event` modally ("Internet Content Info") and makes the panel non-topmost again.
    virtual void ShowDetails(const ContentEvent& event) = 0;
};

class PollContent {
  public:
    explicit PollContent(ContentLogView& view,
                         platform::FileMappings& mappings = platform::SystemFileMappings());

    // One timer tick. Does nothing while an earlier tick is still inside it (its details dialog
    // runs a modal loop in which the timer keeps firing).
    void Run();

    static ContentRow RowOf(const ContentEvent& event);

  private:
    ContentLogView& m_view;
    platform::FileMappings& m_mappings;
};

// The re-entry flag of the content poll; tests clear it between cases.
void ResetContentPollFlag();

}  // namespace qbrix::events
