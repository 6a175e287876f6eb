// The shared log file: emptied by the first log of a process, appended to
// by later ones, left alone while another process holds it, and never
// written through a planted link, a FIFO or into a file of another user.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <regex>
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
