// SPDX-License-Identifier: MIT
// The shared log file: emptied by the first log of a process, appended to
// by later ones, left alone while another process holds it, and never
// written through a planted link, a FIFO or into a file of another user.
// A process that found it held keeps one time-stamped log of its own; a
// forked child never takes the parent's lock or stops on its locks.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

// Inside this program's own runtime directory.
std::string Shared() { return vt::RuntimeDir() + "/Vyrix_SDK.log"; }

// A time-stamped name, with a suffix when the stamp was taken.
bool IsUniqueName(const std::string& path) {
    const std::string prefix = vt::RuntimeDir() + "/Vyrix_SDK_";
    return path.compare(0, prefix.size(), prefix) == 0 &&
           std::regex_match(path.substr(prefix.size()),
                            std::regex("[0-9]{2}[A-Za-z]+[0-9]{4}_[0-9]{6}(_[0-9]+)?\\.log"));
}

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// The time-stamped logs in the runtime directory, sorted.
std::vector<std::string> TimeStampedLogs() {
    std::vector<std::string> logs;
    if (DIR* d = opendir(vt::RuntimeDir().c_str())) {
        while (dirent* e = readdir(d))
            if (IsUniqueName(vt::RuntimeDir() + "/" + e->d_name)) logs.push_back(vt::RuntimeDir() + "/" + e->d_name);
        closedir(d);
    }
    std::sort(logs.begin(), logs.end());
    return logs;
}

