#include "events/ContentEventQueue.h"

#include <cstring>
#include <vector>

#include "core/DiagLog.h"
#include "platform/Kernel.h"
#include "platform/Mailslot.h"
#include "platform/Platform.h"
#include "platform/Threads.h"

namespace qbrix::events {

namespace {

constexpr std::size_t kErrorTextSize = 500;
// The most messages one wake-up of the reader takes.
constexpr platform::DWORD kReadBatch = 64;

int HandleNumber(platform::HANDLE handle) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}

}  // namespace

ContentEventQueue g_contentEvents;

ContentEventQueue::~ContentEventQueue() {
    Shutdown();
}

void ContentEventQueue::StartIfNeeded() {
    // A failed creation stores the invalid handle and is tried again on the next take: whoever
    // held the name (another copy, or a process that took its lock at start-up) may have let
    // go, and the event feed must not be lost for the whole run.
    platform::HANDLE mailslot = m_mailslot.load();
    if (mailslot == nullptr || mailslot == platform::INVALID_HANDLE_VALUE) {
        mailslot = platform::CreateMailslot(kContentMailslotName, kContentMailslotMaxMessage,
                                            kContentMailslotReadTimeoutMs);
        m_mailslot.store(mailslot);
    }
    // The reader starts with the mailslot, so it never spins on reads that fail at once.
    auto reader = reinterpret_cast<std::uintptr_t>(m_reader.load());
    if (mailslot != platform::INVALID_HANDLE_VALUE && (reader == 0 || reader == 1)) {
        m_reader.store(platform::BeginThread(&ContentEventQueue::ReaderMain, this));
    }
}

void ContentEventQueue::ReaderMain(void* queue) {
    auto* self = static_cast<ContentEventQueue*>(queue);
    // Each wake-up takes every message already waiting and queues the whole events under one
    // lock, so a burst costs one wait and one lock per batch rather than per event.
    std::vector<ContentEvent> batch(kReadBatch);
    std::vector<platform::DWORD> lengths(kReadBatch);
    // A read that fails at once (no mailslot) repeats at once: the reader has nothing better to
    // do until it is stopped.
    while (self->m_stop.load() == 0) {
        platform::DWORD read = 0;
        if (!platform::ReadMailslotMessages(self->m_mailslot.load(), batch.data(),
                                            sizeof(ContentEvent), kReadBatch, lengths.data(),
                                            &read)) {
            continue;
        }
        // Anything read that is not a whole event goes without a trace.
        platform::DWORD whole = 0;
        for (platform::DWORD i = 0; i < read; ++i) {
            if (lengths[i] == sizeof(ContentEvent)) {
                core::DiagLog("\n read slot OK ");
                if (whole != i) {
                    batch[whole] = batch[i];
                }
                ++whole;
            }
        }
        if (whole != 0) {
            std::lock_guard guard(self->m_lock);
            self->m_queue.insert(self->m_queue.end(), batch.begin(), batch.begin() + whole);
        }
    }
}

int ContentEventQueue::Take(void* destination) {
    StartIfNeeded();
    std::lock_guard guard(m_lock);
    if (m_queue.empty()) {
        return 0;
    }
    std::memcpy(destination, &m_queue.front(), sizeof(ContentEvent));
    core::DiagLog("\n read from queue");
    m_queue.pop_front();
    return 1;
}

std::size_t ContentEventQueue::QueuedCount() {
    std::lock_guard guard(m_lock);
    return m_queue.size();
}

void ContentEventQueue::Shutdown() {
    m_stop.store(1);
    platform::HANDLE mailslot = m_mailslot.load();
    platform::HANDLE reader = m_reader.load();
    // At process exit the platform may be gone already; its handle table took the mailslot
    // with it, and a reader left running only fails its reads until the stop flag ends it.
    bool readerRunning = reinterpret_cast<std::uintptr_t>(reader) >= 2;
    if (platform::IsInstalled()) {
        char errorText[kErrorTextSize];
        core::DiagLog("\n ~READQUE  Slot %d thread %d", HandleNumber(mailslot),
                      HandleNumber(reader));
        if (mailslot != nullptr) {
            core::DiagLog("\n close try");
            // Closing wakes the reader out of its wait, so it sees the stop flag at once rather
            // than after the read time-out.
            platform::BOOL result = platform::CloseHandle(mailslot);
            core::GetLastErrorText(errorText, sizeof(errorText));
            core::DiagLog("\n close res %d %s", result, errorText);
            m_mailslot.store(nullptr);
        }
        if (reinterpret_cast<std::uintptr_t>(reader) >= 2) {
            // The reader is stopped, not killed: it ends between two reads, and the lock and the
            // queue it uses stay until it has.
            platform::BOOL result = platform::TerminateThread(reader, 0);
            readerRunning = result == 0;
            core::GetLastErrorText(errorText, sizeof(errorText));
            core::DiagLog("\n term res %d %s", result, errorText);
            platform::CloseHandle(reader);
        }
    }
    m_mailslot.store(nullptr);
    m_reader.store(nullptr);
    {
        std::lock_guard guard(m_lock);
        m_queue.clear();
    }
    // A reader that could not be stopped keeps the flag set, so it still ends when it can.
    if (!readerRunning) {
        m_stop.store(0);
    }
}

int TakeContentEvent(void* destination) {
    return g_contentEvents.Take(destination);
}

void ResetContentEventQueue() {
    g_contentEvents.Shutdown();
}

}  // namespace qbrix::events
