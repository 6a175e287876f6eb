// Opening, querying and closing the library in every order.
#include <gtest/gtest.h>

#include "Vyrix_Internal.h"

namespace {

class Lifecycle : public ::testing::Test {
protected:
    void TearDown() override {
        if (g_pLibCtx != nullptr) Vyrix_CloseLibrary(g_pLibCtx);
    }
};

TEST_F(Lifecycle, ClosedLibraryRefusesEverythingButOpen) {
    Vyrix_LibraryInfoS info{9, 9, 9, 9};
    EXPECT_EQ(Vyrix_GetLibraryInfo(reinterpret_cast<void*>(1), &info), 0x04000000u);
    EXPECT_EQ(info.majorVersion, 9);  // untouched
    EXPECT_EQ(Vyrix_CloseLibrary(reinterpret_cast<void*>(1)), 0x04000000u);
    EXPECT_EQ(Vyrix_CloseLibrary(nullptr), 0x04000000u);  // library check comes first
    EXPECT_EQ(Vyrix_OpenLibrary(nullptr), 0x05000000u);
    EXPECT_EQ(g_pSyncObj, nullptr);
}

TEST_F(Lifecycle, OpenGivesContextLockAndVersion) {
    void* handle = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&handle), 0u);
    EXPECT_EQ(handle, g_pLibCtx);
    EXPECT_NE(g_pSyncObj, nullptr);
    EXPECT_TRUE(g_pLibCtx->connections.empty());
    EXPECT_EQ(g_pLibCtx->sequenceNumber, 0);

    Vyrix_LibraryInfoS info{};
    EXPECT_EQ(Vyrix_GetLibraryInfo(handle, nullptr), 0x05000000u);
    EXPECT_EQ(Vyrix_GetLibraryInfo(nullptr, &info), 0x05000000u);
    ASSERT_EQ(Vyrix_GetLibraryInfo(handle, &info), 0u);
    EXPECT_EQ(info.majorVersion, 1);
    EXPECT_EQ(info.minorVersion, 3);
    EXPECT_EQ(info.revision, 0);
    EXPECT_EQ(info.build, 0u);
}

TEST_F(Lifecycle, SecondOpenIsRefusedBeforeItsArgumentIsLookedAt) {
    void* first = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&first), 0u);
    void* second = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(Vyrix_OpenLibrary(&second), 0x18000000u);
    EXPECT_EQ(second, reinterpret_cast<void*>(0x1234));  // not written
    EXPECT_EQ(Vyrix_OpenLibrary(nullptr), 0x18000000u);
    EXPECT_EQ(g_pLibCtx, first);  // the first context stays in use
}

TEST_F(Lifecycle, CloseAcceptsAnyNonNullHandleAndRemovesTheLock) {
    void* handle = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&handle), 0u);
    EXPECT_EQ(Vyrix_CloseLibrary(nullptr), 0x05000000u);
    EXPECT_NE(g_pLibCtx, nullptr);
    int other = 0;
    EXPECT_EQ(Vyrix_CloseLibrary(&other), 0u);
    EXPECT_EQ(g_pLibCtx, nullptr);
    EXPECT_EQ(g_pSyncObj, nullptr);
}

TEST_F(Lifecycle, ReopenStartsAFreshContext) {
    void* handle = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&handle), 0u);
    g_pLibCtx->sequenceNumber = 17;
    ASSERT_EQ(Vyrix_CloseLibrary(handle), 0u);
    ASSERT_EQ(Vyrix_OpenLibrary(&handle), 0u);
    EXPECT_EQ(g_pLibCtx->sequenceNumber, 0);
    EXPECT_TRUE(g_pLibCtx->connections.empty());
}

}  // namespace