// The shared file locked through a description of the test's own, as
// another process would hold it (flock conflicts between descriptions).
int HoldShared() {
    const int fd = open(Shared().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    return fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 ? fd : -1;
}
bool SharedIsHeld() {
    const int fd = open(Shared().c_str(), O_RDONLY | O_CLOEXEC);
    const bool held = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (fd >= 0) close(fd);
    return held;
}

// A child process running `body` (which ends it).  Reap() waits for it to
// end, told by the child's end of a pipe closing, up to a deadline after
// which the child is killed: a child that hangs fails the test instead of
// hanging it.
class Child {
public:
    explicit Child(const std::function<void()>& body) {
        int alive[2];
        if (pipe(alive) != 0) return;
        fflush(stdout);  // the child's exit() would print it again
        pid_ = fork();
        if (pid_ == 0) {
            close(alive[0]);
            body();
            _exit(1);
        }
        close(alive[1]);
        end_ = alive[0];
        if (pid_ < 0) close(end_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    // The wait status; -1 when the child did not start or had to be killed.
    int Reap(int timeoutMs = 5000) {
        if (pid_ <= 0) return -1;
        pollfd p{end_, POLLIN, 0};
        const bool ended = poll(&p, 1, timeoutMs) == 1;
        close(end_);
        if (!ended) kill(pid_, SIGKILL);
        int status = -1;
        waitpid(pid_, &status, 0);
        return ended ? status : -1;
    }

private:
    pid_t pid_ = -1;
    int end_ = -1;
};

class Log : public ::testing::Test {
protected:
    void SetUp() override { unlink(Shared().c_str()); }
    void TearDown() override {
        LogEnd();
        unlink(Shared().c_str());
    }
};

TEST_F(Log, NothingIsWrittenWithoutALog) {
    KtWriteLogFile("<INFO> %s: dropped\n", "Test");
    EXPECT_FALSE(vt::FileExists(Shared()));
}

TEST_F(Log, FirstLogEmptiesTheFileLaterOnesAppend) {
    WriteFile(Shared(), "left from an earlier run\n");
    LogStart();
    EXPECT_EQ(vt::LogPath(), Shared());
    KtWriteLogFile("<INFO> %s :first\n", "Test");
    LogEnd();
    EXPECT_EQ(vt::ReadFile(Shared()), "<INFO> Test :first\n");
    LogStart();
    KtWriteLogFile("<INFO> %s :second\n", "Test");
    LogEnd();
    EXPECT_EQ(vt::ReadFile(Shared()), "<INFO> Test :first\n<INFO> Test :second\n");
}

TEST_F(Log, AnotherProcessHoldingTheFileGetsAUniqueFile) {
    WriteFile(Shared(), "the other process's entries\n");
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    pid_t child = fork();
    if (child == 0) {
        int fd = open(Shared().c_str(), O_WRONLY);
        flock(fd, LOCK_EX);
        char c = 1;
        if (write(ready[1], &c, 1) != 1) _exit(1);
        if (read(done[0], &c, 1) != 1) _exit(1);
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    // Time-stamped logs of other processes, for this second and the next
    // two: the new log is a file of its own, never one of them.
    std::vector<std::string> taken;
    for (time_t t = time(nullptr), end = t + 3; t < end; ++t) {
        struct tm local {};
        localtime_r(&t, &local);
        char stamp[64];
        ASSERT_GT(strftime(stamp, sizeof stamp, "%d%b%Y_%H%M%S", &local), 0u);
        taken.push_back(vt::RuntimeDir() + "/Vyrix_SDK_" + stamp + ".log");
        WriteFile(taken.back(), "another log\n");
    }
    LogStart();
    const std::string path = vt::LogPath();
    KtWriteLogFile("<INFO> %s :mine\n", "Test");
    EXPECT_TRUE(IsUniqueName(path)) << path;
    EXPECT_EQ(vt::ReadFile(path), "<INFO> Test :mine\n");
    LogEnd();
    EXPECT_EQ(vt::ReadFile(Shared()), "the other process's entries\n");
    for (const std::string& other : taken) {
        EXPECT_NE(path, other);
        EXPECT_EQ(vt::ReadFile(other), "another log\n");
        unlink(other.c_str());
    }
    ASSERT_EQ(write(done[1], &c, 1), 1);
    waitpid(child, nullptr, 0);
    unlink(path.c_str());
}

// Held by another process the whole time, or freed half-way: every log of
// the process goes to the one time-stamped file, appended to, never
// emptied.
TEST_F(Log, ProcessKeepsOneTimeStampedLog) {
    const int held = HoldShared();
    ASSERT_GE(held, 0);
    WriteFile(Shared(), "the other process's entries\n");
    std::string expected;
    for (int round = 1; round <= 5; ++round) {
        if (round == 4) close(held);
        LogStart();
        KtWriteLogFile("<INFO> Test :round %d\n", round);
        expected += "<INFO> Test :round " + std::to_string(round) + "\n";
        LogEnd();
    }
    const std::vector<std::string> logs = TimeStampedLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(vt::ReadFile(logs[0]), expected);
    EXPECT_EQ(vt::ReadFile(Shared()), "the other process's entries\n");
    unlink(logs[0].c_str());
}

// A kept log that was removed, or replaced by another file under its name,
// gives way to a new time-stamped file; the replacement is not written.
TEST_F(Log, KeptLogRemovedOrReplacedGivesANewOne) {
    const struct {
        const char* what;
        std::function<void(const std::string&)> change;
        const char* left;  // what the old name then holds; null: nothing
    } cases[] = {
        {"removed", [](const std::string& path) { unlink(path.c_str()); }, nullptr},
        {"replaced",
         [](const std::string& path) {
             WriteFile(path + ".new", "another file\n");
             rename((path + ".new").c_str(), path.c_str());
         },
         "another file\n"},
    };
    const int held = HoldShared();
    ASSERT_GE(held, 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        LogStart();
        const std::string before = vt::LogPath();
        KtWriteLogFile("<INFO> %s :before\n", "Test");
        LogEnd();
        c.change(before);
        LogStart();
        const std::string after = vt::LogPath();
        KtWriteLogFile("<INFO> %s :after\n", "Test");
        LogEnd();
        EXPECT_TRUE(IsUniqueName(after)) << after;
        EXPECT_EQ(vt::ReadFile(after), "<INFO> Test :after\n");
        if (c.left != nullptr) {
            EXPECT_EQ(vt::ReadFile(before), c.left);
        }
        unlink(before.c_str());
        unlink(after.c_str());
    }
    close(held);
}

// A forked child writes to its copy of the log, ends it, starts one of its
// own and exits, and the parent still holds the shared file and logs to it.
TEST_F(Log, ForkedChildLeavesTheParentsLogAlone) {
    const struct {
        const char* what;
        void (*child)();
        const char* own;  // the child's own (time-stamped) log; null: none
    } cases[] = {
        {"exit",
         [] {
             atexit(LogEnd);  // as the library's unload routine does
             KtWriteLogFile("<INFO> Test :child\n");
             exit(0);
         },
         nullptr},
        {"_exit",
         [] {
             KtWriteLogFile("<INFO> Test :child\n");
             _exit(0);
         },
         nullptr},
        {"log of its own",
         [] {
             KtWriteLogFile("<INFO> Test :child\n");
             LogEnd();
             LogStart();
             KtWriteLogFile("<INFO> Test :child's own\n");
             exit(0);
         },
         "<INFO> Test :child's own\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        LogStart();
        KtWriteLogFile("<INFO> Test :before\n");
        Child child(c.child);
        EXPECT_EQ(child.Reap(), 0);
        EXPECT_TRUE(SharedIsHeld());
        KtWriteLogFile("<INFO> Test :after\n");
        LogEnd();
        EXPECT_EQ(vt::ReadFile(Shared()), "<INFO> Test :before\n<INFO> Test :child\n<INFO> Test :after\n");
        const std::vector<std::string> own = TimeStampedLogs();
        ASSERT_EQ(own.size(), c.own != nullptr ? 1u : 0u);
        for (const std::string& path : own) EXPECT_EQ(vt::ReadFile(path), c.own);
        for (const std::string& path : own) unlink(path.c_str());
        unlink(Shared().c_str());
    }
}

// Forks while another thread writes entries in a loop: no child finds the
// log's locks taken for good, and every entry reaches the file whole, once.
TEST_F(Log, ForkWhileAnotherThreadWrites) {
    constexpr int kForks = 10;
    LogStart();
    int started[2];
    ASSERT_EQ(pipe(started), 0);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int n = 0; !stop; ++n) {
            KtWriteLogFile("<INFO> Test :parent %d\n", n);
            if (n == 0 && write(started[1], "", 1) != 1) return;
        }
    });
    char c;
    const bool running = read(started[0], &c, 1) == 1;
    std::string children;
    for (int i = 0; running && i < kForks; ++i) {
        Child child([i] {
            KtWriteLogFile("<INFO> Test :child %d\n", i);
            _exit(0);
        });
        const int status = child.Reap();
        EXPECT_EQ(status, 0) << "child " << i;
        if (status != 0) break;
        children += "<INFO> Test :child " + std::to_string(i) + "\n";
    }
    stop = true;
    writer.join();
    close(started[0]);
    close(started[1]);
    const std::string path = vt::LogPath();
    LogEnd();
    ASSERT_TRUE(running);
    std::istringstream lines(vt::ReadFile(path));
    std::string fromChildren;
    int next = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("<INFO> Test :parent ", 0) == 0)
            EXPECT_EQ(line, "<INFO> Test :parent " + std::to_string(next++));
        else
            fromChildren += line + "\n";
    }
    EXPECT_GT(next, 0);
    EXPECT_EQ(fromChildren, children);
}

