// SPDX-License-Identifier: MIT
// Capturing a link into a pcap file, read back by tshark through the
// project's dissector and compared record by record with what the device
// received and what it sent.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>

#include "ApiLink.h"
#include "Vyrix_Opcodes.h"

namespace vt {
namespace {

using vyrix::sim::DeviceSimulator;
using vyrix::sim::EncodeDevicePacket;
using vyrix::sim::ReplyPayload;

const std::vector<std::string> kFields = {
    "vyrix.link",        "vyrix.direction",  "vyrix.discarded",   "vyrix.resent", "vyrix.dst",
    "vyrix.checksum_ok", "vyrix.seq",        "vyrix.opcode",      "vyrix.status", "vyrix.resend_request",
    "vyrix.chunk.index", "vyrix.request_in", "vyrix.response_in", "vyrix.bytes"};

std::string Hex(const Bytes& bytes) {
    std::string text;
    char two[3];
    for (uint8_t b : bytes) {
        snprintf(two, sizeof two, "%02x", b);
        text += two;
    }
    return text;
}

// Long byte strings (upgrade chunks) as their start, length and a hash, so
// that a difference reads in a line.
std::string Abbreviated(const std::string& hex) {
    constexpr size_t kShown = 32;
    if (hex.size() <= 2 * kShown) return hex;
    uint32_t hash = 2166136261u;  // FNV-1a
    for (char c : hex) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
    return hex.substr(0, kShown) + "...(" + std::to_string(hex.size() / 2) + " bytes, " + std::to_string(hash) + ")";
}

// One record as tshark prints the fields above ("" for a field not there).
struct Row {
    std::string link = "1", direction, discarded = "0", resent, dst, checksumOk, seq, opcode, status, resendRequest,
                chunk, requestIn, responseIn, bytes;
    std::string Text() const {
        std::string line;
        for (const std::string* f : {&link, &direction, &discarded, &resent, &dst, &checksumOk, &seq, &opcode, &status,
                                     &resendRequest, &chunk, &requestIn, &responseIn, &bytes})
            line += (line.empty() && f == &link ? "" : "|") + *f;
        return line;
    }
};

// tshark is an optional tool on a developer's machine; scripts/deps.sh
// installs it and CI has it.
bool HaveTshark() { return access(VYRIX_TSHARK, X_OK) == 0; }

// The records of a capture file through the project's dissector, two
// passes so that a command knows its response.  The configuration
// directory is this program's own: no personal preferences or plugins.
std::vector<std::string> ReadBack(const std::string& file) {
    const std::string dir = RuntimeDir();
    std::string command = "HOME='" + dir + "' WIRESHARK_CONFIG_DIR='" + dir +
                          "' '" VYRIX_TSHARK "' -2 -n -X lua_script:'" + VYRIX_DISSECTOR + "' -r '" + file +
                          "' -T fields -E separator='|'";
    for (const std::string& field : kFields) command += " -e " + field;
    command += " 2>'" + dir + "/tshark.err'";
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    std::vector<std::string> rows;
    if (pipe == nullptr) return rows;
    char line[16384];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string row(line);
        while (!row.empty() && (row.back() == '\n' || row.back() == '\r')) row.pop_back();
        const size_t bytes = row.rfind('|') + 1;  // the last field
        rows.push_back(row.substr(0, bytes) + Abbreviated(row.substr(bytes)));
    }
    EXPECT_EQ(pclose(pipe), 0) << ReadFile(dir + "/tshark.err");
    return rows;
}

class Capture : public ApiLink {
protected:
    void SetUp() override {
        if (!HaveTshark()) GTEST_SKIP() << "tshark is not installed (scripts/deps.sh installs it)";
        ApiLink::SetUp();
    }
    std::string File(const char* name) { return RuntimeDir() + "/" + name; }
};

// What one step of the exchange does to the line.
struct Step {
    const char* what;
    std::function<Vyrix_ReturnStatus(void*)> call;
    bool resendRequested = false;  // the device first asks for the packet again
    Bytes noise = {};              // bytes before the reply
    bool damaged = false;          // a damaged copy comes before the reply
    int chunk = -1;                // upgrade chunk index
};

TEST_F(Capture, EveryPacketAndEveryDiscardedByteReadsBackAsSentAndReceived) {
    const Bytes kValues = {60};
    const Bytes kNoise = {0x55, 0x55, 0x55};
    sim->SetResponder(Answering(kValues));
    std::string why;
    sim->SetCapture(vyrix::sim::SimCapture::Create(File("device.pcap"), &why));
    ASSERT_EQ(Vyrix_StartCapture(connection, File("host.pcap").c_str()), 0u);

    std::vector<uint8_t> chunk(kUpgradeChunkBytes, 0xA5);
    auto upgrade = [&chunk](uint32_t index) {
        return [&chunk, index](void* h) { return Vyrix_UpgradeSoftware(h, index, 4000, 10000, chunk.data()); };
    };
    uint8_t brightness = 0;
    const std::vector<Step> steps = {
        {"set", [](void* h) { return Vyrix_SetBrightness(h, 60, eVYRIX_STORAGE_CURRENT); }},
        {"get", [&](void* h) { return Vyrix_GetBrightness(h, &brightness, eVYRIX_STORAGE_CURRENT); }},
        {"chunk 0", upgrade(0), false, {}, false, 0},
        {"chunk 1", upgrade(1), false, {}, false, 1},
        {"chunk 2", upgrade(2), false, {}, false, 2},
        {"false start", [](void* h) { return Vyrix_CommitAll(h); }, false, {0xC0}},
        {"resend", [&](void* h) { return Vyrix_GetBrightness(h, &brightness, eVYRIX_STORAGE_SAVED); }, true},
        {"damaged", [](void* h) { return Vyrix_SetGamma(h, 1, 2.5f, eVYRIX_STORAGE_CURRENT); }, false, kNoise, true},
    };
    for (const Step& step : steps) {
        Faults faults;
        faults.resendRequests = step.resendRequested ? 1 : 0;
        faults.damageEvery = step.damaged ? 1 : 0;
        faults.garbage = step.noise;
        sim->SetFaults(faults);
        ASSERT_EQ(step.call(connection), 0u) << step.what;
    }
    EXPECT_EQ(brightness, 60);
    ASSERT_EQ(Vyrix_StopCapture(connection), 0u);
    sim->SetCapture(nullptr);

    // The records the line must show, in order, from what the device got.
    const std::vector<vyrix::sim::HostPacket> got = sim->Received();
    std::vector<Row> want;
    size_t next = 0;
    auto sent = [&](const Step& step, bool resent) {
        const vyrix::sim::HostPacket& p = got.at(next++);
        Row r;
        r.direction = "0";
        r.resent = resent ? "1" : "";
        r.dst = std::to_string(p.destination);
        r.checksumOk = "1";
        r.seq = std::to_string(p.payload[2] & 0x3F);
        r.opcode = std::to_string(p.payload[3]);
        r.chunk = step.chunk >= 0 ? std::to_string(step.chunk) : "";
        r.bytes = Abbreviated(Hex(p.raw));
        want.push_back(r);
        return want.size();  // its frame number
    };
    auto received = [&](Bytes bytes, size_t requestFrame, const std::string& dst) {
        Row r;
        r.direction = "1";
        r.dst = dst;
        r.checksumOk = "1";
        r.requestIn = std::to_string(requestFrame);
        r.bytes = Abbreviated(Hex(bytes));
        want.push_back(r);
        if (want[requestFrame - 1].responseIn.empty()) want[requestFrame - 1].responseIn = std::to_string(want.size());
        return &want.back();
    };
    for (const Step& step : steps) {
        size_t command = sent(step, false);
        const std::string seq = want.back().seq;
        if (step.resendRequested) {
            received(EncodeDevicePacket(63, 0, 1, {0x2A, 0x2A, 0}), command, "63")->resendRequest = "1";
            command = sent(step, true);
        }
        Bytes reply = EncodeDevicePacket(2, 0, 1, ReplyPayload(1, static_cast<uint8_t>(std::stoi(seq)), 0, kValues));
        if (!step.noise.empty()) {
            Row noise;
            noise.direction = "1";
            noise.discarded = "1";
            noise.bytes = Hex(step.noise);
            want.push_back(noise);
        }
        if (step.damaged) {
            Bytes damaged = reply;
            damaged.back() = DeviceSimulator::DamagedChecksum(damaged.back());
            Row broken;
            broken.direction = "1";
            broken.discarded = "1";
            broken.dst = "2";
            broken.checksumOk = "0";
            broken.bytes = Hex(damaged);
            want.push_back(broken);
        }
        Row* r = received(reply, command, "2");
        r->seq = seq;
        r->status = "0x00000000";
    }
    ASSERT_EQ(next, got.size()) << "the device received packets that no step accounts for";

    std::vector<std::string> host, device;
    for (const Row& r : want) host.push_back(r.Text());
    // The device's side: the same records; it cannot know which packet was a
    // resend.
    for (Row r : want) {
        r.resent.clear();
        device.push_back(r.Text());
    }
    EXPECT_EQ(ReadBack(File("host.pcap")), host);
    EXPECT_EQ(ReadBack(File("device.pcap")), device);
}

// Links of one process share the VYRIX_CAPTURE file, read when the process
// opens its first port (each test runs in a process of its own); the link
// number tells them apart.
class ProcessCapture : public Capture {
protected:
    void SetUp() override {
        setenv("VYRIX_CAPTURE", File("process.pcap").c_str(), 1);
        Capture::SetUp();
    }
};

TEST_F(ProcessCapture, OneFileTellsTheLinksApart) {
    auto second = DeviceSimulator::OverPty();
    void* other = nullptr;
    unlink(SerialLockName(second->SlavePath()).c_str());  // the terminal is new (see ApiLink)
    ASSERT_EQ(Vyrix_OpenConnection(library, &other, UartRecord(second->SlavePath().c_str())), 0u);
    uint8_t brightness = 0;
    for (void* c : {other, connection}) ASSERT_EQ(Vyrix_GetBrightness(c, &brightness, eVYRIX_STORAGE_CURRENT), 0u);
    ASSERT_EQ(Vyrix_CloseConnection(other), 0u);
    unlink(SerialLockName(second->SlavePath()).c_str());

    std::vector<std::string> records;  // link and direction of each
    for (const std::string& row : ReadBack(File("process.pcap"))) records.push_back(row.substr(0, 3));
    EXPECT_EQ(records, (std::vector<std::string>{"2|0", "2|1", "1|0", "1|1"}));
}

// A forked child leaves the parent's capture alone whichever way it exits:
// it cannot stop it, adds nothing to the file, and leaves nothing of the
// parent's in it twice.
TEST_F(Capture, ForkedChildLeavesTheCaptureAlone) {
    VT_SKIP_THREADED_FORK_UNDER_SANITIZERS();
    ASSERT_EQ(Vyrix_StartCapture(connection, File("fork.pcap").c_str()), 0u);
    uint8_t brightness = 0;
    ASSERT_EQ(Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT), 0u);
    for (const bool normalExit : {true, false}) {
        const pid_t pid = fork();
        if (pid == 0) {
            int code = 0;
            if (Vyrix_StopCapture(connection) == VYRIX_RESULT(eVYRIX_NOT_CONNECTED)) code += 1;
            if (Vyrix_StartCapture(connection, File("child.pcap").c_str()) == VYRIX_RESULT(eVYRIX_NOT_CONNECTED))
                code += 2;
            if (Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT) ==
                VYRIX_RESULT(eVYRIX_NOT_CONNECTED))
                code += 4;
            if (normalExit) exit(code);
            _exit(code);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(WEXITSTATUS(status), 7) << (normalExit ? "exit" : "_exit");
        ASSERT_EQ(Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT), 0u);
    }
    ASSERT_EQ(Vyrix_StopCapture(connection), 0u);
    std::vector<std::string> directions;
    for (const std::string& row : ReadBack(File("fork.pcap"))) directions.push_back(row.substr(2, 1));
    EXPECT_EQ(directions, (std::vector<std::string>{"0", "1", "0", "1", "0", "1"}));
    EXPECT_FALSE(FileExists(File("child.pcap")));
}

