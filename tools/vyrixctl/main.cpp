// SPDX-License-Identifier: MIT
// vyrixctl: the display engine from the command line, through the library's
// public interface.
#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "ExitStatus.h"
#include "Numbers.h"
#include "Output.h"
#include "ResultNames.h"
#include "Session.h"
#include "Settings.h"
#include "Suggest.h"
#include "Upgrade.h"
#include "UsbWatch.h"
#include "Vyrix_LLC_Api_Ex.h"
#include "vyrix_version.h"

using namespace vyrix::tools;

namespace {

constexpr unsigned kMaxListed = 16;
constexpr int kRawReplyRetries = 50;  // about 5 s
constexpr double kDefaultTimeoutS = 10;
constexpr double kMaxTimeoutS = 86400;
constexpr long long kMaxMonitorCount = 1000000000;
constexpr double kMaxMonitorSeconds = 1e7;  // about 115 days: within the clock's range
constexpr long long kMaxU32 = 4294967295LL;
// After an interrupt has closed the connection, how long the command in
// flight has to return before the program ends without it.
constexpr auto kInterruptGrace = std::chrono::milliseconds(100);
// How long an interrupted upgrade may take to finish the chunk in flight
// (4016 bytes take 0.7 s at 57600 baud), so the device is left between two
// chunks, ready for the next command, rather than with half a packet.
constexpr auto kUpgradeStopGrace = std::chrono::seconds(3);
// How often the built-in device sends a message of its own for `monitor`.
constexpr auto kSimulatedMessagePeriod = std::chrono::milliseconds(500);

std::atomic<bool> g_stop{false};
std::mutex g_eventMutex;
std::condition_variable g_event;
int g_pending = 0;
// Link-state changes for `monitor`, oldest first (guarded by g_eventMutex).
std::vector<std::pair<Vyrix_LinkStateE, uint32_t>> g_states;
std::atomic<UsbWatch*> g_usbWatch{nullptr};

// SIGINT and SIGTERM are blocked in every thread and taken by one thread
// that waits for them: it asks the command to stop, gives it its grace
// (none but for an upgrade), then closes the connection, which ends the
// command in flight; the program leaves with 128 + the signal.
std::mutex g_sessionMutex;
std::condition_variable g_done;
Session* g_session = nullptr;              // guarded by g_sessionMutex
bool g_finished = false;                   // guarded by g_sessionMutex
std::chrono::milliseconds g_stopGrace{0};  // guarded by g_sessionMutex
// What is printed when the command in flight does not end in time: the
// run's report as it stood before the command started.
std::unique_ptr<Report> g_lastWords;  // guarded by g_sessionMutex

void WaitForSignals(sigset_t signals) {
    int sig = 0;
    if (sigwait(&signals, &sig) != 0) return;
    NoteInterrupt(sig);
    {
        std::lock_guard<std::mutex> lock(g_eventMutex);
        g_stop = true;
        g_event.notify_all();
    }
    if (UsbWatch* watch = g_usbWatch.load()) watch->Stop();
    std::unique_lock<std::mutex> lock(g_sessionMutex);
    if (g_done.wait_for(lock, g_stopGrace, [] { return g_finished; })) return;
    if (g_session != nullptr) g_session->Close();
    if (!g_done.wait_for(lock, kInterruptGrace, [] { return g_finished; })) {
        // The connection (and its lock) is closed; nothing else to keep.
        if (g_lastWords) g_lastWords->Finish(VYRIX_RESULT(eVYRIX_INCOMPLETE));
        _exit(kExitSignalBase + sig);
    }
}

void Publish(Session* session) {
    std::lock_guard<std::mutex> lock(g_sessionMutex);
    g_session = session;
    if (session == nullptr) {
        g_finished = true;
        g_done.notify_all();
    }
}

Vyrix_ReturnStatus OnDeviceMessage(void*) {
    std::lock_guard<std::mutex> lock(g_eventMutex);
    ++g_pending;
    g_event.notify_one();
    return eVYRIX_RETURN_SUCCESS;
}

void OnLinkState(void*, Vyrix_LinkStateE state, uint32_t reason, void*) {
    std::lock_guard<std::mutex> lock(g_eventMutex);
    g_states.emplace_back(state, reason);
    g_event.notify_one();
}

std::string Hex(const uint8_t* data, size_t n) {
    std::string out;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        snprintf(b, sizeof b, i ? " %02X" : "%02X", data[i]);
        out += b;
    }
    return out;
}

// ---- Options -------------------------------------------------------------

// The options every subcommand takes, before or after it.  New global
// options go here and into AddGlobalOptions.
struct GlobalOptions {
    Transport transport;
    bool json = false;
    bool verbose = false;
    std::string timeout;  // seconds, as typed
    std::string capture;  // a pcap file for the connection's packets
};

