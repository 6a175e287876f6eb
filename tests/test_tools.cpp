// The programs run as a user runs them: exit status, standard output and
// standard error apart, JSON parsed back; and the library's result names.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Vyrix_Api.h"
#include "vyrix_version.h"

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Starts `program args...` with its output in files; returns its pid.
pid_t Start(const std::vector<std::string>& args, const std::string& out, const std::string& err) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

int Wait(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) return 1000 + WTERMSIG(status);
    return WEXITSTATUS(status);
}

std::vector<std::string> Words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// Each test has a scratch directory of its own, removed with what is in it.
class Tools : public ::testing::Test {
protected:
    void TearDown() override {
        if (simPid > 0) {
            kill(simPid, SIGTERM);
            Wait(simPid);
        }
        if (!dir.empty()) std::system(("rm -rf " + dir).c_str());
    }
    std::string Path(const std::string& name) const { return dir + "/" + name; }
    // vyrix-sim with a link in the scratch directory; `options` as typed.
    void StartSim(const std::string& options = "") {
        link = Path("tty");
        std::vector<std::string> args = {VYRIX_SIM, "--link", link, "--trace"};
        for (const std::string& w : Words(options)) args.push_back(w);
        simPid = Start(args, Path("sim.out"), Path("sim.err"));
        ASSERT_TRUE(vt::Eventually([&] { return SimOut().find("Try:") != std::string::npos; }));
    }
    std::string SimOut() const { return vt::ReadFile(Path("sim.out")); }
    size_t PacketsSeen() const {
        const std::string trace = vt::ReadFile(Path("sim.err"));
        size_t n = 0;
        for (size_t at = 0; (at = trace.find("host ->", at)) != std::string::npos; ++at) ++n;
        return n;
    }
    // Packets and bytes in the trace lines of one direction ("host ->" or
    // "device <-").
    struct Traffic {
        long long packets = 0, bytes = 0;
    };
    Traffic Traced(const std::string& direction) const {
        std::istringstream trace(vt::ReadFile(Path("sim.err")));
        Traffic t;
        for (std::string line; std::getline(trace, line);) {
            const size_t at = line.find("] " + direction + " ");
            if (at == std::string::npos) continue;
            ++t.packets;
            for (const std::string& w : Words(line.substr(at)))
                t.bytes += w.size() == 2 && std::isxdigit(static_cast<unsigned char>(w[0]));
        }
        return t;
    }
    Outcome Run(const std::string& program, const std::string& args) {
        std::vector<std::string> argv = {program};
        for (const std::string& w : Words(args)) argv.push_back(w == "LINK" ? link : w);
        Outcome o;
        o.status = Wait(Start(argv, Path("out"), Path("err")));
        o.out = vt::ReadFile(Path("out"));
        o.err = vt::ReadFile(Path("err"));
        return o;
    }
    Outcome Ctl(const std::string& args) { return Run(VYRIXCTL, args); }
    static nlohmann::json Json(const Outcome& o) {
        auto j = nlohmann::json::parse(o.out, nullptr, false);
        EXPECT_FALSE(j.is_discarded()) << o.out;
        return j;
    }

    char dirTemplate[32] = "/tmp/vyrix-tools-XXXXXX";
    const std::string dir = mkdtemp(dirTemplate) ? dirTemplate : "";
    std::string link;
    pid_t simPid = -1;
};

TEST(ResultNames, NamesAndDescriptions) {
    struct Case {
        uint32_t result;
        const char* name;
    } cases[] = {
        {0x00000000u, "eVYRIX_SUCCESS"},           {0x05000000u, "eVYRIX_INVALID_ARGUMENT"},
        {0x16000000u, "eVYRIX_NOT_CONNECTED"},     {0x1C000000u, "eVYRIX_RECONNECT_FAILED"},
        {0x1D000000u, "device status 0x1D000000"},  // past the last code
        {0x0A00BEEFu, "device status 0x0A00BEEF"},  // low bits from the device
        {0x00000001u, "device status 0x00000001"},
    };
    const std::string deviceText = Vyrix_GetResultDescription(static_cast<Vyrix_ReturnStatus>(0x0A00BEEFu));
    for (const Case& c : cases) {
        const auto r = static_cast<Vyrix_ReturnStatus>(c.result);
        EXPECT_STREQ(Vyrix_GetResultName(r), c.name);
        const std::string description = Vyrix_GetResultDescription(r);
        EXPECT_EQ(description == deviceText, std::string(c.name).rfind("device status", 0) == 0) << c.name;
    }
    std::set<std::string> descriptions;
    for (uint32_t code = 0; code < eVYRIX_MAX_RETURN_CODE_ENUM; ++code) {
        const std::string d = Vyrix_GetResultDescription(VYRIX_RESULT(code));
        EXPECT_EQ(d.back(), '.') << code;
        descriptions.insert(d);
    }
    EXPECT_EQ(descriptions.size(), static_cast<size_t>(eVYRIX_MAX_RETURN_CODE_ENUM));
}

