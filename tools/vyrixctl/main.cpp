// vyrixctl: the display engine from the command line, through the library's
// public interface.
#include <CLI/CLI.hpp>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <thread>

#include "Output.h"
#include "ResultNames.h"
#include "Session.h"
#include "Settings.h"
#include "Upgrade.h"
#include "Vyrix_LLC_Api_Ex.h"

using namespace vyrix::tools;

namespace {

constexpr int kUsage = 2;
constexpr unsigned kMaxListed = 16;
constexpr int kRawReplyRetries = 50;  // about 5 s

std::atomic<bool> g_stop{false};
std::mutex g_eventMutex;
std::condition_variable g_event;
int g_pending = 0;

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

int ListDevices(const std::string& what, bool json) {
    Report report("list " + what, json);
    unsigned count = 0;
    std::vector<std::vector<std::pair<std::string, std::string>>> rows;
    Vyrix_ReturnStatus r;
    if (what == "usb") {
        std::vector<Vyrix_EnumerateUSBInfo> found(kMaxListed);
        r = KtEnumerateUSBDevices(kMaxListed, &count, found.data());
        for (unsigned i = 0; i < count; ++i)
            rows.push_back({{"product", std::to_string(found[i].productID)}, {"serial", found[i].serialNumber}});
    } else {
        std::vector<Vyrix_BTHDiscoveryInfo> found(kMaxListed);
        r = KtEnumerateBTHDevices(kMaxListed, &count, found.data());
        for (unsigned i = 0; i < count; ++i)
            rows.push_back({{"address", found[i].uniqueID}, {"name", found[i].friendlyName}});
    }
    report.Add("devices", static_cast<long long>(count));
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

int Events(void* h, unsigned count, bool json) {
    Report report("events", json);
    if (count > 255) return report.Finish(VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT), "at most 255 entries");
    std::vector<Vyrix_EventLogEntryS> entries(count);
    Vyrix_ReturnStatus r = Vyrix_GetEventLog(h, static_cast<uint16_t>(count), entries.data());
    std::vector<std::vector<std::pair<std::string, std::string>>> rows;
    for (const Vyrix_EventLogEntryS& e : entries) {
        if (e.field2 == 0) continue;  // nothing recorded in this slot
        rows.push_back({{"code", std::to_string(e.field1)},
                        {"seq", std::to_string(e.field2)},
                        {"time_s", std::to_string(e.field3)},
                        {"detail", std::to_string(e.field4)},
                        {"opcode", std::to_string(e.field5)},
                        {"extra", std::to_string(e.field6)}});
    }
    report.AddRows("events", rows);
    return report.Finish(r);
}

int Upgrade(void* h, const std::string& file, bool json) {
    Report report("upgrade", json);
    std::ifstream in(file, std::ios::binary);
    if (!in) return report.Finish(VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT), "cannot read " + file);
    std::vector<uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ProgressBar bar;
    Vyrix_ReturnStatus r = SendFirmware(h, image, [&](size_t done, size_t total) {
        if (!json) bar.Update(done, total);
    });
    if (!json) bar.Finish();
    report.Add("bytes", static_cast<long long>(image.size()));
    char crc[16];
    snprintf(crc, sizeof crc, "%08X", vyrix::sim::Crc32(image));
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
            for (uint32_t n = 1; !g_stop; ++n) {
                sim->SendUnsolicited(sim->Model().Notification(vyrix::sim::kEventSettingChanged, n));
                for (int i = 0; i < 5 && !g_stop; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        });
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int shown = 0;
    std::vector<uint8_t> buf(KT_XLNK_MAX_PAYLOAD);
    while (!g_stop && (count <= 0 || shown < count) && (seconds <= 0 || std::chrono::steady_clock::now() < end)) {
        {
            std::unique_lock<std::mutex> lock(g_eventMutex);
            g_event.wait_for(lock, std::chrono::milliseconds(200), [] { return g_pending > 0 || g_stop; });
            if (g_pending == 0) continue;
            --g_pending;
        }
        KtXlnkMsgS msg{};
        msg.pPayload = buf.data();
        if (KtRemoveConnectionlessMsg(&msg) != 0) continue;
        ++shown;
        if (json)
            printf("{\"message\":%d,\"source\":%d,\"payload\":%s}\n", shown, msg.sourceID,
                   JsonString(Hex(buf.data(), msg.payloadLen)).c_str());
        else
            printf("message %d from %d: %s\n", shown, msg.sourceID, Hex(buf.data(), msg.payloadLen).c_str());
        fflush(stdout);
    }
    g_stop = true;
    if (notifier.joinable()) notifier.join();
    return 0;
}

