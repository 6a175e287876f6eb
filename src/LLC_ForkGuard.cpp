// SPDX-License-Identifier: MIT
#include "LLC_ForkGuard.h"

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace {
// Plain atomics and a once flag: nothing here has a destructor, so the
// hooks stay usable while the process exits.
struct Hooks {
    std::atomic<CForkGuard::Hook> prepare, parent, child;
};
Hooks g_hooks[CForkGuard::eRANK_COUNT];
std::atomic<unsigned> g_generation{0};
std::once_flag g_installed;

void Call(const std::atomic<CForkGuard::Hook>& hook) {
    CForkGuard::Hook h = hook.load();
    if (h != nullptr) h();
}

void Prepare() {
    for (int r = 0; r < CForkGuard::eRANK_COUNT; ++r) Call(g_hooks[r].prepare);
}

void Parent() {
    for (int r = CForkGuard::eRANK_COUNT - 1; r >= 0; --r) Call(g_hooks[r].parent);
}

void Child() {
    g_generation.fetch_add(1);
    for (int r = CForkGuard::eRANK_COUNT - 1; r >= 0; --r) Call(g_hooks[r].child);
}
}  // namespace

void CForkGuard::Register(Rank rank, Hook prepare, Hook parent, Hook child) {
    std::call_once(g_installed, [] { pthread_atfork(Prepare, Parent, Child); });
    // Prepare last: a fork that sees it also sees what undoes it.
    g_hooks[rank].child = child;
    g_hooks[rank].parent = parent;
    g_hooks[rank].prepare = prepare;
}

unsigned CForkGuard::Generation() { return g_generation.load(); }