void AddGlobalOptions(CLI::App& app, GlobalOptions& g) {
    app.add_option(
        "--uart", g.transport.uart,
        "Serial device path (57600 8N1), or rfc2217://HOST:PORT or tcp://HOST:PORT of a line on another host");
    app.add_option("--usb", g.transport.usb, "USB device serial number");
    app.add_option("--bt", g.transport.bt, "Bluetooth address (00:11:22:33:44:55)");
    app.add_option("--passkey", g.transport.passkey, "Bluetooth pass key");
    app.add_flag("--sim", g.transport.sim, "Start the built-in device simulator and use it");
    app.add_option("--timeout", g.timeout,
                   "Seconds a command waits for the device's reply, 0.001..86400 (default 10; 0: the library's "
                   "default of 750)");
    app.add_flag("--json", g.json,
                 "Print one JSON object (monitor: one per line, JSON Lines), errors included, with the same keys "
                 "on success and failure");
    app.add_flag("--verbose", g.verbose, "Let the library log to standard error (unless VYRIX_LOG is set)");
    app.add_option("--capture", g.capture, "Record the connection's packets into this pcap file (see vyrix.lua)");
}

// The options and arguments of the subcommands, as typed.
struct CommandArgs {
    std::string listWhat;
    std::string name, value;
    ScopeText scope;
    std::string pattern, p1 = "0", p2 = "0";
    std::string count = "10";
    std::string file;
    std::string monitorCount, monitorSeconds;
    std::string opcode;
    std::vector<std::string> rawBytes;
};

// ---- Commands ------------------------------------------------------------

// Serial devices: the tty class entries with a device behind them, with
// the stable names udev keeps for them in /dev/serial/by-id.
std::vector<Row> SerialDevices(const std::string& sysfs, const std::string& byId) {
    std::map<std::string, std::string> stable;  // real path -> by-id name
    if (DIR* d = opendir(byId.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            const std::string link = byId + "/" + e->d_name;
            if (char* real = realpath(link.c_str(), nullptr)) {
                stable[real] = link;
                free(real);
            }
        }
        closedir(d);
    }
    std::vector<Row> rows;
    if (DIR* d = opendir(sysfs.c_str())) {
        std::vector<std::string> names;
        while (dirent* e = readdir(d)) {
            const std::string device = sysfs + "/" + e->d_name + "/device";
            if (e->d_name[0] != '.' && access(device.c_str(), F_OK) == 0) names.push_back(e->d_name);
        }
        closedir(d);
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            const std::string path = "/dev/" + name;
            const auto it = stable.find(path);
            rows.push_back({{"device", path}, {"by-id", it == stable.end() ? "-" : it->second}});
        }
    }
    return rows;
}

int ListDevices(const std::string& what, bool json) {
    Report report("list " + what, json);
    report.Input("transport", what);
    unsigned count = 0;
    std::vector<Row> rows;
    Vyrix_ReturnStatus r = eVYRIX_RETURN_SUCCESS;
    if (what == "uart") {
        rows = SerialDevices("/sys/class/tty", "/dev/serial/by-id");
        count = static_cast<unsigned>(rows.size());
        report.SetEmptyNote("no serial devices found");
    } else if (what == "usb") {
        std::vector<Vyrix_EnumerateUSBInfo> found(kMaxListed);
        r = KtEnumerateUSBDevices(kMaxListed, &count, found.data());
        if (r == VYRIX_RESULT(eVYRIX_NOT_CONNECTED)) r = eVYRIX_RETURN_SUCCESS;  // none attached
        for (unsigned i = 0; i < count && i < kMaxListed; ++i)
            rows.push_back({{"product", std::to_string(found[i].productID)}, {"serial", found[i].serialNumber}});
        report.SetEmptyNote("no USB devices found");
    } else {
        std::vector<Vyrix_BTHDiscoveryInfo> found(kMaxListed);
        r = KtEnumerateBTHDevices(kMaxListed, &count, found.data());
        for (unsigned i = 0; i < count && i < kMaxListed; ++i)
            rows.push_back({{"address", found[i].uniqueID}, {"name", found[i].friendlyName}});
        report.SetEmptyNote("no Bluetooth devices found");
    }
    report.Add("devices", static_cast<long long>(rows.size()));
    report.AddRows("list", rows);
    return report.Finish(r);
}

constexpr const char* kInfoKeys[] = {"device", "firmware", "serial", "hardware", "uptime_s"};
constexpr const char* kStatusKeys[] = {"state", "state_name", "errors", "temperature_c", "laser_hours", "commands"};
constexpr const char* kStatsKeys[] = {"packetsSent", "packetsReceived",  "bytesSent",       "bytesReceived",
                                      "resends",     "packetsDiscarded", "messagesDropped", "linkDowns"};
