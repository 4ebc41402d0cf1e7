#include "app/MainLoop.h"

#include <memory>

namespace qbrix::app {

namespace {

class NoActivityView : public events::ActivityLogView {
  public:
    void SetRedraw(bool) override {}
    int RowCount() override { return 0; }
    void DeleteLastRow() override {}
    void InsertTopRow(const events::ActivityRow&) override {}
};

class NoContentView : public events::ContentLogView {
  public:
    void SetRedraw(bool) override {}
    int RowCount() override { return 0; }
    void DeleteLastRow() override {}
    void InsertTopRow(const events::ContentRow&) override {}
    void ShowDetails(const events::ContentEvent&) override {}
};

}  // namespace

core::MainLoopSteps BuildMainLoopSteps(std::function<void()> askPendingApplication,
                                       events::ActivityLogView& activityView,
                                       events::ContentLogView& contentView,
                                       stats::StatisticsTick::Clock clock) {
    core::MainLoopSteps steps;
    steps.askPendingApplication = std::move(askPendingApplication);
    auto activityPoll = std::make_shared<events::PollActivity>(activityView);
    steps.pollActivity = [activityPoll] { activityPoll->Run(); };
    auto contentPoll = std::make_shared<events::PollContent>(contentView);
    steps.drainContentEvents = [contentPoll] { contentPoll->Run(); };
    auto statistics = std::make_shared<stats::StatisticsTick>(std::move(clock));
    steps.refreshStatistics = [statistics] { statistics->Run(); };
    return steps;
}

struct ConsoleLoop::Views {
    NoActivityView activity;
    NoContentView content;
};

ConsoleLoop::ConsoleLoop() : m_views(std::make_unique<Views>()) {
    m_programs.Fill();
    m_steps =
        BuildMainLoopSteps([this] { policy::AskPendingApplication(m_programs); }, m_views->activity,
                           m_views->content, stats::StatisticsTick::SystemClock);
}

ConsoleLoop::~ConsoleLoop() = default;

}  // namespace qbrix::app