// Whatever is planted under the log's name, opening the log neither blocks
// nor writes through it: the entries go to standard error.
TEST_F(Log, PlantedNameIsNeverUsed) {
    const std::string target = vt::RuntimeDir() + "/vyrix_test_log_target";
    const struct {
        const char* what;
        std::function<int()> plant;
    } cases[] = {
        {"symbolic link", [&] { return symlink(target.c_str(), Shared().c_str()); }},
        {"FIFO", [&] { return mkfifo(Shared().c_str(), 0600); }},
        {"second link", [&] { return link(target.c_str(), Shared().c_str()); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        WriteFile(target, "precious\n");
        ASSERT_EQ(c.plant(), 0);
        LogStart();  // a FIFO without a reader would block a plain open here
        KtWriteLogFile("<INFO> %s :to stderr\n", "Test");
        EXPECT_EQ(g_pLogFile->Stream(), stderr);
        LogEnd();
        EXPECT_EQ(vt::ReadFile(target), "precious\n");
        unlink(Shared().c_str());
        unlink(target.c_str());
    }
}

// VYRIX_LOG chooses where entries go; the default is the file.
TEST_F(Log, VariableChoosesTheTarget) {
    const struct {
        const char* value;
        bool exists;
        FILE* stream;  // null: the shared file
    } cases[] = {{"off", false, nullptr}, {"stderr", true, stderr}, {"file", true, nullptr}, {"", true, nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        setenv("VYRIX_LOG", c.value, 1);
        LogStart();
        EXPECT_EQ(LogExists(), c.exists);
        const std::string target = c.stream == nullptr ? Shared() : vt::FdPath(fileno(c.stream));
        EXPECT_EQ(vt::LogPath(), c.exists ? target : "");
        EXPECT_EQ(vt::FileExists(Shared()), c.stream == nullptr && c.exists);
        LogEnd();
        unsetenv("VYRIX_LOG");
        unlink(Shared().c_str());
    }
}

// VYRIX_LOG_TIME=1 stamps each line where it begins (an entry may leave its
// line open for the next); any other value leaves the entries as written.
TEST_F(Log, TimeStampsOnlyWhenAskedAndOnlyAtLineStarts) {
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}[+-][0-9]{2}:[0-9]{2} ";
    const struct {
        const char* value;
        std::string expected;  // a regular expression over the whole file
    } cases[] = {
        {"1", stamp + "<ERROR> Test: open line<INFO> Test: closed\n" + stamp + "<INFO> Test: next\n"},
        {"0", "<ERROR> Test: open line<INFO> Test: closed\n<INFO> Test: next\n"},
        {nullptr, "<ERROR> Test: open line<INFO> Test: closed\n<INFO> Test: next\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "unset" : c.value);
        if (c.value != nullptr) setenv("VYRIX_LOG_TIME", c.value, 1);
        LogStart();
        KtWriteLogFile("<ERROR> %s: open line", "Test");
        KtWriteLogFile("<INFO> %s: closed\n", "Test");
        KtWriteLogFile("<INFO> %s: next\n", "Test");
        LogEnd();
        unsetenv("VYRIX_LOG_TIME");
        const std::string text = vt::ReadFile(Shared());
        EXPECT_TRUE(std::regex_match(text, std::regex(c.expected))) << text;
        unlink(Shared().c_str());
    }
}

TEST_F(Log, FileOfAnotherUserIsNotWritten) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to plant a file of another user";
    WriteFile(Shared(), "someone else's\n");
    ASSERT_EQ(chown(Shared().c_str(), 65534, 65534), 0);
    LogStart();
    EXPECT_EQ(g_pLogFile->Stream(), stderr);
    LogEnd();
    EXPECT_EQ(vt::ReadFile(Shared()), "someone else's\n");
}

}  // namespace