TEST_F(Tools, EveryProgramTellsItsVersion) {
    for (const char* program : {VYRIXCTL, VYRIX_SIM, VYRIX_DEMO}) {
        Outcome o = Run(program, "--version");
        EXPECT_EQ(o.status, 0) << program;
        const std::string name = std::string(program).substr(std::string(program).rfind('/') + 1);
        EXPECT_EQ(o.out, name + " " VYRIX_VERSION_STRING "\n");
    }
}

TEST_F(Tools, GetSetAndJsonWithOptionsAnywhere) {
    StartSim();
    Outcome get = Ctl("get brightness --json --uart LINK");
    EXPECT_EQ(get.status, 0) << get.err;
    nlohmann::json j = Json(get);
    EXPECT_EQ(j["value"], 80);
    EXPECT_EQ(j["result"], "eVYRIX_SUCCESS");

    EXPECT_EQ(Ctl("--uart LINK set brightness 42 --storage 1").status, 0);
    Outcome gamma = Ctl("--uart LINK --json set gamma 1.");  // as typed: still valid JSON
    EXPECT_EQ(gamma.status, 0) << gamma.err;
    EXPECT_EQ(Json(gamma)["value"], "1.");
    Outcome saved = Ctl("--uart LINK get brightness --storage 1");
    EXPECT_TRUE(vt::Contains(saved.out, "value:             42")) << saved.out;
    EXPECT_EQ(saved.err, "");

    // stats: one status read, then the counters of that exchange, in both
    // forms; they match what the simulator traced in each direction.
    const std::vector<std::string> names = {"packetsSent", "packetsReceived",  "bytesSent",       "bytesReceived",
                                            "resends",     "packetsDiscarded", "messagesDropped", "linkDowns"};
    for (const std::string args : {"stats --json --uart LINK", "--uart LINK stats"}) {
        const Traffic sentBefore = Traced("host ->"), receivedBefore = Traced("device <-");
        Outcome stats = Ctl(args);
        ASSERT_EQ(stats.status, 0) << args << ": " << stats.err;
        const Traffic sent = Traced("host ->"), received = Traced("device <-");
        nlohmann::ordered_json counters = nlohmann::ordered_json::object();
        if (vt::Contains(args, "--json")) {
            counters = nlohmann::ordered_json::parse(stats.out);
            EXPECT_EQ(counters["command"], "stats");
            EXPECT_EQ(counters["result"], "eVYRIX_SUCCESS");
            for (const char* key : {"command", "result", "code"}) counters.erase(key);
        } else {
            std::istringstream lines(stats.out);
            for (std::string name, value; lines >> name >> value;)
                if (name != "result:") counters[name.substr(0, name.size() - 1)] = std::stoll(value);
        }
        std::vector<std::string> keys;
        for (const auto& item : counters.items()) keys.push_back(item.key());
        EXPECT_EQ(keys, names) << stats.out;
        EXPECT_EQ(sent.packets - sentBefore.packets, 1) << args;  // the status read, nothing else
        EXPECT_EQ(counters["packetsSent"], sent.packets - sentBefore.packets) << args;
        EXPECT_EQ(counters["bytesSent"], sent.bytes - sentBefore.bytes) << args;
        EXPECT_EQ(counters["packetsReceived"], received.packets - receivedBefore.packets) << args;
        EXPECT_EQ(counters["bytesReceived"], received.bytes - receivedBefore.bytes) << args;
        EXPECT_GT(counters["bytesSent"], 0) << args;
        for (const char* none : {"resends", "packetsDiscarded", "messagesDropped", "linkDowns"})
            EXPECT_EQ(counters[none], 0) << none;
    }
}