int Raw(const std::string& opcodeText, const std::vector<std::string>& byteTexts, bool json) {
    Report report("raw", json);
    std::vector<uint8_t> payload = {0x2A, 0x2A, 0x01};
    try {
        payload.push_back(static_cast<uint8_t>(std::stoul(opcodeText, nullptr, 0)));
        for (const std::string& b : byteTexts) payload.push_back(static_cast<uint8_t>(std::stoul(b, nullptr, 16)));
    } catch (const std::exception&) {
        return report.Finish(VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT), "OPCODE and BYTES are numbers");
    }
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

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"vyrixctl - control a Vyrix laser scanning display engine"};
    app.set_help_all_flag("--help-all", "Show every command's help");
    Transport transport;
    bool json = false;
    SettingContext ctx;
    app.add_option("--uart", transport.uart, "Serial device path (57600 8N1)");
    app.add_option("--usb", transport.usb, "USB device serial number");
    app.add_option("--bt", transport.bt, "Bluetooth address (00:11:22:33:44:55)");
    app.add_option("--passkey", transport.passkey, "Bluetooth pass key");
    app.add_flag("--sim", transport.sim, "Start the built-in device simulator and use it");
    app.add_flag("--json", json, "Print machine-readable JSON");
    app.require_subcommand(1);

    std::string what;
    auto* list = app.add_subcommand("list", "List the devices of a transport");
    list->add_option("TRANSPORT", what, "usb or bt")->required()->check(CLI::IsMember({"usb", "bt"}));
    auto* info = app.add_subcommand("info", "System information");
    auto* status = app.add_subcommand("status", "System status");
    std::string name, value;
    auto addScope = [&](CLI::App* cmd) {
        cmd->add_option("--storage", ctx.storage, "0 current, 1 saved, 2 factory (read only)");
        cmd->add_option("--channel", ctx.channel, "Gamma channel");
        cmd->add_option("--sel1", ctx.selector1, "Colour alignment selector 1 (0/1)");
        cmd->add_option("--sel2", ctx.selector2, "Colour alignment selector 2 (0..4)");
        cmd->add_option("--index", ctx.index, "Colour converter entry (0..8)");
    };
    std::string settingNames;
    for (const Setting& s : Settings()) settingNames += std::string(settingNames.empty() ? "" : ", ") + s.name;
    auto* get = app.add_subcommand("get", "Read a setting: " + settingNames);
    get->add_option("NAME", name)->required();
    addScope(get);
    auto* set = app.add_subcommand("set", "Write a setting");
    set->add_option("NAME", name)->required();
    set->add_option("VALUE", value)->required();
    addScope(set);
    auto* settings = app.add_subcommand("settings", "List the settings with their ranges");
    int32_t pattern = 0;
    uint32_t p1 = 0, p2 = 0;
    auto* patternCmd = app.add_subcommand("pattern", "Draw test pattern N (0..4)");
    patternCmd->add_option("N", pattern)->required();
    patternCmd->add_option("P1", p1);
    patternCmd->add_option("P2", p2);
    unsigned count = 10;
    auto* events = app.add_subcommand("events", "Read the newest COUNT event log entries");
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

    CLI11_PARSE(app, argc, argv);
    std::signal(SIGINT, [](int) { g_stop = true; });
    std::signal(SIGTERM, [](int) { g_stop = true; });

    if (*list) return ListDevices(what, json);
    if (*settings) {
        for (const Setting& s : Settings()) printf("%-16s %s%s\n", s.name, s.help, s.set ? "" : "");
        return 0;
    }
    const Setting* setting = nullptr;
    if (*get || *set) {
        setting = FindSetting(name);
        if (setting == nullptr) {
            fprintf(stderr, "unknown setting '%s' (see 'vyrixctl settings')\n", name.c_str());
            return kUsage;
        }
        if (*set && !setting->set) {
            fprintf(stderr, "'%s' is read only\n", name.c_str());
            return kUsage;
        }
    }

    Session session(transport);
    if (session.Result() != eVYRIX_RETURN_SUCCESS) {
        Report report("connect", json);
        return report.Finish(session.Result(), session.Failure());
    }
    ctx.handle = session.Handle();
    void* h = session.Handle();

    if (*info) return Info(h, json);
    if (*status) return Status(h, json);
    if (*get) {
        Report report("get", json);
        std::string text;
        Vyrix_ReturnStatus r = setting->get(ctx, text);
        report.Add("name", name);
        if (r == 0) report.Add("value", text);
        return report.Finish(r);
    }
    if (*set) {
        Report report("set", json);
        report.Add("name", name);
        report.Add("value", value);
        try {
            return report.Finish(setting->set(ctx, value));
        } catch (const std::exception&) {
            return report.Finish(VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT), "not a valid value: " + value);
        }
    }
    if (*patternCmd) {
        Report report("pattern", json);
        report.Add("pattern", static_cast<long long>(pattern));
        return report.Finish(Vyrix_DrawTestPattern(h, pattern, p1, p2));
    }
    if (*events) return Events(h, count, json);
    if (*commit) return Report("commit", json).Finish(Vyrix_CommitAll(h));
    if (*factory) return Report("factory-reset", json).Finish(Vyrix_RestoreFactorySettings(h));
    if (*upgrade) return Upgrade(h, file, json);
    if (*monitor) return Monitor(session, monitorCount, monitorSeconds, json);
    if (*raw) return Raw(opcode, rawBytes, json);
    return kUsage;
}