constexpr const char* kUpgradeKeys[] = {"bytes", "bytes_sent", "crc32", "bytes_per_second"};
constexpr const char* kRawKeys[] = {"reply", "type", "status"};

int Info(void* h, Report& report) {
    Vyrix_SystemInfoS info{};
    Vyrix_ReturnStatus r = Vyrix_GetSystemInfo(h, &info);
    if (r == 0) {
        report.AddText("device", info.infoText);
        char fw[32];
        snprintf(fw, sizeof fw, "%u.%u", info.infoWord1 >> 16, info.infoWord1 & 0xFFFF);
        report.AddText("firmware", fw);
        char serial[16];
        snprintf(serial, sizeof serial, "%08X", info.infoWord2);
        report.AddText("serial", serial);
        report.Add("hardware", static_cast<long long>(info.infoWord3));
        report.Add("uptime_s", static_cast<long long>(info.infoWord4));
    }
    return report.Finish(r);
}

int Status(void* h, Report& report) {
    Vyrix_SystemStatusS s{};
    Vyrix_ReturnStatus r = Vyrix_GetSystemStatus(h, &s);
    if (r == 0) {
        report.Add("state", static_cast<long long>(s.statusWord1));
        report.AddText("state_name", StateName(s.statusWord1));
        report.Add("errors", static_cast<long long>(s.statusWord2));
        char t[32];
        snprintf(t, sizeof t, "%.1f", static_cast<double>(s.statusValue));
        report.Add("temperature_c", t);
        report.Add("laser_hours", static_cast<long long>(s.statusWord3));
        report.Add("commands", static_cast<long long>(s.statusWord4));
    }
    return report.Finish(r);
}

// A connection the tool has just opened has counted nothing, so one command
// that changes nothing (the status read) goes first and the counters show
// a real exchange with the device.
int Stats(void* h, Report& report) {
    Vyrix_SystemStatusS status{};
    Vyrix_ReturnStatus r = Vyrix_GetSystemStatus(h, &status);
    Vyrix_LinkStatisticsS s{};
    if (r == 0) r = Vyrix_GetLinkStatistics(h, &s);
    const std::pair<const char*, uint64_t> counters[] = {
        {"packetsSent", s.packetsSent},
        {"packetsReceived", s.packetsReceived},
        {"bytesSent", s.bytesSent},
        {"bytesReceived", s.bytesReceived},
        {"resends", s.resends},
        {"packetsDiscarded", s.packetsDiscarded},
        {"messagesDropped", s.messagesDropped},
        {"linkDowns", s.linkDowns},
    };
    if (r == 0)
        for (const auto& [name, value] : counters) report.AddCount(name, value);
    return report.Finish(r);
}

int Events(void* h, unsigned count, Report& report) {
    std::vector<Vyrix_EventLogEntryS> entries(count);
    Vyrix_ReturnStatus r = Vyrix_GetEventLog(h, static_cast<uint16_t>(count), entries.data());
    std::vector<Row> rows;
    for (const Vyrix_EventLogEntryS& e : entries) {
        if (r != 0 || e.field2 == 0) continue;  // nothing recorded in this slot
        rows.push_back({{"event", EventName(e.field1)},
                        {"code", std::to_string(e.field1)},
                        {"seq", std::to_string(e.field2)},
                        {"time_s", std::to_string(e.field3)},
                        {"detail", std::to_string(e.field4)},
                        {"opcode", std::to_string(e.field5)},
                        {"extra", std::to_string(e.field6)}});
    }
    report.AddRows("events", rows);
    report.SetEmptyNote("no events recorded");
    return report.Finish(r);
}

int Upgrade(void* h, ImageFile& image, Report& report, bool json) {
    report.Add("bytes", static_cast<long long>(image.Size()));
    ProgressBar bar(!json && Decorated(stderr));
    const UpgradeOutcome out = SendFirmware(
        h, image.Size(), [&](uint8_t* into, size_t n) { return image.Read(into, n); }, g_stop,
        [&](uint64_t done, uint64_t total) { bar.Update(done, total); });
    bar.Finish();
    report.Add("bytes_sent", static_cast<long long>(out.sent));
    char crc[16];
    snprintf(crc, sizeof crc, "%08X", out.crc32);
    report.AddText("crc32", crc);
    char rate[32];
    snprintf(rate, sizeof rate, "%.0f", bar.BytesPerSecond());
    report.Add("bytes_per_second", rate);
    const std::string sent =
        "after " + std::to_string(out.sent) + " of " + std::to_string(image.Size()) + " bytes were sent";
    if (out.stopped || InterruptedBy() != 0) {
        const Vyrix_ReturnStatus r = out.result != 0 ? out.result : VYRIX_RESULT(eVYRIX_INCOMPLETE);
        return report.Finish(r, sent + (out.stopped ? "; the device is between two chunks" : ""));
    }
    if (!out.failure.empty()) return report.Finish(VYRIX_RESULT(eVYRIX_INCOMPLETE), out.failure + ", " + sent);
    if (out.result != 0) return report.Finish(out.result, Explain(out.result, "") + ", " + sent);
    return report.Finish(0);
}

