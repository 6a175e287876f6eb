// vyrixctl: the display engine from the command line, through the library's
// public interface.
#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <zlib.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "Output.h"
#include "ResultNames.h"
#include "Session.h"
#include "Settings.h"
#include "Upgrade.h"
#include "Vyrix_LLC_Api_Ex.h"
#include "vyrix_version.h"

using namespace vyrix::tools;

namespace {

constexpr unsigned kMaxListed = 16;
constexpr int kRawReplyRetries = 50;  // about 5 s
constexpr double kDefaultTimeoutS = 10;
constexpr double kMaxTimeoutS = 86400;
// After an interrupt has closed the connection, how long the command in
// flight has to return before the program ends without it.
constexpr auto kInterruptGrace = std::chrono::milliseconds(100);
// How often the built-in device sends a message of its own for `monitor`.
constexpr auto kSimulatedMessagePeriod = std::chrono::milliseconds(500);

std::atomic<bool> g_stop{false};
std::mutex g_eventMutex;
std::condition_variable g_event;
int g_pending = 0;

// SIGINT and SIGTERM are blocked in every thread and taken by one thread
// that waits for them: it closes the connection, which ends the command in
// flight, and the program leaves with 128 + the signal.
std::atomic<int> g_signal{0};
std::mutex g_sessionMutex;
std::condition_variable g_done;
Session* g_session = nullptr;  // guarded by g_sessionMutex
bool g_finished = false;       // guarded by g_sessionMutex

void WaitForSignals(sigset_t signals) {
    int sig = 0;
    if (sigwait(&signals, &sig) != 0) return;
    g_signal = sig;
    {
        std::lock_guard<std::mutex> lock(g_eventMutex);
        g_stop = true;
        g_event.notify_all();
    }
    std::unique_lock<std::mutex> lock(g_sessionMutex);
    if (g_session != nullptr) g_session->Close();
    if (!g_done.wait_for(lock, kInterruptGrace, [] { return g_finished; })) {
        // The connection (and its lock) is closed; nothing else to keep.
        fprintf(stderr, "vyrixctl: interrupted\n");
        _exit(128 + sig);
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

std::string Hex(const uint8_t* data, size_t n) {
    std::string out;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        snprintf(b, sizeof b, i ? " %02X" : "%02X", data[i]);
        out += b;
    }
    return out;
}

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

int Info(void* h, bool json) {
    Report report("info", json);
    Vyrix_SystemInfoS info{};
    Vyrix_ReturnStatus r = Vyrix_GetSystemInfo(h, &info);
    if (r == 0) {
        report.Add("device", info.infoText);
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

int Status(void* h, bool json) {
    Report report("status", json);
    Vyrix_SystemStatusS s{};
    Vyrix_ReturnStatus r = Vyrix_GetSystemStatus(h, &s);
    if (r == 0) {
        report.Add("state", static_cast<long long>(s.statusWord1));
        report.Add("errors", static_cast<long long>(s.statusWord2));
        char t[16];
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
int Stats(void* h, bool json) {
    Report report("stats", json);
    Vyrix_SystemStatusS status{};
    Vyrix_ReturnStatus r = Vyrix_GetSystemStatus(h, &status);
    Vyrix_LinkStatisticsS s{};
    if (r == 0) r = Vyrix_GetLinkStatistics(h, &s);
    if (r == 0) {
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
        for (const auto& [name, value] : counters) report.AddCount(name, value);
    }
    return report.Finish(r);
}

int Events(void* h, unsigned count, bool json) {
    Report report("events", json);
    std::vector<Vyrix_EventLogEntryS> entries(count);
    Vyrix_ReturnStatus r = Vyrix_GetEventLog(h, static_cast<uint16_t>(count), entries.data());
    std::vector<Row> rows;
    for (const Vyrix_EventLogEntryS& e : entries) {
        if (e.field2 == 0) continue;  // nothing recorded in this slot
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

int Upgrade(void* h, const std::vector<uint8_t>& image, bool json) {
    Report report("upgrade", json);
    ProgressBar bar(!json && Decorated(stderr));
    Vyrix_ReturnStatus r = SendFirmware(h, image, [&](size_t done, size_t total) { bar.Update(done, total); });
    bar.Finish();
    report.Add("bytes", static_cast<long long>(image.size()));
    char crc[16];
    snprintf(crc, sizeof crc, "%08lX", crc32(0, image.data(), static_cast<uInt>(image.size())));
    report.AddText("crc32", crc);
    char rate[32];
    snprintf(rate, sizeof rate, "%.0f", bar.BytesPerSecond());
    if (!json) report.Add("bytes_per_second", rate);
    return report.Finish(r);
}

int Monitor(Session& session, int count, double seconds, bool json) {
    KtRegisterCallback(OnDeviceMessage);
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
    // Capped so the deadline stays within the clock's range (about 115 days).
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::milliseconds>(
                                                            std::chrono::duration<double>(std::min(seconds, 1e7)));
    int shown = 0;
    std::vector<uint8_t> buf(KT_XLNK_MAX_PAYLOAD);
    while (count <= 0 || shown < count) {
        {
            // Woken by a message or a signal only; --seconds is the deadline.
            std::unique_lock<std::mutex> lock(g_eventMutex);
            const auto ready = [] { return g_pending > 0 || g_stop; };
            if (seconds <= 0)
                g_event.wait(lock, ready);
            else if (!g_event.wait_until(lock, end, ready))
                break;
            if (g_stop) break;
            --g_pending;
        }
        // This connection's own messages, whatever else the process has open.
        uint16_t length = 0;
        uint8_t source = 0;
        if (Vyrix_TakeUnpromptedMessage(session.Handle(), buf.data(), static_cast<uint16_t>(buf.size()), &length,
                                        &source) != eVYRIX_RETURN_SUCCESS)
            continue;
        ++shown;
        if (json)
            printf("%s\n",
                   nlohmann::ordered_json{{"message", shown}, {"source", source}, {"payload", Hex(buf.data(), length)}}
                       .dump()
                       .c_str());
        else
            printf("message %d from %d: %s\n", shown, source, Hex(buf.data(), length).c_str());
        fflush(stdout);
    }
    {
        std::lock_guard<std::mutex> lock(g_eventMutex);
        g_stop = true;
        g_event.notify_all();
    }
    if (notifier.joinable()) notifier.join();
    return 0;
}

// One byte from text in `base`; false for anything else.
bool ParseByte(const std::string& text, int base, uint8_t& byte) {
    char* end = nullptr;
    errno = 0;
    const unsigned long v = strtoul(text.c_str(), &end, base);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || v > 0xFF) return false;
    byte = static_cast<uint8_t>(v);
    return true;
}

// The command payload of `raw`, or why it cannot be made.
std::string RawPayload(const std::string& opcodeText, const std::vector<std::string>& byteTexts,
                       std::vector<uint8_t>& payload) {
    payload = {0x2A, 0x2A, 0x01, 0};
    if (!ParseByte(opcodeText, 0, payload[3])) return "OPCODE out of range 0..255: " + opcodeText;
    for (const std::string& b : byteTexts) {
        payload.push_back(0);
        if (!ParseByte(b, 16, payload.back())) return "BYTES are hexadecimal 00..FF: " + b;
    }
    if (payload.size() > KT_XLNK_MAX_PAYLOAD) return "too many BYTES";
    return "";
}

int Raw(std::vector<uint8_t> payload, bool json) {
    Report report("raw", json);
    KtXlnkMsgS out{2, 0, 0, 1, static_cast<WORD>(payload.size()), payload.data()};
    Vyrix_ReturnStatus r = KtSendMsg(out);
    if (r != 0) return report.Finish(r, "send failed");
    std::vector<uint8_t> reply(KT_XLNK_MAX_PAYLOAD);
    KtXlnkMsgS in{};
    in.pPayload = reply.data();
    r = KtRemoveMsg(&in, kRawReplyRetries);
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

// A usage error: one line on stderr (and the JSON object with --json).
int UsageError(const std::string& command, const std::string& message, bool json) {
    return Report(command, json).Refuse(message, VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT));
}

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

}  // namespace

int main(int argc, char** argv) {
    // Before any thread starts: every thread inherits the mask, so only the
    // waiting thread ever takes these signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    CLI::App app{"vyrixctl - control a Vyrix laser scanning display engine"};
    app.set_help_all_flag("--help-all", "Show every command's help");
    app.set_version_flag("--version", "vyrixctl " VYRIX_VERSION_STRING);
    app.fallthrough();  // global options also after the subcommand
    app.footer(
        "Global options may stand before or after the subcommand. Values are checked against the ranges "
        "'vyrixctl settings' shows before anything is sent.\n\n"
        "Exit status: 0 success, 1 a failed command, 2 a usage error, 130 or 143 ended by SIGINT or SIGTERM.\n\n"
        "Environment: VYRIX_LOG=file|stderr|off sets where the library logs (vyrixctl turns it off unless "
        "--verbose or VYRIX_LOG is given); NO_COLOR turns the progress bar off.");
    Transport transport;
    bool json = false, verbose = false;
    double timeoutS = kDefaultTimeoutS;
    SettingContext ctx;
    app.add_option(
        "--uart", transport.uart,
        "Serial device path (57600 8N1), or rfc2217://HOST:PORT or tcp://HOST:PORT of a line on another host");
    app.add_option("--usb", transport.usb, "USB device serial number");
    app.add_option("--bt", transport.bt, "Bluetooth address (00:11:22:33:44:55)");
    app.add_option("--passkey", transport.passkey, "Bluetooth pass key");
    app.add_flag("--sim", transport.sim, "Start the built-in device simulator and use it");
    app.add_option("--timeout", timeoutS, "Seconds a command waits for the device's reply (default 10)");
    app.add_flag("--json", json, "Print machine-readable JSON, errors included");
    app.add_flag("--verbose", verbose, "Let the library log to standard error (unless VYRIX_LOG is set)");
    std::string capture;
    app.add_option("--capture", capture, "Record the connection's packets into this pcap file (see vyrix.lua)");
    app.require_subcommand(1);

    std::string what;
    auto* list = app.add_subcommand("list", "List the devices of a transport (uart, usb or bt)");
    list->add_option("TRANSPORT", what, "uart, usb or bt")->required()->check(CLI::IsMember({"uart", "usb", "bt"}));
    auto* info = app.add_subcommand("info", "System information");
    auto* status = app.add_subcommand("status", "System status");
    auto* stats = app.add_subcommand(
        "stats",
        "Read the system status once, then print the link's counters (packets, bytes, resends, ...); they count "
        "from the moment vyrixctl opened the connection, so they show that one exchange");
    std::string name, value;
    auto addScope = [&](CLI::App* cmd) {
        cmd->add_option("--storage", ctx.storage, "0 current, 1 saved, 2 factory (read only)");
        cmd->add_option("--channel", ctx.channel, "Gamma channel");
        cmd->add_option("--sel1", ctx.selector1, "Colour alignment selector 1 (0..1)");
        cmd->add_option("--sel2", ctx.selector2, "Colour alignment selector 2 (0..4)");
        cmd->add_option("--index", ctx.index, "Colour converter entry (0..8)");
    };
    std::string settingNames;
    for (const Setting& s : Settings()) settingNames += std::string(settingNames.empty() ? "" : ", ") + s.name;
    auto* get = app.add_subcommand("get", "Read a setting: " + settingNames);
    get->add_option("NAME", name)->required();
    addScope(get);
    auto* set = app.add_subcommand("set", "Write a setting (see 'settings' for the ranges)");
    set->add_option("NAME", name)->required();
    set->add_option("VALUE", value)->required();
    addScope(set);
    auto* settings = app.add_subcommand("settings", "List the settings with their ranges");
    long long pattern = 0, p1 = 0, p2 = 0;
    auto* patternCmd = app.add_subcommand("pattern", "Draw test pattern N (0..4) with parameters P1 and P2");
    patternCmd->add_option("N", pattern)->required();
    patternCmd->add_option("P1", p1);
    patternCmd->add_option("P2", p2);
    long long count = 10;
    auto* events = app.add_subcommand("events", "Read the newest COUNT (1..255) event log entries");
    events->add_option("COUNT", count);
    auto* commit = app.add_subcommand("commit", "Save every current setting");
    auto* factory = app.add_subcommand("factory-reset", "Restore the factory settings");
    std::string file;
    auto* upgrade = app.add_subcommand("upgrade", "Upgrade the firmware from FILE");
    upgrade->add_option("FILE", file)->required();
    int monitorCount = 0;
    double monitorSeconds = 0;
    auto* monitor = app.add_subcommand("monitor", "Print the messages the device sends of its own accord");
    monitor->add_option("--count", monitorCount, "Stop after this many messages");
    monitor->add_option("--seconds", monitorSeconds, "Stop after this long");
    std::string opcode;
    std::vector<std::string> rawBytes;
    auto* raw = app.add_subcommand("raw", "Send OPCODE with parameter BYTES (hex) and print the reply");
    raw->add_option("OPCODE", opcode)->required();
    raw->add_option("BYTES", rawBytes);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
        const std::string message = OneLine(e.what());
        fprintf(stderr, "vyrixctl: %s (see vyrixctl --help)\n", message.c_str());
        if (WantsJson(argc, argv))
            printf("%s\n", nlohmann::ordered_json{{"command", "vyrixctl"}, {"result", "usage"}, {"error", message}}
                               .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                               .c_str());
        return kExitUsage;
    }
    // The library logs to its file unless told otherwise; the terminal gets
    // its lines only when asked for.
    setenv("VYRIX_LOG", verbose ? "stderr" : "off", 0);

    CLI::App* chosen = app.get_subcommands().front();
    std::string command = chosen->get_name();
    if (*get || *set) command += " " + name;

    // Everything that can be checked without the device, before anything
    // is opened.
    if (std::string why = CheckTransport(transport); !why.empty()) return UsageError(command, why, json);
    if (!(timeoutS >= 0 && timeoutS <= kMaxTimeoutS))
        return UsageError(command, "--timeout out of range 0..86400 seconds", json);
    if (*settings) {
        Report report("settings", json);
        std::vector<Row> rows;
        for (const Setting& s : Settings())
            rows.push_back({{"name", s.name}, {"range", s.help}, {"access", s.set ? "read-write" : "read-only"}});
        report.AddRows("settings", rows);
        return report.Finish(0);
    }
    const Setting* setting = nullptr;
    if (*get || *set) {
        setting = FindSetting(name);
        if (setting == nullptr) return UsageError(command, "unknown setting (see 'vyrixctl settings')", json);
        if (*set && !setting->set) return UsageError(command, "read only", json);
        if (std::string why = CheckScope(*setting, ctx, set->parsed()); !why.empty())
            return UsageError(command, why, json);
        if (*set)
            if (std::string why = CheckValue(*setting, value); !why.empty()) return UsageError(command, why, json);
    }
    if (*patternCmd) {
        if (pattern < 0 || pattern > 4) return UsageError(command, "pattern out of range 0..4", json);
        if (p1 < 0 || p1 > UINT32_MAX || p2 < 0 || p2 > UINT32_MAX)
            return UsageError(command, "parameter out of range 0..4294967295", json);
    }
    if (*events && (count < 1 || count > 255)) return UsageError(command, "count out of range 1..255", json);
    std::vector<uint8_t> rawPayload;
    if (*raw)
        if (std::string why = RawPayload(opcode, rawBytes, rawPayload); !why.empty())
            return UsageError(command, why, json);
    std::vector<uint8_t> image;
    if (*upgrade)
        if (std::string why = ReadImage(file, image); !why.empty())
            return Report(command, json).Finish(VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT), why);
    if (*list) return ListDevices(what, json);
    if (!transport.uart.empty())
        if (std::string why = CheckSerialPath(transport.uart); !why.empty())
            return Report(command, json).Finish(VYRIX_RESULT(eVYRIX_NOT_CONNECTED), why);

    std::thread(WaitForSignals, signals).detach();
    Session session(transport, static_cast<unsigned>(timeoutS * 1000));
    Publish(&session);
    int exitStatus = kExitFailed;
    if (session.Result() != eVYRIX_RETURN_SUCCESS) {
        exitStatus = Report(command, json).Finish(session.Result(), session.Failure());
    } else if (Vyrix_ReturnStatus c =
                   capture.empty() ? eVYRIX_RETURN_SUCCESS : Vyrix_StartCapture(session.Handle(), capture.c_str());
               c != 0) {
        exitStatus = Report(command, json).Finish(c, "cannot create the capture file " + capture);
    } else if (g_signal == 0) {
        ctx.handle = session.Handle();
        void* h = session.Handle();
        if (*info) {
            exitStatus = Info(h, json);
        } else if (*status) {
            exitStatus = Status(h, json);
        } else if (*stats) {
            exitStatus = Stats(h, json);
        } else if (*get) {
            Report report(command, json);
            std::string text;
            Vyrix_ReturnStatus r = setting->get(ctx, text);
            report.AddText("name", name);
            if (r == 0) report.Add("value", text);
            exitStatus = report.Finish(r);
        } else if (*set) {
            Report report(command, json);
            report.AddText("name", name);
            report.Add("value", value);
            exitStatus = report.Finish(setting->set(ctx, value));
        } else if (*patternCmd) {
            Report report(command, json);
            report.Add("pattern", pattern);
            exitStatus = report.Finish(Vyrix_DrawTestPattern(h, static_cast<int32_t>(pattern),
                                                             static_cast<uint32_t>(p1), static_cast<uint32_t>(p2)));
        } else if (*events) {
            exitStatus = Events(h, static_cast<unsigned>(count), json);
        } else if (*commit) {
            exitStatus = Report(command, json).Finish(Vyrix_CommitAll(h));
        } else if (*factory) {
            exitStatus = Report(command, json).Finish(Vyrix_RestoreFactorySettings(h));
        } else if (*upgrade) {
            exitStatus = Upgrade(h, image, json);
        } else if (*monitor) {
            exitStatus = Monitor(session, monitorCount, monitorSeconds, json);
        } else if (*raw) {
            exitStatus = Raw(rawPayload, json);
        }
    }
    session.Close();
    Publish(nullptr);
    if (const int sig = g_signal) {
        fprintf(stderr, "vyrixctl: interrupted\n");
        return 128 + sig;
    }
    return exitStatus;
}
