#include "platform/Handles.h"

namespace qbrix::platform {

HANDLE HandleTable::Add(std::shared_ptr<KernelObject> object) {
    std::lock_guard guard(m_lock);
    std::uintptr_t value = m_next;
    m_next += 4;
    m_objects.emplace(value, std::move(object));
    return reinterpret_cast<HANDLE>(value);
}

std::shared_ptr<KernelObject> HandleTable::Find(HANDLE handle) const {
    std::lock_guard guard(m_lock);
    auto it = m_objects.find(reinterpret_cast<std::uintptr_t>(handle));
    return it == m_objects.end() ? nullptr : it->second;
}

bool HandleTable::Remove(HANDLE handle) {
    std::shared_ptr<KernelObject> doomed;  // destroyed outside the lock
    std::lock_guard guard(m_lock);
    auto it = m_objects.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == m_objects.end()) {
        return false;
    }
    doomed = std::move(it->second);
    m_objects.erase(it);
    doomed->Closing();
    return true;
}

}  // namespace qbrix::platform
