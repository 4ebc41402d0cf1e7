// The program's main loop: four steps run once a second in this order, by the control panel's
// timer when there is a display and by the console loop when there is none. Both run the same
// steps; only the question step's way of asking and the log steps' views differ.
#pragma once

#include <functional>

namespace qbrix::core {

struct MainLoopSteps {
    static constexpr int kPeriodMs = 1000;

    // Each step guards itself against re-entry: a step's modal dialog keeps the timer firing.
    std::function<void()> askPendingApplication;
    std::function<void()> pollActivity;
    std::function<void()> drainContentEvents;
    std::function<void()> refreshStatistics;

    // One tick: every step that is set, in order.
    void Run() const {
        for (const auto* step :
             {&askPendingApplication, &pollActivity, &drainContentEvents, &refreshStatistics}) {
            if (*step) {
                (*step)();
            }
        }
    }
};

}  // namespace qbrix::core
