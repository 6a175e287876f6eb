// SPDX-License-Identifier: MIT
// Opening, querying and closing the library in every order.
#include <gtest/gtest.h>

#include <tuple>

#include "Vyrix_Internal.h"

namespace {

class Lifecycle : public ::testing::Test {
protected:
    void TearDown() override {
        if (g_pLibCtx != nullptr) Vyrix_CloseLibrary(g_pLibCtx);
    }
};

// Closed: everything but open is refused, and the library check comes
// before any argument check.
TEST_F(Lifecycle, ClosedLibraryRefusesEverythingButOpen) {
    Vyrix_LibraryInfoS info{9, 9, 9, 9};
    EXPECT_EQ(Vyrix_GetLibraryInfo(reinterpret_cast<void*>(1), &info), 0x04000000u);
    EXPECT_EQ(info.majorVersion, 9);  // untouched
    EXPECT_EQ(Vyrix_CloseLibrary(reinterpret_cast<void*>(1)), 0x04000000u);
    EXPECT_EQ(Vyrix_CloseLibrary(nullptr), 0x04000000u);
    EXPECT_EQ(Vyrix_OpenLibrary(nullptr), 0x05000000u);
    EXPECT_EQ(g_pSyncObj, nullptr);
}

// Open, a refused second open, version, close with any non-null handle,
// and a reopen that starts afresh.
TEST_F(Lifecycle, OpenTwiceCloseAndReopen) {
    void* handle = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&handle), 0u);
    EXPECT_EQ(handle, g_pLibCtx);
    EXPECT_NE(g_pSyncObj, nullptr);
    void* second = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(Vyrix_OpenLibrary(&second), 0x18000000u);
    EXPECT_EQ(second, reinterpret_cast<void*>(0x1234));  // not written
    EXPECT_EQ(Vyrix_OpenLibrary(nullptr), 0x18000000u);  // refused before its argument is looked at
    EXPECT_EQ(g_pLibCtx, handle);

    Vyrix_LibraryInfoS info{};
    EXPECT_EQ(Vyrix_GetLibraryInfo(handle, nullptr), 0x05000000u);
    EXPECT_EQ(Vyrix_GetLibraryInfo(nullptr, &info), 0x05000000u);
    ASSERT_EQ(Vyrix_GetLibraryInfo(handle, &info), 0u);
    EXPECT_EQ(std::make_tuple(info.majorVersion, info.minorVersion, info.revision, info.build),
              std::make_tuple(1, 3, 0, 0u));

    g_pLibCtx.load()->sequenceNumber = 17;
    EXPECT_EQ(Vyrix_CloseLibrary(nullptr), 0x05000000u);
    EXPECT_NE(g_pLibCtx, nullptr);
    int other = 0;
    EXPECT_EQ(Vyrix_CloseLibrary(&other), 0u);
    EXPECT_EQ(g_pLibCtx, nullptr);
    EXPECT_EQ(g_pSyncObj, nullptr);
    ASSERT_EQ(Vyrix_OpenLibrary(&handle), 0u);
    EXPECT_EQ(g_pLibCtx.load()->sequenceNumber, 0);
    EXPECT_TRUE(g_pLibCtx.load()->connections.empty());
}

}  // namespace