// Unprompted messages and link-state changes as they come: a line each, or
// a JSON object each (JSON Lines), then the report.
class MonitorPrinter {
public:
    explicit MonitorPrinter(bool json) : json_(json) {}
    void Message(int number, uint8_t source, const uint8_t* payload, size_t length) {
        if (json_) {
            PrintJsonLine(Json{{"command", "monitor"},
                               {"event", "message"},
                               {"message", number},
                               {"source", source},
                               {"payload", Hex(payload, length)}});
            return;
        }
        printf("message %d from %d: %s\n", number, source, Hex(payload, length).c_str());
        fflush(stdout);
    }
    // One state change of the link; false when it ends `monitor` (down, and
    // no reconnection asked for).
    bool State(Vyrix_LinkStateE state, uint32_t reason, bool reconnect) {
        static const char* const kNames[] = {"up", "down", "reconnecting"};
        // Changes alternate, so a repeat is the same change seen twice (the
        // state read at the start and its callback).
        if (state == shown_) return true;
        shown_ = state;
        const char* name = state <= eVYRIX_LINK_RECONNECTING ? kNames[state] : "?";
        const bool down = state == eVYRIX_LINK_DOWN;
        if (json_) {
            Json line{{"command", "monitor"}, {"event", "state"}, {"state", name}};
            if (down) {
                line["reason"] = ResultName(reason);
                line["code"] = reason;
            }
            PrintJsonLine(line);
        } else {
            const std::string why = down ? " (" + ResultName(reason) + ")" : "";
            printf("link %s%s\n", name, why.c_str());
            fflush(stdout);
        }
        return !down || reconnect;
    }

private:
    bool json_;
    Vyrix_LinkStateE shown_ = eVYRIX_LINK_UP;
};

int Monitor(Session& session, long long count, double seconds, bool reconnect, Report& report, bool json) {
    MonitorPrinter printer(json);
    KtRegisterCallback(OnDeviceMessage);
    Vyrix_SetLinkStateCallback(session.Handle(), OnLinkState, nullptr);
    // A device gone before the callback was there: its state tells.
    Vyrix_LinkStateE now = eVYRIX_LINK_UP;
    if (Vyrix_GetLinkState(session.Handle(), &now) == eVYRIX_RETURN_SUCCESS && now == eVYRIX_LINK_DOWN) {
        std::lock_guard<std::mutex> lock(g_eventMutex);
        g_states.insert(g_states.begin(), {now, VYRIX_RESULT(eVYRIX_NOT_CONNECTED)});
    }
    if (reconnect) Vyrix_SetReconnect(session.Handle(), 1, 0);
    std::thread notifier;
    if (auto* sim = session.Simulator()) {
        // The built-in device has something to say now and then.
        notifier = std::thread([sim] {
            for (uint32_t n = 1;; ++n) {
                sim->SendUnsolicited(sim->Model().Notification(vyrix::sim::kEventSettingChanged, n));
                std::unique_lock<std::mutex> lock(g_eventMutex);
                if (g_event.wait_for(lock, kSimulatedMessagePeriod, [] { return g_stop.load(); })) return;
            }
        });
    }
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
    long long shown = 0;
    bool wentDown = false;
    std::vector<uint8_t> buf(KT_XLNK_MAX_PAYLOAD);
    while (count <= 0 || shown < count) {
        decltype(g_states) states;
        {
            // Woken by a message, a state change or a signal only; --seconds
            // is the deadline.
            std::unique_lock<std::mutex> lock(g_eventMutex);
            const auto ready = [] { return g_pending > 0 || !g_states.empty() || g_stop; };
            if (seconds <= 0)
                g_event.wait(lock, ready);
            else if (!g_event.wait_until(lock, end, ready))
                break;
            if (g_stop) break;
            states.swap(g_states);
            if (states.empty()) --g_pending;
        }
        if (!states.empty()) {
            for (const auto& [state, reason] : states)
                if (!printer.State(state, reason, reconnect)) wentDown = true;
            if (wentDown) break;
            continue;
        }
        // This connection's own messages, whatever else the process has open.
        uint16_t length = 0;
        uint8_t source = 0;
        if (Vyrix_TakeUnpromptedMessage(session.Handle(), buf.data(), static_cast<uint16_t>(buf.size()), &length,
                                        &source) != eVYRIX_RETURN_SUCCESS)
            continue;
        ++shown;
        printer.Message(static_cast<int>(shown), source, buf.data(), length);
    }
    {
        std::lock_guard<std::mutex> lock(g_eventMutex);
        g_stop = true;
        g_event.notify_all();
    }
    if (notifier.joinable()) notifier.join();
    report.Add("messages", shown);
    if (wentDown) return report.Finish(VYRIX_RESULT(eVYRIX_NOT_CONNECTED), "the device went away");
    return report.Finish(0);
}

