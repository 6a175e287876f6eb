// The shared log file: emptied by the first log of a process, appended to
// by later ones, left alone while another process holds it, and never
// written through a planted link or into a file of another user.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <regex>

#include "TestSupport.h"

namespace {

const std::string kShared = "/tmp/Vyrix_SDK.log";

void WriteFile(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs(text.c_str(), f);
    fclose(f);
}

class Log : public ::testing::Test {
protected:
    void SetUp() override { unlink(kShared.c_str()); }
    void TearDown() override {
        LogEnd();
        unlink(kShared.c_str());
    }
};

TEST_F(Log, NothingIsWrittenWithoutALog) {
    KtWriteLogFile("<INFO> %s: dropped\n", "Test");
    EXPECT_FALSE(vt::FileExists(kShared));
}

TEST_F(Log, FirstLogEmptiesTheFileLaterOnesAppend) {
    WriteFile(kShared, "left from an earlier run\n");
    LogStart();
    EXPECT_EQ(vt::LogPath(), kShared);
    KtWriteLogFile("<INFO> %s :first\n", "Test");
    LogEnd();
    EXPECT_EQ(vt::ReadFile(kShared), "<INFO> Test :first\n");
    LogStart();
    KtWriteLogFile("<INFO> %s :second\n", "Test");
    LogEnd();
    EXPECT_EQ(vt::ReadFile(kShared), "<INFO> Test :first\n<INFO> Test :second\n");
}

TEST_F(Log, AnotherProcessHoldingTheFileGetsAUniqueFile) {
    WriteFile(kShared, "the other process's entries\n");
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    pid_t child = fork();
    if (child == 0) {
        int fd = open(kShared.c_str(), O_WRONLY);
        flock(fd, LOCK_EX);
        char c = 1;
        if (write(ready[1], &c, 1) != 1) _exit(1);
        if (read(done[0], &c, 1) != 1) _exit(1);
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    LogStart();
    const std::string path = vt::LogPath();
    KtWriteLogFile("<INFO> %s :mine\n", "Test");
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/Vyrix_SDK_[0-9]{2}[A-Za-z]+[0-9]{4}_[0-9]{6}\\.log"))) << path;
    EXPECT_EQ(vt::ReadFile(path), "<INFO> Test :mine\n");
    LogEnd();
    EXPECT_EQ(vt::ReadFile(kShared), "the other process's entries\n");
    ASSERT_EQ(write(done[1], &c, 1), 1);
    waitpid(child, nullptr, 0);
    unlink(path.c_str());
}

TEST_F(Log, PlantedSymbolicLinkIsNeverFollowed) {
    const std::string target = "/tmp/vyrix_test_log_target";
    WriteFile(target, "precious\n");
    ASSERT_EQ(symlink(target.c_str(), kShared.c_str()), 0);
    LogStart();
    KtWriteLogFile("<INFO> %s :to stderr\n", "Test");
    EXPECT_EQ(g_pLogFile->Stream(), stderr);
    LogEnd();
    EXPECT_EQ(vt::ReadFile(target), "precious\n");
    unlink(target.c_str());
}

TEST_F(Log, FileOfAnotherUserIsNotWritten) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to plant a file of another user";
    WriteFile(kShared, "someone else's\n");
    ASSERT_EQ(chown(kShared.c_str(), 65534, 65534), 0);
    LogStart();
    EXPECT_EQ(g_pLogFile->Stream(), stderr);
    LogEnd();
    EXPECT_EQ(vt::ReadFile(kShared), "someone else's\n");
}

TEST_F(Log, UniqueNameFormat) {
    char name[64];
    int n = CLogFile::genUniqueFilename(name);
    EXPECT_EQ(n, static_cast<int>(strlen(name)));
    EXPECT_TRUE(std::regex_match(name, std::regex("/tmp/Vyrix_SDK_[0-9]{2}[A-Za-z]+[0-9]{4}_[0-9]{6}\\.log"))) << name;
}

}  // namespace