// Refused before anything is sent, with exit 2 for a usage error and 1 for
// a failure: nothing on standard output, one line on standard error naming
// the cause; with --json the same as JSON.
TEST_F(Tools, RefusalsExitTwoOrOneWithOneLine) {
    StartSim();
    std::ofstream(Path("plain")) << "x";
    std::ofstream(Path("empty")).close();
    mkdir(Path("dir").c_str(), 0700);
    const struct {
        std::string args;
        int status;
        std::string says;
    } cases[] = {
        {"--uart A --usb B info", 2, "choose one transport"},
        {"--bt nonsense info", 2, "nonsense: not a Bluetooth address"},
        {"--uart LINK set brightness 150", 2, "set brightness: value out of range 0..100 (eVYRIX_INVALID_ARGUMENT)"},
        {"--uart LINK set gamma nan", 2, "value out of range 1.0..3.0"},
        {"--uart LINK set gamma-boost 1 --channel 3", 2, "--channel out of range 0..2"},
        {"--uart LINK get brightness --storage 3", 2, "--storage out of range 0..2"},
        {"--uart LINK set brightness 5 --storage 2", 2, "--storage out of range 0..1"},
        {"--uart LINK pattern -3", 2, "pattern out of range 0..4"},
        {"--uart LINK events 0", 2, "count out of range 1..255"},
        {"--uart LINK get no-such-setting", 2, "unknown setting"},
        {"--uart LINK set output-video 1", 2, "read only"},
        {"--uart LINK --timeout -1 info", 2, "--timeout out of range"},
        {"--uart LINK info --frob", 2, "--frob"},
        {"--uart LINK stats 1", 2, "not expected: 1"},
        {"--uart LINK raw 0x27 1FF", 2, "BYTES are hexadecimal 00..FF: 1FF"},
        {"--uart LINK", 2, "subcommand"},
        {"--uart " + Path("none") + " status", 1, "none: no such device (eVYRIX_NOT_CONNECTED)"},
        {"--uart " + Path("plain") + " status", 1, "plain: not a character device"},
        {"--uart LINK upgrade " + Path("dir"), 1, "dir is a directory"},
        {"--uart LINK upgrade " + Path("empty"), 1, "empty is empty"},
        {"--uart LINK upgrade " + Path("none"), 1, "cannot read"},
        {"status", 1, "choose a transport"},
    };
    for (const auto& c : cases) {
        Outcome text = Ctl(c.args);
        EXPECT_EQ(text.status, c.status) << c.args;
        EXPECT_EQ(text.out, "") << c.args;
        EXPECT_TRUE(vt::Contains(text.err, c.says)) << c.args << ": " << text.err;
        EXPECT_EQ(std::count(text.err.begin(), text.err.end(), '\n'), 1) << text.err;
        Outcome json = Ctl(c.args + " --json");
        EXPECT_EQ(json.status, c.status) << c.args;
        const nlohmann::json j = Json(json);
        EXPECT_TRUE(j.contains("error")) << c.args;
        // A failure names the library's result.
        EXPECT_TRUE(c.status == 2 || j.value("result", "").rfind("eVYRIX_", 0) == 0) << c.args;
    }
    EXPECT_EQ(PacketsSeen(), 0u);
    EXPECT_EQ(Ctl("list uart").status, 0);
    EXPECT_TRUE(Json(Ctl("list uart --json"))["list"].is_array());
}

TEST_F(Tools, UpgradeAndNamedEvents) {
    StartSim();
    const std::string image = Path("image.bin");
    {
        std::ofstream f(image, std::ios::binary);
        for (int i = 0; i < 9001; ++i) f.put(static_cast<char>(i * 7));
    }
    Outcome up = Ctl("--json upgrade " + image + " --uart LINK");
    EXPECT_EQ(up.status, 0) << up.err;
    EXPECT_EQ(up.err, "");  // no progress bar off a terminal
    nlohmann::json j = Json(up);
    EXPECT_EQ(j["bytes"], 9001);
    ASSERT_TRUE(vt::Eventually([&] { return SimOut().find("firmware image received") != std::string::npos; }));
    EXPECT_TRUE(vt::Contains(SimOut(), "9001 bytes in 3 chunks, crc32 " + j["crc32"].get<std::string>())) << SimOut();

    nlohmann::json events = Json(Ctl("--uart LINK --json events 4"))["events"];
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events[0]["event"], "upgrade done");
    EXPECT_EQ(events[0]["code"], 6);
}

// Ctrl-C (and SIGTERM) against a device that does not answer: the command
// ends at once with the connection closed, and no lock is left behind, so
// the next command on the same line gets through.
TEST_F(Tools, SignalsEndACommandTheDeviceNeverAnswers) {
    StartSim("--silent-every 2");  // commands 2, 4, ... go unanswered
    const struct { int sig, status; } cases[] = {{SIGINT, 130}, {SIGTERM, 143}};
    size_t sent = 0;
    for (const auto& c : cases) {
        ASSERT_EQ(Ctl("--uart LINK info").status, 0);
        ++sent;
        const pid_t pid = Start({VYRIXCTL, "--uart", link, "status"}, Path("out"), Path("err"));
        ++sent;
        ASSERT_TRUE(vt::Eventually([&] { return PacketsSeen() == sent; })) << vt::ReadFile(Path("sim.err"));
        vt::Stopwatch clock;
        kill(pid, c.sig);
        EXPECT_EQ(Wait(pid), c.status);
        EXPECT_LT(clock.Ms(), 2000);  // generous: a loaded machine
        EXPECT_EQ(vt::ReadFile(Path("out")), "");
    }
    EXPECT_EQ(Ctl("--uart LINK info").status, 0);
}

