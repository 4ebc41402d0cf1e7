#include "antivirus/ScanWorker.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

namespace qbrix::antivirus {

namespace {

// Shared by the waiting caller and the worker; whichever of the two ends last frees it.
struct WorkerState {
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
};

}  // namespace

bool RunScanWorker(std::function<void()> call, std::chrono::milliseconds limit) {
    auto state = std::make_shared<WorkerState>();
    try {
        std::thread worker([state, call = std::move(call)] {
            call();
            std::lock_guard guard(state->lock);
            state->done = true;
            state->finished.notify_all();
        });
        worker.detach();
    } catch (const std::system_error&) {
        return true;
    }
    std::unique_lock guard(state->lock);
    return state->finished.wait_for(guard, limit, [&] { return state->done; });
}

}  // namespace qbrix::antivirus
