// A burst of 10,000 connection decisions reaching the Internet log page in one timer tick: the
// row work the activity poll does on the page (redraw off, drop the last row past the limit,
// insert at the top, redraw on), against inserting the same rows into a plain string list. The
// tick's driver reads and text formatting are measured by bench_stats.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QStringList>
#include <string>
#include <vector>

#include "events/PollActivity.h"
#include "events/PollContent.h"
#include "ui/InternetLogPage.h"

namespace {

using namespace qbrix;

constexpr int kBurst = 10000;

std::vector<events::ActivityRow> Rows() {
    std::vector<events::ActivityRow> rows(kBurst);
    for (int i = 0; i < kBurst; ++i) {
        rows[i].application = "/usr/lib/programs/application-" + std::to_string(i % 75);
        rows[i].icon = i % 4;
        rows[i].ruleName = "Web";
        rows[i].address = "TCP 93.184.216.34:" + std::to_string(1024 + i % 5000);
        rows[i].date = "23.11.2026";
        rows[i].time = "14:05:09";
    }
    return rows;
}

void BM_InternetLogPageBurst(benchmark::State& state) {
    const std::vector<events::ActivityRow> rows = Rows();
    for (auto _ : state) {
        ui::InternetLogPage page;
        page.SetRedraw(false);
        for (const events::ActivityRow& row : rows) {
            if (page.RowCount() > events::kLogListRowLimit) {
                page.DeleteLastRow();
            }
            page.InsertTopRow(row);
        }
        page.SetRedraw(true);
        benchmark::DoNotOptimize(page.RowCount());
    }
}
BENCHMARK(BM_InternetLogPageBurst)->Unit(benchmark::kMillisecond);

void BM_PlainListBaseline(benchmark::State& state) {
    const std::vector<events::ActivityRow> rows = Rows();
    for (auto _ : state) {
        QStringList list;
        for (const events::ActivityRow& row : rows) {
            if (list.size() > events::kLogListRowLimit) {
                list.removeLast();
            }
            list.prepend(QString::fromStdString(row.application));
        }
        benchmark::DoNotOptimize(list.size());
    }
}
BENCHMARK(BM_PlainListBaseline)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
