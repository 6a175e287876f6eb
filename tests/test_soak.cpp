// SPDX-License-Identifier: MIT
// A thousand serial connections opened and closed: descriptors and threads
// stay where they were.
#include <gtest/gtest.h>

#include "ApiLink.h"

namespace {

TEST(Soak, DescriptorsAndThreadsStayFlatOverAThousandConnections) {
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    void* library = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    auto cycle = [&] {
        void* conn = nullptr;
        ASSERT_EQ(Vyrix_OpenConnection(library, &conn, vt::UartRecord(sim->SlavePath().c_str())), 0u);
        ASSERT_EQ(Vyrix_CloseConnection(conn), 0u);
    };
    cycle();
    const int fds = vt::OpenFds();
    const int threads = vt::Threads();
    for (int i = 0; i < 1000; ++i) cycle();
    EXPECT_EQ(vt::OpenFds(), fds);
    EXPECT_TRUE(vt::Eventually([&] { return vt::Threads() <= threads; }));
    RecordProperty("open_fds", fds);
    Vyrix_CloseLibrary(library);
}

}  // namespace
