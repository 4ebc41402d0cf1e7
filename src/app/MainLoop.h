// The main loop's steps over the subsystems of this build, for the control panel's timer and for
// the console loop that runs them when there is no display.
#pragma once

#include <functional>
#include <memory>

#include "core/MainLoopSteps.h"
#include "events/PollActivity.h"
#include "events/PollContent.h"
#include "policy/Permissions.h"
#include "stats/StatisticsTick.h"

namespace qbrix::app {

// The activity poll and the content drain show their rows in the given views (which must outlive
// the steps) and write the two log files; the statistics tick reads `clock`. The question step
// is the caller's.
core::MainLoopSteps BuildMainLoopSteps(std::function<void()> askPendingApplication,
                                       events::ActivityLogView& activityView,
                                       events::ContentLogView& contentView,
                                       stats::StatisticsTick::Clock clock);

// The loop without a display (a machine without a desktop): the same steps once a second, with
// nobody to ask. A question gets the default zone, the two logs go to their files only, and a
// found item that would pop the panel up is logged like any other.
class ConsoleLoop {
  public:
    // Reads the driver's application list, as the Programs page does when it is built.
    ConsoleLoop();
    ~ConsoleLoop();
    ConsoleLoop(const ConsoleLoop&) = delete;
    ConsoleLoop& operator=(const ConsoleLoop&) = delete;

    void Tick() { m_steps.Run(); }

  private:
    struct Views;

    policy::DefaultZoneLauncher m_launcher;
    policy::ScopedPermissionDialogLauncher m_launcherScope{m_launcher};
    policy::ProgramList m_programs;
    std::unique_ptr<Views> m_views;
    core::MainLoopSteps m_steps;
};

}  // namespace qbrix::app
