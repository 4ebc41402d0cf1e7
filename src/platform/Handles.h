// Kernel object handles: one table per platform instance maps opaque HANDLE values to the
// objects behind them (named mutexes, devices, ...), so CloseHandle works for every kind.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "platform/WinTypes.h"

namespace qbrix::platform {

using HANDLE = void*;
inline HANDLE const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

class KernelObject {
public:
    virtual ~KernelObject() = default;
    // Called when a handle to the object is closed, while other threads may still hold a
    // reference (a reader blocked in a wait); objects that block use it to wake them.
    virtual void Closing() {}
};

class HandleTable {
public:
    HANDLE Add(std::shared_ptr<KernelObject> object);
    std::shared_ptr<KernelObject> Find(HANDLE handle) const;
    // Removes the handle; the object goes when the last reference to it does.
    bool Remove(HANDLE handle);

    template <typename T>
    std::shared_ptr<T> FindAs(HANDLE handle) const {
        return std::dynamic_pointer_cast<T>(Find(handle));
    }

private:
    mutable std::mutex m_lock;
    std::uintptr_t m_next = 0x100;
    std::map<std::uintptr_t, std::shared_ptr<KernelObject>> m_objects;
};

}  // namespace qbrix::platform