// The command payload of `raw`, or why it cannot be made.
std::string RawPayload(const std::string& opcodeText, const std::vector<std::string>& byteTexts,
                       std::vector<uint8_t>& payload) {
    payload = {0x2A, 0x2A, 0x01, 0};
    long long opcode = 0;
    if (std::string why = ParseInteger("OPCODE", opcodeText, 0, 255, opcode); !why.empty()) return why;
    payload[3] = static_cast<uint8_t>(opcode);
    if (byteTexts.size() > KT_XLNK_MAX_PAYLOAD - payload.size())
        return "too many BYTES: at most " + std::to_string(KT_XLNK_MAX_PAYLOAD - payload.size());
    for (const std::string& b : byteTexts) {
        uint64_t byte = 0;
        if (std::string why = ParseHex("BYTES", b, 2, 0xFF, byte); !why.empty()) return why;
        payload.push_back(static_cast<uint8_t>(byte));
    }
    return "";
}

int Raw(const std::vector<uint8_t>& payload, Report& report) {
    std::vector<uint8_t> out = payload;
    KtXlnkMsgS msg{2, 0, 0, 1, static_cast<WORD>(out.size()), out.data()};
    Vyrix_ReturnStatus r = KtSendMsg(msg);
    if (r != 0) return report.Finish(r, "send failed");
    std::vector<uint8_t> reply(KT_XLNK_MAX_PAYLOAD);
    KtXlnkMsgS in{};
    in.pPayload = reply.data();
    r = KtRemoveMsg(&in, kRawReplyRetries);
    if (r == VYRIX_RESULT(eVYRIX_INCOMPLETE)) return report.Finish(r, "no answer from the device within 5 s");
    if (r == 0) {
        report.AddText("reply", Hex(reply.data(), in.payloadLen));
        if (in.payloadLen >= 7) {
            report.Add("type", static_cast<long long>(reply[2] >> 6));
            uint32_t status = reply[3] | (reply[4] << 8) | (reply[5] << 16) | (static_cast<uint32_t>(reply[6]) << 24);
            report.AddText("status", ResultName(status));
        }
    }
    return report.Finish(r);
}

// ---- Usage errors --------------------------------------------------------

std::string OneLine(std::string text) {
    for (char& c : text)
        if (c == '\n') c = ' ';
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

bool WantsJson(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "--json") == 0) return true;
    return false;
}

// What the command line says that the parser's own message does not: an
// unknown subcommand or option, with the nearest known one.  "" when
// nothing is unknown.
std::string Diagnose(CLI::App& app, int argc, char** argv) {
    std::vector<std::string> commands, options;
    std::vector<const CLI::App*> apps = {&app};
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
        commands.push_back(sub->get_name());
        apps.push_back(sub);
    }
    std::map<std::string, bool> takesValue;
    for (const CLI::App* a : apps) {
        for (const CLI::Option* o : a->get_options()) {
            for (const std::string& n : o->get_lnames()) {
                options.push_back("--" + n);
                takesValue["--" + n] = o->get_expected_min() > 0;
            }
        }
    }
    options.push_back("--help");
    bool haveCommand = false, listing = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--", 0) == 0) {
            const std::string name = arg.substr(0, arg.find('='));
            const auto known = takesValue.find(name);
            if (known == takesValue.end() && name != "--help" && name != "--help-all" && name != "--version")
                return "unknown option '" + Printable(name) + "'" + DidYouMean(name, options);
            if (known != takesValue.end() && known->second && arg.find('=') == std::string::npos) ++i;
            continue;
        }
        if (haveCommand) {
            if (listing && arg != "uart" && arg != "usb" && arg != "bt")
                return "list takes uart, usb or bt, not '" + Printable(arg) + "'" +
                       DidYouMean(arg, {"uart", "usb", "bt"});
            listing = false;
            continue;
        }
        if (std::find(commands.begin(), commands.end(), arg) == commands.end())
            return "unknown command '" + Printable(arg) + "'" + DidYouMean(arg, commands);
        haveCommand = true;
        listing = arg == "list";
    }
    return "";
}

