// The content-event queue: a reader thread takes the provider's messages from the mailslot and
// keeps them, first in first out, until the user-interface thread takes them on its timer.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>

#include "events/ContentEvent.h"
#include "platform/Handles.h"

namespace qbrix::events {

class ContentEventQueue {
  public:
    ContentEventQueue() = default;
    // Stops the reader before anything it uses goes away; queued events are lost.
    ~ContentEventQueue();
    ContentEventQueue(const ContentEventQueue&) = delete;
    ContentEventQueue& operator=(const ContentEventQueue&) = delete;

    // Creates the mailslot and starts the reader on first use, then moves the oldest queued event
    // into `destination` (664 bytes). 1 when an event was taken, 0 when none was queued.
    int Take(void* destination);

    // The end of the queue's life: stops the reader, closes the mailslot and drops what is
    // queued. Afterwards the queue is as new, so a later Take starts it again.
    void Shutdown();

    platform::HANDLE MailslotHandle() const { return m_mailslot.load(); }
    platform::HANDLE ReaderHandle() const { return m_reader.load(); }
    std::size_t QueuedCount();

  private:
    static void ReaderMain(void* queue);
    void StartIfNeeded();

    // Handles and the stop flag are read by the reader without the lock.
    std::atomic<platform::HANDLE> m_mailslot{nullptr};
    std::atomic<platform::HANDLE> m_reader{nullptr};
    std::atomic<std::uint32_t> m_stop{0};
    std::mutex m_lock;
    std::deque<ContentEvent> m_queue;
};

// The process's one queue.
extern ContentEventQueue g_contentEvents;

// Takes one event from the process's queue into `destination` (664 bytes): 1 when taken, else 0.
// Called by the user-interface thread only.
int TakeContentEvent(void* destination);

// Shuts the process's queue down (the program before its platform goes; tests between cases).
void ResetContentEventQueue();

}  // namespace qbrix::events
