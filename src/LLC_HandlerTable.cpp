#include "LLC_HandlerTable.h"

#include <algorithm>

CHandlerTable& CHandlerTable::Instance() {
    // Never destroyed: the library's unload routine empties it, and it must
    // outlive every other static object that might still close a port.
    static CHandlerTable* table = new CHandlerTable();
    return *table;
}

KtHandlerRef CHandlerTable::First(KtTransportE transport) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::vector<KtHandlerRef>& list = m_handlers[transport];
    return list.empty() ? nullptr : list.front();
}

KtHandlerRef CHandlerTable::FirstOpen() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::vector<KtHandlerRef>& list : m_handlers)
        if (!list.empty()) return list.front();
    return nullptr;
}

size_t CHandlerTable::Count(KtTransportE transport) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_handlers[transport].size();
}

bool CHandlerTable::Add(KtTransportE transport, const KtHandlerRef& handler, size_t limit) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<KtHandlerRef>& list = m_handlers[transport];
    if (list.size() >= limit) return false;
    list.push_back(handler);
    return true;
}

bool CHandlerTable::Remove(const KtHandlerRef& handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (std::vector<KtHandlerRef>& list : m_handlers) {
        auto at = std::find(list.begin(), list.end(), handler);
        if (at != list.end()) {
            list.erase(at);
            return true;
        }
    }
    return false;
}

std::vector<KtHandlerRef> CHandlerTable::TakeAll() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<KtHandlerRef> all;
    for (std::vector<KtHandlerRef>& list : m_handlers) {
        all.insert(all.end(), list.begin(), list.end());
        list.clear();
    }
    return all;
}