int UsageError(const std::string& command, const std::string& message, bool json) {
    return Report(command, json).Refuse(message);
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread starts: every thread inherits the mask, so only the
    // waiting thread ever takes these signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    SetNoAnswerHint(" (--timeout SECONDS waits longer)");
    CLI::App app{"vyrixctl - control a Vyrix laser scanning display engine"};
    app.set_help_all_flag("--help-all", "Show every command's help");
    app.set_version_flag("--version", "vyrixctl " VYRIX_VERSION_STRING);
    app.fallthrough();  // global options also after the subcommand
    app.footer(
        std::string("Global options may stand before or after the subcommand. Numbers are decimal (BYTES of raw: "
                    "hexadecimal); every value is checked against the ranges 'vyrixctl settings' shows before "
                    "anything is opened or sent.\n\n") +
        kExitStatusHelp +
        "\n\nEnvironment: VYRIX_LOG=file|stderr|off sets where the library logs (vyrixctl turns it off "
        "unless --verbose or VYRIX_LOG is given); NO_COLOR turns the progress bar off.");
    GlobalOptions global;
    AddGlobalOptions(app, global);
    app.require_subcommand(1);

    CommandArgs a;
    auto* list = app.add_subcommand("list", "List the devices of a transport (uart, usb or bt)");
    list->add_option("TRANSPORT", a.listWhat, "uart, usb or bt")
        ->required()
        ->check(CLI::IsMember({"uart", "usb", "bt"}));
    bool watchUsb = false;
    list->add_flag("--watch", watchUsb,
                   "usb: then print arrivals and removals as they happen (JSON Lines with --json)");
    auto* info = app.add_subcommand("info", "System information");
    auto* status = app.add_subcommand("status", "System status, with the state's name");
    auto* stats = app.add_subcommand(
        "stats",
        "Read the system status once, then print the link's counters (packets, bytes, resends, ...); they count "
        "from the moment vyrixctl opened the connection, so they show that one exchange");
    auto addScope = [&](CLI::App* cmd) {
        cmd->add_option("--storage", a.scope.storage,
                        "current, saved or factory (or 0, 1, 2); factory is read only (default current)");
        cmd->add_option("--channel", a.scope.channel, "Gamma channel 0..2 (gamma, gamma-boost)");
        cmd->add_option("--sel1", a.scope.sel1, "Colour alignment selector 1, 0..1");
        cmd->add_option("--sel2", a.scope.sel2, "Colour alignment selector 2, 0..4");
        cmd->add_option("--index", a.scope.index, "Colour converter entry 0..8");
    };
    std::string settingNames;
    for (const Setting& s : Settings()) settingNames += std::string(settingNames.empty() ? "" : ", ") + s.name;
    auto* get = app.add_subcommand("get", "Read a setting: " + settingNames);
    get->add_option("NAME", a.name)->required();
    addScope(get);
    auto* set = app.add_subcommand("set", "Write a setting (see 'settings' for the ranges)");
    set->add_option("NAME", a.name)->required();
    set->add_option("VALUE", a.value)->required();
    addScope(set);
    auto* settings = app.add_subcommand("settings", "List the settings with their ranges");
    auto* patternCmd = app.add_subcommand("pattern",
                                          "Draw test pattern N (0..4) with parameters P1 and P2 "
                                          "(0..4294967295, default 0)");
    patternCmd->add_option("N", a.pattern)->required();
    patternCmd->add_option("P1", a.p1);
    patternCmd->add_option("P2", a.p2);
    auto* events = app.add_subcommand("events", "Read the newest COUNT (1..255, default 10) event log entries");
    events->add_option("COUNT", a.count);
    auto* commit = app.add_subcommand("commit", "Save every current setting");
    auto* factory = app.add_subcommand("factory-reset", "Restore the factory settings");
    auto* upgrade = app.add_subcommand(
        "upgrade",
        "Upgrade the firmware from FILE (a regular file of 1 to 4294967295 bytes); Ctrl-C stops after "
        "the chunk in flight and reports the bytes sent");
    upgrade->add_option("FILE", a.file)->required();
    auto* monitor = app.add_subcommand(
        "monitor", "Print the messages the device sends of its own accord (with --json: one object per line)");
    monitor->add_option("--count", a.monitorCount, "Stop after this many messages, 1..1000000000");
    monitor->add_option("--seconds", a.monitorSeconds, "Stop after this long, 0.001..10000000");
    bool monitorReconnect = false;
    monitor->add_flag("--reconnect", monitorReconnect,
                      "When the device goes away, wait for it to come back instead of ending with status 1");
    auto* raw = app.add_subcommand("raw",
                                   "Send OPCODE (0..255) with parameter BYTES (hexadecimal 00..FF) and "
                                   "print the reply");
    raw->add_option("OPCODE", a.opcode)->required();
    raw->add_option("BYTES", a.rawBytes);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
        std::string message = Diagnose(app, argc, argv);
        if (message.empty()) message = OneLine(e.what()) + " (see vyrixctl --help)";
        return UsageError("vyrixctl", message, WantsJson(argc, argv));
    }
    const bool json = global.json;
    // The library logs to its file unless told otherwise; the terminal gets
    // its lines only when asked for.
    setenv("VYRIX_LOG", global.verbose ? "stderr" : "off", 0);

    CLI::App* chosen = app.get_subcommands().front();
    std::string command = chosen->get_name();
    if (*get || *set) command += " " + Printable(a.name);

    // Everything that can be checked without the device, before anything
    // is opened.  A refusal echoes what was typed.
    const auto UsageError = [&](const std::string& cmd, const std::string& why, bool asJson) {
        Report report(cmd, asJson);
        if (*get || *set) report.Input("name", a.name);
        if (*set) report.Input("value", a.value);
        return report.Refuse(why);
    };
    if (*settings) {
        Report report("settings", json);
        std::vector<Row> rows;
        for (const Setting& s : Settings())
            rows.push_back({{"name", s.name}, {"range", s.help}, {"access", s.set ? "read-write" : "read-only"}});
        report.AddRows("settings", rows);
        return report.Finish(0);
    }
    if (*list && watchUsb) {
        if (a.listWhat != "usb") return UsageError(command, "--watch is for usb", json);
        UsbWatch watch(json);
        g_usbWatch = &watch;
        std::thread(WaitForSignals, signals).detach();
        const int status = watch.Run();
        g_usbWatch = nullptr;
        Publish(nullptr);
        return InterruptedBy() != 0 ? kExitSignalBase + InterruptedBy() : status;
    }
    if (*list) return ListDevices(a.listWhat, json);
    if (std::string why = CheckTransport(global.transport); !why.empty()) return UsageError(command, why, json);
    double timeoutS = kDefaultTimeoutS;
    if (!global.timeout.empty()) {
        if (std::string why = ParseReal("--timeout", global.timeout, 0, kMaxTimeoutS, timeoutS); !why.empty())
            return UsageError(command, why, json);
        if (timeoutS > 0 && timeoutS < 0.001)
            return UsageError(command, "--timeout below one millisecond: '" + global.timeout + "'", json);
    }
    SettingContext ctx;
    const Setting* setting = nullptr;
    Values values;
    if (*get || *set) {
        setting = FindSetting(a.name);
        if (setting == nullptr)
            return UsageError(command,
                              "unknown setting '" + Printable(a.name) + "'" + DidYouMean(a.name, SettingNames()) +
                                  "; 'vyrixctl settings' lists them",
                              json);
        if (*set && !setting->set) return UsageError(command, std::string(setting->name) + " is read only", json);
        if (std::string why = ParseScope(*setting, a.scope, set->parsed(), ctx); !why.empty())
            return UsageError(command, why, json);
        if (*set)
            if (std::string why = ParseValue(*setting, a.value, values); !why.empty())
                return UsageError(command, why, json);
    }
    long long pattern = 0, p1 = 0, p2 = 0, count = 0, monitorCount = 0;
    double monitorSeconds = 0;
    if (*patternCmd) {
        for (const std::string& why :
             {ParseInteger("pattern", a.pattern, 0, 4, pattern), ParseInteger("P1", a.p1, 0, kMaxU32, p1),
              ParseInteger("P2", a.p2, 0, kMaxU32, p2)})
            if (!why.empty()) return UsageError(command, why, json);
    }
    if (*events)
        if (std::string why = ParseInteger("count", a.count, 1, 255, count); !why.empty())
            return UsageError(command, why, json);
    if (*monitor) {
        if (!a.monitorCount.empty())
            if (std::string why = ParseInteger("--count", a.monitorCount, 1, kMaxMonitorCount, monitorCount);
                !why.empty())
                return UsageError(command, why, json);
        if (!a.monitorSeconds.empty()) {
            if (std::string why = ParseReal("--seconds", a.monitorSeconds, 0.001, kMaxMonitorSeconds, monitorSeconds);
                !why.empty())
                return UsageError(command, why, json);
        }
    }
    std::vector<uint8_t> rawPayload;
    if (*raw)
        if (std::string why = RawPayload(a.opcode, a.rawBytes, rawPayload); !why.empty())
            return UsageError(command, why, json);
    ImageFile image;
    if (*upgrade)
        if (std::string why = image.Open(a.file); !why.empty()) {
            Report report(command, json);
            report.Input("file", a.file);
            return report.Refuse(why);
        }

    // The report of the run, with every input echoed and every output
    // declared, so that success and failure objects have the same keys.
    Report report(command, json);
    const auto declare = [&](const auto& keys) {
        for (const char* key : keys) report.Declare(key);
    };
    if (*info) declare(kInfoKeys);
    if (*status) declare(kStatusKeys);
    if (*stats) declare(kStatsKeys);
    if (*get || *set) {
        report.Input("name", setting->name, true);
        report.Input("storage", ctx.storage);
        report.Input("storage_name", StorageName(ctx.storage));
        if (setting->scope & kScopeChannel) report.Input("channel", ctx.channel);
        if (setting->scope & kScopeSelectors) {
            report.Input("sel1", ctx.selector1);
            report.Input("sel2", ctx.selector2);
        }
        if (setting->scope & kScopeIndex) report.Input("index", ctx.index);
        if (*get) report.Declare("value");
        if (*set) {
            const bool one = values.numbers.size() == 1;
            report.Input("value",
                         !one                      ? Json(a.value)
                         : setting->fields[0].real ? Json(values.numbers[0])
                                                   : Json(values.Whole(0)),
                         true);
        }
    }
    if (*patternCmd) {
        report.Input("pattern", pattern, true);
        report.Input("p1", p1);
        report.Input("p2", p2);
    }
    if (*events) {
        report.Input("count", count);
        report.AddRows("events", {});
    }
    if (*upgrade) {
        report.Input("file", a.file);
        declare(kUpgradeKeys);
    }
    if (*monitor) {
        report.Input("count", monitorCount > 0 ? Json(monitorCount) : Json(nullptr));
        report.Input("seconds", monitorSeconds > 0 ? Json(monitorSeconds) : Json(nullptr));
        report.Declare("messages");
    }
    if (*raw) {
        report.Input("opcode", rawPayload[3]);
        report.Input("bytes", Hex(rawPayload.data() + 4, rawPayload.size() - 4));
        declare(kRawKeys);
    }

    {
        std::lock_guard<std::mutex> lock(g_sessionMutex);
        g_lastWords = std::make_unique<Report>(report);
    }
    std::thread(WaitForSignals, signals).detach();
    Session session(global.transport, static_cast<unsigned>(timeoutS * 1000));
    Publish(&session);
    int exitStatus = kExitFailed;
    if (session.Result() != eVYRIX_RETURN_SUCCESS) {
        exitStatus = report.NoDevice(session.Result(), session.Failure());
    } else if (Vyrix_ReturnStatus c = global.capture.empty()
                                          ? eVYRIX_RETURN_SUCCESS
                                          : Vyrix_StartCapture(session.Handle(), global.capture.c_str());
               c != 0) {
        exitStatus = report.Finish(c, "cannot create the capture file " + Printable(global.capture));
    } else if (InterruptedBy() == 0) {
        ctx.handle = session.Handle();
        void* h = session.Handle();
        if (*info) {
            exitStatus = Info(h, report);
        } else if (*status) {
            exitStatus = Status(h, report);
        } else if (*stats) {
            exitStatus = Stats(h, report);
        } else if (*get) {
            std::string text;
            Vyrix_ReturnStatus r = setting->get(ctx, text);
            if (r == 0) report.Add("value", text);
            exitStatus = report.Finish(r);
        } else if (*set) {
            exitStatus = report.Finish(setting->set(ctx, values));
        } else if (*patternCmd) {
            exitStatus = report.Finish(Vyrix_DrawTestPattern(h, static_cast<int32_t>(pattern),
                                                             static_cast<uint32_t>(p1), static_cast<uint32_t>(p2)));
        } else if (*events) {
            exitStatus = Events(h, static_cast<unsigned>(count), report);
        } else if (*commit) {
            exitStatus = report.Finish(Vyrix_CommitAll(h));
        } else if (*factory) {
            exitStatus = report.Finish(Vyrix_RestoreFactorySettings(h));
        } else if (*upgrade) {
            {
                std::lock_guard<std::mutex> lock(g_sessionMutex);
                g_stopGrace = kUpgradeStopGrace;
            }
            exitStatus = Upgrade(h, image, report, json);
        } else if (*monitor) {
            exitStatus = Monitor(session, monitorCount, monitorSeconds, monitorReconnect, report, json);
        } else if (*raw) {
            exitStatus = Raw(rawPayload, report);
        }
    }
    session.Close();
    Publish(nullptr);
    if (const int sig = InterruptedBy()) {
        report.Finish(VYRIX_RESULT(eVYRIX_INCOMPLETE));  // when nothing reported it yet
        return kExitSignalBase + sig;
    }
    return exitStatus;
}