TEST_F(Capture, RefusalsSayWhyAndLeaveTheLinkAlone) {
    const std::string missing = File("no-such-dir/x.pcap");
    const std::string good = File("ok.pcap");
    int dead = 0;
    struct Case {
        const char* what;
        void* handle;
        const char* path;
        Vyrix_ReturnStatus result;
    } cases[] = {
        {"directory missing", connection, missing.c_str(), VYRIX_RESULT(eVYRIX_FAILURE)},
        {"no path", connection, nullptr, VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT)},
        {"empty path", connection, "", VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT)},
        {"not a connection", &dead, good.c_str(), VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT)},
        {"first", connection, good.c_str(), eVYRIX_RETURN_SUCCESS},
        {"second while the first runs", connection, good.c_str(), VYRIX_RESULT(eVYRIX_ALREADY_OPENED)},
    };
    for (const Case& c : cases) EXPECT_EQ(Vyrix_StartCapture(c.handle, c.path), c.result) << c.what;
    EXPECT_TRUE(Contains(Log(), "Cannot create the capture file " + missing + ": No such file or directory"));
    EXPECT_FALSE(FileExists(missing));
    uint8_t brightness = 0;
    EXPECT_EQ(Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(Vyrix_StopCapture(&dead), VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT));
    EXPECT_EQ(Vyrix_StopCapture(connection), 0u);
    EXPECT_EQ(Vyrix_StopCapture(connection), 0u);  // nothing left to stop
    EXPECT_EQ(ReadBack(good).size(), 2u);
}

}  // namespace
}  // namespace vt
