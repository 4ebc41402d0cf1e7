// Threads as std::thread behind a handle. Forced termination does not exist here: killing a
// thread that may hold a lock or be inside the allocator cannot be made safe, so "terminate"
// waits for a thread its owner has already asked to stop.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/Platform.h"
#include "platform/Threads.h"

namespace qbrix::platform {

namespace {

// What the thread itself touches when it ends; shared, so a thread left running after its last
// handle closed never reaches freed memory.
struct ThreadState {
    std::mutex lock;
    std::condition_variable done;
    bool finished = false;
};

class ThreadObject : public KernelObject {
  public:
    ThreadObject() : m_state(std::make_shared<ThreadState>()) {}
    ~ThreadObject() override {
        // Closing the last handle of a running thread leaves it running, as on Windows.
        if (m_thread.joinable()) {
            if (WaitFinished(0)) {
                m_thread.join();
            } else {
                m_thread.detach();
            }
        }
    }

    void Start(void (*start)(void*), void* argument) {
        m_thread = std::thread([state = m_state, start, argument] {
            start(argument);
            std::lock_guard guard(state->lock);
            state->finished = true;
            state->done.notify_all();
        });
    }

    bool WaitFinished(DWORD waitMs) {
        std::unique_lock guard(m_state->lock);
        return m_state->done.wait_for(guard, std::chrono::milliseconds(waitMs),
                                      [this] { return m_state->finished; });
    }

    void Join(DWORD exitCode) {
        std::lock_guard guard(m_joinLock);
        if (m_thread.joinable()) {
            m_thread.join();
        }
        m_exitCode = exitCode;
    }

    DWORD ExitCode() const { return m_exitCode; }

  private:
    std::shared_ptr<ThreadState> m_state;
    std::thread m_thread;
    std::mutex m_joinLock;
    DWORD m_exitCode = 0;
};

}  // namespace

HANDLE BeginThread(void (*start)(void*), void* argument) {
    auto thread = std::make_shared<ThreadObject>();
    try {
        thread->Start(start, argument);
    } catch (const std::system_error&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    return Current().Handles().Add(thread);
}

BOOL TerminateThread(HANDLE thread, DWORD exitCode, DWORD waitMs) {
    auto object = Current().Handles().FindAs<ThreadObject>(thread);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (!object->WaitFinished(waitMs)) {
        SetLastError(ERROR_BUSY);
        return 0;
    }
    object->Join(exitCode);
    SetLastError(ERROR_SUCCESS);
    return 1;
}

}  // namespace qbrix::platform
