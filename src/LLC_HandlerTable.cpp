// SPDX-License-Identifier: MIT
#include "LLC_HandlerTable.h"

#include <algorithm>

#include "LLC_ForkGuard.h"

std::atomic<CCommHandler*> g_pUsbCommHandler{nullptr};
std::atomic<CCommHandler*> g_pSerialCommHandler{nullptr};
std::atomic<CCommHandler*> g_pBTHCommHandler{nullptr};

CHandlerTable& CHandlerTable::Instance() {
    // Never destroyed: the library's unload routine empties it, and it must
    // outlive every other static object that might still close a port.
    static CHandlerTable* table = new CHandlerTable();
    return *table;
}

CHandlerTable::CHandlerTable() { CForkGuard::Register(CForkGuard::eRANK_REGISTRY, ForkPrepare, ForkParent, ForkChild); }

void CHandlerTable::ForkPrepare() { Instance().m_mutex.lock(); }

void CHandlerTable::ForkParent() { Instance().m_mutex.unlock(); }

void CHandlerTable::ForkChild() {
    CHandlerTable& table = Instance();
    for (std::vector<KtHandlerRef>& list : table.m_handlers) {
        table.m_inherited.insert(table.m_inherited.end(), list.begin(), list.end());
        list.clear();
    }
    table.UpdateViews();
    table.m_mutex.unlock();
}

void CHandlerTable::UpdateViews() {
    std::atomic<CCommHandler*>* views[KT_TRANSPORT_COUNT] = {&g_pUsbCommHandler, &g_pSerialCommHandler,
                                                             &g_pBTHCommHandler};
    for (int t = 0; t < KT_TRANSPORT_COUNT; ++t)
        *views[t] = m_handlers[t].empty() ? nullptr : m_handlers[t].front().get();
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

size_t CHandlerTable::Total() {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t total = 0;
    for (const std::vector<KtHandlerRef>& list : m_handlers) total += list.size();
    return total;
}

bool CHandlerTable::Add(KtTransportE transport, const KtHandlerRef& handler, size_t limit) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<KtHandlerRef>& list = m_handlers[transport];
    if (list.size() >= limit) return false;
    list.push_back(handler);
    UpdateViews();
    return true;
}

bool CHandlerTable::Remove(const KtHandlerRef& handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (std::vector<KtHandlerRef>& list : m_handlers) {
        auto at = std::find(list.begin(), list.end(), handler);
        if (at != list.end()) {
            list.erase(at);
            UpdateViews();
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
    UpdateViews();
    return all;
}

void CHandlerTable::KeepInherited(KtHandlerRef link) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (std::find(m_inherited.begin(), m_inherited.end(), link) == m_inherited.end())
        m_inherited.push_back(std::move(link));
}
