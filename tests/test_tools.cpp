// SPDX-License-Identifier: MIT
// The programs run as a user runs them: exit status, standard output and
// standard error apart, JSON parsed back; and the library's result names.
#include <fcntl.h>
#include <grp.h>
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

constexpr uid_t kNobody = 65534;

// Starts `program args...` with its output in files; returns its pid.  As
// `asNobody`, the program runs as the unprivileged user nobody.
pid_t Start(const std::vector<std::string>& args, const std::string& out, const std::string& err,
            bool asNobody = false) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
        if (asNobody && (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) _exit(125);
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
    Outcome Run(const std::string& program, const std::string& args, bool asNobody = false) {
        std::vector<std::string> argv = {program};
        for (const std::string& w : Words(args)) argv.push_back(w == "LINK" ? link : w == "DIR" ? dir : w);
        Outcome o;
        o.status = Wait(Start(argv, Path("out"), Path("err"), asNobody));
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

    EXPECT_EQ(Ctl("--uart LINK set brightness 42 --storage saved").status, 0);
    Outcome gamma = Ctl("--uart LINK --json set gamma 1. --channel 2 --storage 1");  // echoed as numbers
    EXPECT_EQ(gamma.status, 0) << gamma.err;
    const nlohmann::json echo = Json(gamma);
    EXPECT_EQ(echo["value"], 1.0);
    EXPECT_EQ(echo["channel"], 2);
    EXPECT_EQ(echo["storage"], 1);
    EXPECT_EQ(echo["code"], 0);
    EXPECT_TRUE(echo["error"].is_null());
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
            for (const char* key : {"command", "result", "code", "error"}) counters.erase(key);
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

// Hostile arguments: each is refused before anything is opened or sent,
// with exit 2, nothing on standard output, one line on standard error that
// names the cause; with --json, one JSON object with the same cause, the
// result's name and its code as a number.  Nothing aborts or hangs.
TEST_F(Tools, VyrixctlRefusesEveryHostileArgument) {
    StartSim();
    std::ofstream(Path("empty")).close();
    mkdir(Path("dir").c_str(), 0700);
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    const struct {
        std::string args;
        std::string says;
    } cases[] = {
        {"--uart A --usb B info", "choose one transport"},
        {"status", "choose a transport"},
        {"--bt nonsense info", "nonsense: not a Bluetooth address"},
        {"--uart LINK stauts", "unknown command 'stauts' (did you mean 'status'?)"},
        {"--uart LINK get brightnes", "unknown setting 'brightnes' (did you mean 'brightness'?)"},
        {"--uart LINK get brightness --storag 1", "unknown option '--storag' (did you mean '--storage'?)"},
        {"--uart LINK get brightness --storage savd", "did you mean 'saved'?"},
        {"--uart LINK get brightness --storage 3", "--storage out of range 0..2: '3'"},
        {"--uart LINK set brightness 5 --storage factory", "factory is read only"},
        {"--uart LINK set brightness 150",
         "set brightness: value out of range 0..100: '150' (eVYRIX_INVALID_ARGUMENT)"},
        {"--uart LINK set brightness -1", "value out of range 0..100: '-1'"},
        {"--uart LINK set brightness 010", "leading zero"},
        {"--uart LINK set brightness 0x10", "leading zero"},
        {"--uart LINK set brightness 1e1", "not a whole decimal number"},
        {"--uart LINK set brightness 99999999999999999999999", "out of range 0..100"},
        {"--uart LINK set brightness \xff\xfe", "not a whole decimal number: '\\xFF\\xFE'"},
        {"--uart LINK set \xc3\x28 1", "unknown setting"},
        {"--uart LINK set gamma nan", "not a decimal number: 'nan'"},
        {"--uart LINK set gamma 3.01", "value out of range 1.0..3.0"},
        {"--uart LINK get gamma --channel 99", "--channel out of range 0..2: '99'"},
        {"--uart LINK set gamma-boost 1 --channel -1", "--channel out of range 0..2"},
        {"--uart LINK get brightness --channel 1", "--channel does not apply to brightness"},
        {"--uart LINK set color-alignment 5 --sel2 5", "--sel2 out of range 0..4"},
        {"--uart LINK set color-converter 65536", "value out of range -65536..65535"},
        {"--uart LINK get color-converter --index 9", "--index out of range 0..8"},
        {"--uart LINK set frame-rate 1,x", "expected MODE[,PARAM1,PARAM2]"},
        {"--uart LINK set frame-rate 1,99999999999999999999,0", "param1 out of range 0..4294967295"},
        {"--uart LINK set frame-rate 1,-5,70000", "param1 out of range 0..4294967295: '-5'"},
        {"--uart LINK set frame-rate 1,50,2,7", "expected MODE[,PARAM1,PARAM2]"},
        {"--uart LINK set frame-rate 3", "mode out of range 0..2"},
        {"--uart LINK set output-video 1", "output-video is read only"},
        {"--uart LINK pattern -3", "pattern out of range 0..4"},
        {"--uart LINK pattern 1 4294967296", "P1 out of range 0..4294967295"},
        {"--uart LINK events 0", "count out of range 1..255"},
        {"--uart LINK events 256", "count out of range 1..255"},
        {"--uart LINK monitor --count -1", "--count out of range"},
        {"--uart LINK monitor --seconds inf", "--seconds is not a decimal number"},
        {"--uart LINK --timeout -1 info", "--timeout out of range 0.0..86400.0"},
        {"--uart LINK --timeout 1e999 info", "--timeout out of range"},
        {"--uart LINK info --frob", "unknown option '--frob'"},
        {"--uart LINK stats 1", "not expected: 1"},
        {"list usbb", "list takes uart, usb or bt, not 'usbb' (did you mean 'usb'?)"},
        {"--uart LINK raw 256", "OPCODE out of range 0..255"},
        {"--uart LINK raw 39 1FF", "BYTES must be hexadecimal 00..FF: '1FF'"},
        {"--uart LINK", "subcommand"},
        {"--uart LINK upgrade /dev/zero", "/dev/zero is a character device, not a firmware image file"},
        {"--uart LINK upgrade " + Path("fifo"), "fifo is a FIFO"},
        {"--uart LINK upgrade " + Path("dir"), "dir is a directory"},
        {"--uart LINK upgrade " + Path("empty"), "empty is empty"},
        {"--uart LINK upgrade " + Path("none"), "cannot read"},
    };
    for (const auto& c : cases) {
        Outcome text = Ctl(c.args);
        EXPECT_EQ(text.status, 2) << c.args;
        EXPECT_EQ(text.out, "") << c.args;
        EXPECT_TRUE(vt::Contains(text.err, c.says)) << c.args << ": " << text.err;
        EXPECT_EQ(std::count(text.err.begin(), text.err.end(), '\n'), 1) << text.err;
        Outcome json = Ctl(c.args + " --json");
        EXPECT_EQ(json.status, 2) << c.args;
        const nlohmann::json j = Json(json);
        EXPECT_EQ(j.value("result", ""), "eVYRIX_INVALID_ARGUMENT") << c.args;
        EXPECT_EQ(j.value("code", 0u), 0x05000000u) << c.args;
        const std::string error = j.value("error", "");
        EXPECT_FALSE(error.empty()) << c.args;
        EXPECT_TRUE(vt::Contains(text.err, error)) << c.args << ": " << json.out;
    }
    EXPECT_EQ(PacketsSeen(), 0u);
    EXPECT_EQ(Ctl("list uart").status, 0);
    EXPECT_TRUE(Json(Ctl("list uart --json"))["list"].is_array());
}

TEST_F(Tools, SimulatorRefusesEveryHostileOption) {
    const struct {
        const char* args;
        const char* says;
    } cases[] = {
        {"--bogus", "unknown option '--bogus'"},
        {"--tarce", "did you mean '--trace'?"},
        {"--baud abc", "--baud is not a whole decimal number: 'abc'"},
        {"--baud 0", "--baud out of range 50..4000000"},
        {"--baud 0x1000", "leading zero"},
        {"--split 0", "--split out of range 1..65536"},
        {"--split 4 --split-pause -1", "--split-pause out of range"},
        {"--split-pause 5", "--split-pause goes with --split"},
        {"--notify-every -1", "--notify-every out of range 0.001..86400.0"},
        {"--notify-every nan", "not a decimal number"},
        {"--resend-every -1", "--resend-every out of range 1..1000000000"},
        {"--error-every 0", "--error-every out of range"},
        {"--silent-every 07", "leading zero"},
        {"--hangup-after 99999999999999999999", "--hangup-after out of range"},
        {"--garbage 1099511627776", "--garbage out of range 0..4096"},
        {"--link", "--link"},
        {"--baud \xff", "'\\xFF'"},
    };
    for (const auto& c : cases) {
        Outcome o = Run(VYRIX_SIM, c.args);
        EXPECT_EQ(o.status, 2) << c.args;
        EXPECT_EQ(o.out, "") << c.args;
        EXPECT_TRUE(vt::Contains(o.err, c.says)) << c.args << ": " << o.err;
        EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
    }
    for (const char* program : {VYRIX_SIM, VYRIX_DEMO, VYRIXCTL}) {
        EXPECT_TRUE(vt::Contains(Run(program, "--help").out, "3 the device could not be opened")) << program;
        EXPECT_EQ(Run(program, "--helpp").status, 2) << program;
    }
}

// Why a device cannot be opened, from the library's own sentence: exit 3
// with the cause, whatever the transport's result code.
TEST_F(Tools, OpenFailuresNameTheirCause) {
    StartSim();
    std::ofstream(Path("plain")) << "x";
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    mkdir(Path("dir").c_str(), 0700);
    // A lock file that names a live process, as its holder would leave it.
    const std::string runtime = getenv("VYRIX_RUNTIME_DIR");
    std::string lockName = "vyrix_llc_com_" + link + ".lock";
    std::replace(lockName.begin() + 14, lockName.end(), '/', '_');
    const struct {
        std::string args;
        std::string says;
    } cases[] = {
        {"--uart " + Path("none") + " status", "none: no such device (No such file or directory)"},
        {"--uart " + Path("plain") + " status", "plain is not a serial device (Inappropriate ioctl for device)"},
        {"--uart /dev/zero status", "/dev/zero is not a serial device"},
        {"--uart " + Path("fifo") + " status", "fifo is not a serial device"},
        {"--uart " + Path("dir") + " status", "cannot open " + Path("dir") + " (Is a directory)"},
        {"--uart " + Path(std::string(120, 'x')) + " status", "the device path is too long"},
        {"--uart LINK info", "is in use by process " + std::to_string(simPid)},
    };
    {
        std::ofstream lock(runtime + "/" + lockName);
        lock << std::string(10 - std::to_string(simPid).size(), ' ') << simPid << "\n";
    }
    for (const auto& c : cases) {
        Outcome o = Ctl(c.args + " --json");
        EXPECT_EQ(o.status, 3) << c.args;
        EXPECT_TRUE(vt::Contains(Json(o).value("error", ""), c.says)) << c.args << ": " << o.out;
        EXPECT_TRUE(vt::Contains(o.err, c.says)) << o.err;
    }
    unlink((runtime + "/" + lockName).c_str());
    EXPECT_EQ(Ctl("--uart LINK info").status, 0);
}

// No permission: as root, the program runs as nobody against the
// simulator's terminal, which only root may open; the sentence says so and
// names the group when the group may open it.  Without root there is no one
// to drop to, so the case is skipped.
TEST_F(Tools, PermissionDeniedSaysWhoMayOpen) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run a program as nobody";
    StartSim();
    char pts[256] = {};
    ASSERT_GT(readlink(link.c_str(), pts, sizeof pts - 1), 0);
    // The scratch directory becomes a runtime directory nobody may use.
    ASSERT_EQ(chmod(dir.c_str(), 01777), 0);
    const std::string runtime = getenv("VYRIX_RUNTIME_DIR");
    setenv("VYRIX_RUNTIME_DIR", dir.c_str(), 1);
    struct stat st {};
    ASSERT_EQ(stat(pts, &st), 0);
    const group* g = getgrgid(st.st_gid);
    const bool groupMay = (st.st_mode & (S_IRGRP | S_IWGRP)) == (S_IRGRP | S_IWGRP) && g != nullptr;
    Outcome o = Run(VYRIXCTL, std::string("--uart ") + pts + " info", true);
    setenv("VYRIX_RUNTIME_DIR", runtime.c_str(), 1);
    EXPECT_EQ(o.status, 3) << o.err;
    EXPECT_TRUE(vt::Contains(o.err, std::string("no permission to open ") + pts)) << o.err;
    EXPECT_TRUE(vt::Contains(o.err, groupMay ? "group '" + std::string(g->gr_name) + "'" : "group 'dialout'")) << o.err;
    EXPECT_TRUE(vt::Contains(o.err, "(Permission denied)")) << o.err;
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
    // The plain table keeps its columns apart, whatever the names' lengths.
    Outcome table = Ctl("--uart LINK events 4");
    EXPECT_TRUE(vt::Contains(table.out, "event          code  seq")) << table.out;
    EXPECT_TRUE(vt::Contains(table.out, "upgrade done   6     ")) << table.out;
    EXPECT_TRUE(vt::Contains(Ctl("--uart LINK status").out, "state_name:        running"));
}

// Ctrl-C during an upgrade over a line as slow as the real one: the chunk
// in flight is finished, the bytes sent so far are reported, and the next
// command goes through at once.
TEST_F(Tools, InterruptedUpgradeSaysHowFarItGotAndLeavesTheDeviceReady) {
    StartSim("--baud 57600");
    const std::string image = Path("image.bin");
    std::ofstream(image, std::ios::binary) << std::string(40000, 'x');
    const pid_t pid = Start({VYRIXCTL, "--uart", link, "--json", "upgrade", image}, Path("out"), Path("err"));
    ASSERT_TRUE(vt::Eventually([&] { return PacketsSeen() >= 2; }, std::chrono::seconds(20)));
    kill(pid, SIGINT);
    EXPECT_EQ(Wait(pid), 130);
    const nlohmann::json j = nlohmann::json::parse(vt::ReadFile(Path("out")));
    const long long sent = j.value("bytes_sent", -1LL);
    EXPECT_GE(sent, 8000);
    EXPECT_LT(sent, 40000);
    EXPECT_EQ(sent % 4000, 0);
    EXPECT_EQ(j["result"], "eVYRIX_INCOMPLETE");
    EXPECT_EQ(j["code"], 0x07000000);
    EXPECT_TRUE(vt::Contains(j.value("error", ""),
                             "interrupted by SIGINT after " + std::to_string(sent) + " of 40000 bytes were sent"))
        << j.dump();
    Outcome info = Ctl("--uart LINK info");
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(PacketsSeen(), static_cast<size_t>(sent / 4000 + 1));  // whole chunks, then the info
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
    Outcome silent = Ctl("--uart LINK --timeout 0.3 status");
    EXPECT_EQ(silent.status, 1);
    EXPECT_TRUE(vt::Contains(
        silent.err,
        "status: no answer from the device within 0.3 s (--timeout SECONDS waits longer) (eVYRIX_INCOMPLETE)"))
        << silent.err;
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

// JSON Lines: one object per message, then the report.
TEST_F(Tools, MonitorShowsUnpromptedMessages) {
    Outcome monitor = Ctl("--sim --json monitor --count 2 --seconds 10");
    EXPECT_EQ(monitor.status, 0) << monitor.err;
    std::istringstream lines(monitor.out);
    std::vector<nlohmann::json> objects;
    for (std::string line; std::getline(lines, line);) objects.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(objects.size(), 3u) << monitor.out;
    EXPECT_EQ(objects[0]["message"], 1);
    EXPECT_EQ(objects[1]["message"], 2);
    EXPECT_EQ(objects[2]["messages"], 2);
    EXPECT_EQ(objects[2]["count"], 2);
    EXPECT_EQ(objects[2]["result"], "eVYRIX_SUCCESS");
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
        std::vector<std::string> want = {"down eVYRIX_NOT_CONNECTED"};
        if (reconnect) {
            ASSERT_TRUE(vt::Eventually([&] { return vt::ReadFile(out).find("reconnecting") != std::string::npos; }));
            startSim();
            ASSERT_TRUE(vt::Eventually([&] { return vt::ReadFile(out).find("\"up\"") != std::string::npos; }));
            kill(monitor, SIGTERM);
            want.insert(want.end(), {"reconnecting ", "up "});
        }
        EXPECT_EQ(Wait(monitor), reconnect ? 143 : 1) << vt::ReadFile(Path("monitor.err"));
        // The state lines in order, then the run's report.
        std::vector<std::string> states;
        nlohmann::json last;
        std::istringstream got(vt::ReadFile(out));
        for (std::string line; std::getline(got, line);) {
            last = nlohmann::json::parse(line);
            if (last.value("event", "") == "state")
                states.push_back(last["state"].get<std::string>() + " " + last.value("reason", ""));
        }
        EXPECT_EQ(states, want) << vt::ReadFile(out);
        EXPECT_EQ(last["result"], reconnect ? "eVYRIX_INCOMPLETE" : "eVYRIX_NOT_CONNECTED") << vt::ReadFile(out);
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
