// vyrixctl end to end against vyrix-sim, and the demo to its end.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "TestSupport.h"

namespace {

struct Outcome {
    int status;
    std::string out;
};

Outcome Shell(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    Outcome run{-1, ""};
    if (pipe == nullptr) return run;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) run.out.append(buf, n);
    int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

class Tools : public ::testing::Test {
protected:
    void SetUp() override {
        link = "/tmp/vyrix-test-sim-" + std::to_string(getpid());
        simOut = link + ".out";
        int pid = fork();
        if (pid == 0) {
            freopen(simOut.c_str(), "w", stdout);
            execl(VYRIX_SIM, VYRIX_SIM, "--link", link.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        simPid = pid;
        ASSERT_TRUE(vt::Eventually([&] { return vt::ReadFile(simOut).find("Try:") != std::string::npos; }));
    }
    void TearDown() override {
        kill(simPid, SIGTERM);
        waitpid(simPid, nullptr, 0);
        unlink(simOut.c_str());
    }
    Outcome Ctl(const std::string& args) { return Shell(std::string(VYRIXCTL) + " --uart " + link + " " + args); }

    std::string link, simOut;
    pid_t simPid = -1;
};

TEST_F(Tools, GetSetAndJson) {
    Outcome get = Ctl("--json get brightness");
    EXPECT_EQ(get.status, 0) << get.out;
    EXPECT_NE(get.out.find("\"value\":80"), std::string::npos) << get.out;
    EXPECT_NE(get.out.find("\"result\":\"eVYRIX_SUCCESS\""), std::string::npos) << get.out;

    Outcome set = Ctl("set brightness 42 --storage 1");
    EXPECT_EQ(set.status, 0) << set.out;
    Outcome saved = Ctl("get brightness --storage 1");
    EXPECT_NE(saved.out.find("value:             42"), std::string::npos) << saved.out;

    Outcome bad = Ctl("--json set brightness 101");
    EXPECT_EQ(bad.status, 1) << bad.out;
    EXPECT_NE(bad.out.find("\"result\":\"eVYRIX_INVALID_ARGUMENT\""), std::string::npos) << bad.out;
    EXPECT_NE(bad.out.find("\"code\":\"0x05000000\""), std::string::npos) << bad.out;

    EXPECT_EQ(Ctl("get no-such-setting").status, 2);
    EXPECT_EQ(Ctl("set output-video 1").status, 2);
}

TEST_F(Tools, InfoEventsAndUpgrade) {
    Outcome info = Ctl("--json info");
    EXPECT_EQ(info.status, 0) << info.out;
    EXPECT_NE(info.out.find("\"device\":\"VYRIX-LSE-SIM-01\""), std::string::npos) << info.out;

    const std::string image = link + ".bin";
    {
        std::ofstream f(image, std::ios::binary);
        for (int i = 0; i < 9001; ++i) f.put(static_cast<char>(i * 7));
    }
    Outcome up = Ctl("--json upgrade " + image);
    EXPECT_EQ(up.status, 0) << up.out;
    EXPECT_NE(up.out.find("\"bytes\":9001"), std::string::npos) << up.out;
    const size_t at = up.out.find("\"crc32\":\"");
    ASSERT_NE(at, std::string::npos);
    const std::string crc = up.out.substr(at + 9, 8);
    ASSERT_TRUE(
        vt::Eventually([&] { return vt::ReadFile(simOut).find("firmware image received") != std::string::npos; }));
    EXPECT_NE(vt::ReadFile(simOut).find("9001 bytes in 3 chunks, crc32 " + crc), std::string::npos)
        << vt::ReadFile(simOut);
    unlink(image.c_str());

    Outcome events = Ctl("--json events 4");
    EXPECT_EQ(events.status, 0) << events.out;
    EXPECT_NE(events.out.find("\"events\":[{\"code\":6"), std::string::npos) << events.out;  // upgrade done, newest
}

TEST_F(Tools, FailuresGiveNonZeroStatus) {
    Outcome noDevice = Shell(std::string(VYRIXCTL) + " --uart /dev/vyrix-none --json status");
    EXPECT_EQ(noDevice.status, 1);
    EXPECT_NE(noDevice.out.find("\"result\":\"eVYRIX_FAILURE\""), std::string::npos) << noDevice.out;
    Outcome noTransport = Shell(std::string(VYRIXCTL) + " status");
    EXPECT_EQ(noTransport.status, 1);
    EXPECT_NE(noTransport.out.find("choose a transport"), std::string::npos);
    Outcome bluetooth = Shell(std::string(VYRIXCTL) + " --json list bt");
    EXPECT_NE(bluetooth.out.find("\"result\""), std::string::npos) << bluetooth.out;
    Outcome raw = Ctl("--json raw 0x27");
    EXPECT_EQ(raw.status, 0) << raw.out;
    EXPECT_NE(raw.out.find("\"status\":\"eVYRIX_SUCCESS\""), std::string::npos) << raw.out;
}

TEST(ToolsBuiltIn, MonitorShowsUnpromptedMessages) {
    Outcome monitor = Shell(std::string(VYRIXCTL) + " --sim --json monitor --count 2 --seconds 10");
    EXPECT_EQ(monitor.status, 0) << monitor.out;
    EXPECT_NE(monitor.out.find("{\"message\":1,"), std::string::npos) << monitor.out;
    EXPECT_NE(monitor.out.find("{\"message\":2,"), std::string::npos) << monitor.out;
}

TEST(ToolsBuiltIn, DemoRunsToTheEnd) {
    Outcome demo = Shell(VYRIX_DEMO);
    EXPECT_EQ(demo.status, 0) << demo.out;
    EXPECT_NE(demo.out.find("0 problems"), std::string::npos) << demo.out;
}

}  // namespace
