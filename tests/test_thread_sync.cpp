// SPDX-License-Identifier: MIT
// The worker thread object, the mutex wrappers and sleeping.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <regex>

#include "LLC_Thread.h"
#include "TestSupport.h"

namespace {

struct Gate {
    std::mutex m;
    std::condition_variable cv;
    bool open = false;
    std::atomic<int> runs{0};
};

int WaitAtGate(void* arg) {
    auto* gate = static_cast<Gate*>(arg);
    ++gate->runs;
    std::unique_lock<std::mutex> lock(gate->m);
    gate->cv.wait(lock, [&] { return gate->open; });
    return 0;
}

int ReturnAtOnce(void* arg) {
    ++static_cast<Gate*>(arg)->runs;
    return 0;
}

void Open(Gate& gate) {
    std::lock_guard<std::mutex> lock(gate.m);
    gate.open = true;
    gate.cv.notify_all();
}

TEST(ThreadObject, RefusesNullRoutineAndASecondThread) {
    CThreadObject thread;
    Gate gate;
    vt::Stopwatch watch;
    EXPECT_EQ(thread.CloseThread(), 0u);  // no thread: at once, and without a log
    EXPECT_LT(watch.Ms(), 100);
    EXPECT_EQ(thread.createThread(nullptr, &gate), 0x05000000u);
    ASSERT_EQ(thread.createThread(WaitAtGate, &gate), 0u);
    EXPECT_EQ(thread.createThread(ReturnAtOnce, &gate), 0x01000000u);
    ASSERT_TRUE(vt::Eventually([&] { return gate.runs == 1; }));
    EXPECT_TRUE(thread.IsActive());  // the first worker is left alone
    Open(gate);
    EXPECT_EQ(thread.CloseThread(), 0u);
    EXPECT_FALSE(thread.IsActive());
    // The object can start a new thread after a close.
    ASSERT_EQ(thread.createThread(ReturnAtOnce, &gate), 0u);
    EXPECT_EQ(thread.CloseThread(), 0u);
    EXPECT_EQ(gate.runs, 2);
}

TEST(ThreadObject, CloseWaitsForTheWorkerAndSaysSoEvery250Ms) {
    LogStart();
    const std::string path = vt::LogPath();
    CThreadObject thread;
    Gate gate;
    ASSERT_EQ(thread.createThread(WaitAtGate, &gate), 0u);
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        Open(gate);
    });
    vt::Stopwatch watch;
    EXPECT_EQ(thread.CloseThread(), 0u);
    const long waited = watch.Ms();
    opener.join();
    EXPECT_GE(waited, 550);
    EXPECT_LT(waited, 2000);
    const size_t count = vt::Occurrences(vt::ReadFile(path), "<ERROR> CloseThread: Thread still active!!\n");
    EXPECT_GE(count, 2u);  // 600 ms of waiting at 250 ms a look: 3 looks
    EXPECT_LE(count, 4u);
    LogEnd();
}

TEST(SyncObject, WrappersCheckTheirHandle) {
    for (Vyrix_ReturnStatus r : {KtCreateSyncObject(nullptr), KtLockSyncObject(nullptr), KtUnlockSyncObject(nullptr),
                                 KtDestroySyncObj(nullptr)})
        EXPECT_EQ(r, 0x05000000u);
    EXPECT_FALSE(LogExists());  // no log: nothing was written anywhere
    void* lock = nullptr;
    ASSERT_EQ(KtCreateSyncObject(&lock), 0u);
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(KtLockSyncObject(lock), 0u);
    std::atomic<bool> entered{false};
    std::thread other([&] {
        KtLockSyncObject(lock);
        entered = true;
        KtUnlockSyncObject(lock);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);  // held
    EXPECT_EQ(KtUnlockSyncObject(lock), 0u);
    other.join();
    EXPECT_TRUE(entered);
    EXPECT_EQ(KtDestroySyncObj(lock), 0u);
}

TEST(Sleep, LastsWhatItSays) {
    vt::Stopwatch zero;
    LLCSleep(0);
    EXPECT_LT(zero.Ms(), 20);
    vt::Stopwatch fifty;
    KtSleep(50);
    EXPECT_GE(fifty.Ms(), 50);
    EXPECT_LT(fifty.Ms(), 500);
}

}  // namespace
