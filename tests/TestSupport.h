/* SPDX-License-Identifier: MIT */
// Helpers shared by the test programs: files, the log, descriptors, threads,
// CPU time, and a simulator on a pseudo-terminal.
#ifndef VYRIX_TEST_SUPPORT_H
#define VYRIX_TEST_SUPPORT_H

#include <dirent.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "LLC_LogFile.h"
#include "Vyrix_LLC_Api_Ex.h"

// The sanitizer runtimes cannot follow a child of a threaded process that
// starts threads of its own: ThreadSanitizer refuses, and a lock of
// AddressSanitizer's allocator held by another thread at the fork stays
// held in the child.  The plain build runs these tests.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define VT_SKIP_THREADED_FORK_UNDER_SANITIZERS() GTEST_SKIP() << "a forked child that starts threads"
#else
#define VT_SKIP_THREADED_FORK_UNDER_SANITIZERS() (void)0
#endif

namespace vt {

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The directory of the library's log and lock files: each test program has
// one of its own (PrivateRuntimeDir.cpp).
inline std::string RuntimeDir() {
    const char* dir = getenv("VYRIX_RUNTIME_DIR");
    return dir != nullptr ? dir : "/tmp";
}

inline bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The lock file a serial port takes for the terminal `path`.
inline std::string SerialLockName(const std::string& path) {
    return RuntimeDir() + "/vyrix_llc_com_pts_" + path.substr(path.rfind('/') + 1) + ".lock";
}

// For EXPECT_TRUE: `part` occurs in `text`, which the failure shows.
inline ::testing::AssertionResult Contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << part << "\" is not in:\n" << text;
}
inline size_t Occurrences(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

inline std::string FdPath(int fd) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char target[512] = {0};
    ssize_t n = readlink(link, target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

// The file the current log writes to ("" when there is no log).
inline std::string LogPath() {
    if (g_pLogFile == nullptr || g_pLogFile->Stream() == nullptr) return "";
    fflush(g_pLogFile->Stream());
    return FdPath(fileno(g_pLogFile->Stream()));
}
inline std::string Log() { return ReadFile(LogPath()); }

// A test whose library log runs from its start to its end.
class Logged : public ::testing::Test {
protected:
    void SetUp() override { LogStart(); }
    void TearDown() override { LogEnd(); }
};

inline int CountEntries(const char* dir) {
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n - 2;
}
// Calls `visit(task directory, thread name)` for each thread of the process.
inline void ForEachThread(const std::function<void(const std::string&, const std::string&)>& visit) {
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            const std::string task = std::string("/proc/self/task/") + e->d_name;
            std::string comm = ReadFile(task + "/comm");
            if (!comm.empty() && comm.back() == '\n') comm.pop_back();
            visit(task, comm);
        }
        closedir(d);
    }
}
// The names of the process's threads, for messages.
inline std::string ThreadNames() {
    std::string names;
    ForEachThread([&](const std::string& task, const std::string& comm) {
        names += task.substr(task.rfind('/') + 1) + ":" + comm + " ";
    });
    return names;
}
// Threads other than GLib's own (umockdev's workers start and idle out on
// their own schedule).
inline int NonGlibThreads() {
    int n = 0;
    ForEachThread([&](const std::string&, const std::string& comm) {
        n += comm.rfind("pool-", 0) != 0 && comm.rfind("gmain", 0) != 0 && comm.rfind("gdbus", 0) != 0;
    });
    return n;
}
// Voluntary context switches so far (each a wait the thread went into) of
// the threads named `name`; -1 when none is there.
inline long ContextSwitches(const std::string& name) {
    long total = -1;
    ForEachThread([&](const std::string& task, const std::string& comm) {
        if (comm != name) return;
        std::istringstream status(ReadFile(task + "/status"));
        for (std::string line; std::getline(status, line);) {
            // Only the thread's own waits: preemption by others is not a wake-up.
            if (line.rfind("voluntary_ctxt_switches:", 0) != 0) continue;
            total = (total < 0 ? 0 : total) + std::stol(line.substr(line.find(':') + 1));
        }
    });
    return total;
}
inline int OpenFds() { return CountEntries("/proc/self/fd") - 1; }  // less opendir's own
inline int Threads() { return CountEntries("/proc/self/task"); }

inline double CpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Polls a condition for up to `limit` (for states with no event to wait
// on, such as a detached thread's exit).
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class Stopwatch {
public:
    Stopwatch() : start_(std::chrono::steady_clock::now()) {}
    long Ms() const {
        return static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_).count());
    }

private:
    std::chrono::steady_clock::time_point start_;
};

}  // namespace vt

#endif