TEST_F(Tools, SimulatorPacesAtTheBaudRate) {
    StartSim("--baud 600");  // 60 bytes a second
    vt::Stopwatch clock;
    EXPECT_EQ(Ctl("--uart LINK info").status, 0);
    EXPECT_GE(clock.Ms(), 67 * 10 * 1000 / 600);  // 10 bytes sent, 57 received
}

TEST_F(Tools, SimulatorNeverReplacesAFile) {
    const std::string path = Path("precious");
    std::ofstream(path) << "keep me";
    Outcome o = Run(VYRIX_SIM, "--link " + path);
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(vt::Contains(o.err, "exists")) << o.err;
    EXPECT_EQ(vt::ReadFile(path), "keep me");
}

TEST_F(Tools, MonitorShowsUnpromptedMessages) {
    Outcome monitor = Ctl("--sim --json monitor --count 2 --seconds 10");
    EXPECT_EQ(monitor.status, 0) << monitor.err;
    const size_t split = monitor.out.find('\n');
    ASSERT_NE(split, std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(monitor.out.substr(0, split))["message"], 1);
    EXPECT_EQ(nlohmann::json::parse(monitor.out.substr(split + 1))["message"], 2);
}

// The simulator stopped and started again at the same --link path: without
// --reconnect monitor ends with 1 at "down"; with it, it goes on through
// "reconnecting" to "up" (and ends on SIGTERM).
TEST_F(Tools, MonitorFollowsTheLinkGoingDownAndComingBack) {
    // A simulator's output of a run before must not pass for the new one's.
    const auto startSim = [this] {
        unlink(Path("sim.out").c_str());
        StartSim();
    };
    for (const bool reconnect : {false, true}) {
        startSim();
        std::string lock = "vyrix_llc_com_" + link + ".lock";
        std::replace(lock.begin(), lock.end(), '/', '_');
        const std::string out = Path("monitor.out");
        std::vector<std::string> args = {VYRIXCTL, "--uart", link, "--json", "monitor"};
        if (reconnect) args.push_back("--reconnect");
        const pid_t monitor = Start(args, out, Path("monitor.err"));
        ASSERT_TRUE(vt::Eventually([&] { return vt::FileExists(vt::RuntimeDir() + "/" + lock); }));
        kill(simPid, SIGTERM);
        Wait(simPid);
        simPid = -1;
        std::vector<std::string> want = {R"({"state":"down","reason":"eVYRIX_NOT_CONNECTED"})"};
        if (reconnect) {
            ASSERT_TRUE(vt::Eventually([&] { return vt::ReadFile(out).find("reconnecting") != std::string::npos; }));
            startSim();
            ASSERT_TRUE(vt::Eventually([&] { return vt::ReadFile(out).find("\"up\"") != std::string::npos; }));
            kill(monitor, SIGTERM);
            want.insert(want.end(), {R"({"state":"reconnecting"})", R"({"state":"up"})"});
        }
        EXPECT_EQ(Wait(monitor), reconnect ? 143 : 1) << vt::ReadFile(Path("monitor.err"));
        std::vector<std::string> lines;
        std::istringstream got(vt::ReadFile(out));
        for (std::string line; std::getline(got, line);) lines.push_back(line);
        EXPECT_EQ(lines, want);
        if (simPid > 0) {
            kill(simPid, SIGTERM);
            Wait(simPid);
            simPid = -1;
        }
    }
}

TEST_F(Tools, DemoRunsToTheEndPlainOffATerminal) {
    EXPECT_TRUE(vt::Contains(Run(VYRIX_DEMO, "--help").out, "Usage: vyrix-demo"));
    Outcome demo = Run(VYRIX_DEMO, "");
    EXPECT_EQ(demo.status, 0) << demo.out;
    EXPECT_TRUE(vt::Contains(demo.out, "0 problems")) << demo.out;
    EXPECT_TRUE(vt::Contains(demo.out, "refused as expected: eVYRIX_INVALID_ARGUMENT"));
    EXPECT_EQ((demo.out + demo.err).find_first_of("\033\r"), std::string::npos);
}

}  // namespace
