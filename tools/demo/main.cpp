// SPDX-License-Identifier: MIT
// vyrix-demo: a short guided tour of the library against the built-in
// device simulator.
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "ExitStatus.h"
#include "Numbers.h"
#include "Output.h"
#include "ResultNames.h"
#include "Session.h"
#include "Suggest.h"
#include "Upgrade.h"
#include "Vyrix_LLC_Api_Ex.h"
#include "vyrix_version.h"

using namespace vyrix::tools;

namespace {

constexpr size_t kFirmwareBytes = 46000;
constexpr Vyrix_ValueStorageTypeE kStorages[] = {eVYRIX_STORAGE_CURRENT, eVYRIX_STORAGE_SAVED, eVYRIX_STORAGE_FACTORY};
const char* const kStorageNames[] = {"current", "saved", "factory"};

int g_failures = 0;
bool g_decorated = false;  // colours on standard output
std::mutex g_mutex;
std::condition_variable g_arrived;
int g_messages = 0;

const char* Bold() { return g_decorated ? "\033[1m" : ""; }
const char* Plain() { return g_decorated ? "\033[0m" : ""; }

void Section(const char* title) { printf("\n%s== %s%s\n", Bold(), title, Plain()); }

// Prints a step with its result; remembers failures.
bool Step(const char* what, Vyrix_ReturnStatus r) {
    printf("  %-44s %s\n", what, ResultName(r).c_str());
    if (r != eVYRIX_RETURN_SUCCESS) ++g_failures;
    return r == eVYRIX_RETURN_SUCCESS;
}

// Prints a step whose call the library is expected to refuse with `code`.
void Refused(const char* what, Vyrix_ReturnStatus r, Vyrix_ReturnCodeE code) {
    if (r == VYRIX_RESULT(code)) {
        printf("  %-44s refused as expected: %s\n", what, ResultName(r).c_str());
        return;
    }
    printf("  %-44s expected %s, got %s\n", what, ResultName(VYRIX_RESULT(code)).c_str(), ResultName(r).c_str());
    ++g_failures;
}

constexpr char kUsage[] =
    "Usage: vyrix-demo [--help] [--version]\n"
    "A guided tour of the Vyrix display engine library against the built-in\n"
    "device simulator: settings, gamma, test pattern, firmware upgrade, event\n"
    "log and a message of the device's own accord.\n"
    "\n"
    "Options:\n"
    "  --help     show this help and exit\n"
    "  --version  show the version and exit\n"
    "\n"
    "Colours and the progress bar are drawn only on a terminal, and never\n"
    "when NO_COLOR is set.  A step that does not go as expected counts as a\n"
    "failed command.\n"
    "\n";

Vyrix_ReturnStatus OnMessage(void*) {
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_messages;
    g_arrived.notify_all();
    return eVYRIX_RETURN_SUCCESS;
}

void ShowBrightness(void* h) {
    printf("  brightness:");
    for (int s = 0; s < 3; ++s) {
        uint8_t b = 0;
        Vyrix_ReturnStatus r = Vyrix_GetBrightness(h, &b, kStorages[s]);
        if (r == 0)
            printf("  %s %u", kStorageNames[s], b);
        else
            printf("  %s %s", kStorageNames[s], ResultName(r).c_str());
    }
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0) {
            printf("%s%s\n", kUsage, kExitStatusHelp);
            return kExitSuccess;
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("vyrix-demo %s\n", VYRIX_VERSION_STRING);
            return 0;
        }
        fprintf(stderr, "vyrix-demo: unknown argument '%s'%s (see vyrix-demo --help)\n", Printable(argv[i]).c_str(),
                DidYouMean(argv[i], {"--help", "--version"}).c_str());
        return kExitUsage;
    }
    setenv("VYRIX_LOG", "off", 0);        // the library's lines stay off the tour
    setvbuf(stdout, nullptr, _IOLBF, 0);  // the progress bar on stderr stays in order
    g_decorated = Decorated(stdout);
    const auto started = std::chrono::steady_clock::now();
    printf("%sVyrix display engine: a guided tour against the built-in simulator%s\n", Bold(), Plain());

    Section("Library");
    Transport transport;
    transport.sim = true;
    Session session(transport);
    if (session.Result() != eVYRIX_RETURN_SUCCESS) {
        fprintf(stderr, "vyrix-demo: %s\n", Explain(session.Result(), session.Failure()).c_str());
        return kExitNoDevice;
    }
    void* h = session.Handle();
    vyrix::sim::DeviceSimulator& sim = *session.Simulator();
    Vyrix_LibraryInfoS lib{};
    void* any = h;  // the library accepts any non-null handle here; it has one context
    Step("Vyrix_GetLibraryInfo", Vyrix_GetLibraryInfo(any, &lib));
    printf("  libVyrix_Api %u.%u.%u build %u\n", lib.majorVersion, lib.minorVersion, lib.revision, lib.build);
    printf("  connected over UART (57600 8N1) to the simulator on %s\n", sim.SlavePath().c_str());

    Section("System information and status");
    Vyrix_SystemInfoS info{};
    if (Step("Vyrix_GetSystemInfo", Vyrix_GetSystemInfo(h, &info)))
        printf("  device %s, firmware %u.%u, serial %08X, hardware rev %u\n", info.infoText, info.infoWord1 >> 16,
               info.infoWord1 & 0xFFFF, info.infoWord2, info.infoWord3);
    Vyrix_SystemStatusS status{};
    if (Step("Vyrix_GetSystemStatus", Vyrix_GetSystemStatus(h, &status)))
        printf("  state %u, errors %u, temperature %.1f C\n", status.statusWord1, status.statusWord2,
               static_cast<double>(status.statusValue));
    Vyrix_VideoPropertiesS out{};
    if (Step("Vyrix_GetOutputVideoProperties", Vyrix_GetOutputVideoProperties(h, &out)))
        printf("  output video %ux%u at %.2f Hz\n", out.width, out.height, static_cast<double>(out.frameRate));

    Section("Settings and storage types");
    Step("Vyrix_SetBrightness 65 (current)", Vyrix_SetBrightness(h, 65, eVYRIX_STORAGE_CURRENT));
    ShowBrightness(h);
    Refused("Vyrix_SetBrightness 101", Vyrix_SetBrightness(h, 101, eVYRIX_STORAGE_CURRENT), eVYRIX_INVALID_ARGUMENT);
    Step("Vyrix_SetFlipState 2 (saved)", Vyrix_SetFlipState(h, 2, eVYRIX_STORAGE_SAVED));
    uint32_t flip = 0;
    Step("Vyrix_GetFlipState (saved)", Vyrix_GetFlipState(h, &flip, eVYRIX_STORAGE_SAVED));
    printf("  flip state (saved) %u\n", flip);
    Step("Vyrix_SetBiPhase -25", Vyrix_SetBiPhase(h, -25, eVYRIX_STORAGE_CURRENT));
    int16_t biphase = 0;
    Step("Vyrix_GetBiPhase", Vyrix_GetBiPhase(h, &biphase, eVYRIX_STORAGE_CURRENT));
    printf("  bi-phase %d\n", biphase);

    Section("Gamma per channel");
    Step("Vyrix_SetGamma channel 1 = 2.4", Vyrix_SetGamma(h, 1, 2.4f, eVYRIX_STORAGE_CURRENT));
    for (uint32_t channel = 0; channel < 3; ++channel) {
        float gamma = 0;
        Vyrix_ReturnStatus r = Vyrix_GetGamma(h, channel, &gamma, eVYRIX_STORAGE_CURRENT);
        printf("  channel %u gamma %.2f (%s)\n", channel, static_cast<double>(gamma), ResultName(r).c_str());
        if (r != 0) ++g_failures;
    }

    Section("Test pattern");
    Step("Vyrix_DrawTestPattern 2 (10, 20)", Vyrix_DrawTestPattern(h, 2, 10, 20));
    auto pattern = sim.Model().LastPattern();
    printf("  the device now shows pattern %u with parameters %u, %u\n", pattern.select, pattern.param1,
           pattern.param2);

    Section("Firmware upgrade");
    std::vector<uint8_t> image(kFirmwareBytes);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<uint8_t>((i * 131) ^ (i >> 7));
    ProgressBar bar(Decorated(stderr));
    size_t offset = 0;
    const auto read = [&](uint8_t* into, size_t length) {
        memcpy(into, image.data() + offset, length);
        offset += length;
        return std::string();
    };
    const std::atomic<bool> never{false};
    Vyrix_ReturnStatus up = SendFirmware(h, image.size(), read, never, [&](uint64_t done, uint64_t total) {
                                bar.Update(done, total);
                            }).result;
    bar.Finish();
    Step("Vyrix_UpgradeSoftware, 4000 bytes a chunk", up);
    auto fw = sim.Model().FirmwareState();
    const uint32_t crc = static_cast<uint32_t>(crc32(0, image.data(), static_cast<uInt>(image.size())));
    const bool match = fw.complete && fw.crc32 == crc;
    printf("  sent %zu bytes (crc32 %08X) at %.1f kB/s; the device reassembled %u bytes (crc32 %08X): %s\n",
           image.size(), crc, bar.BytesPerSecond() / 1000.0, fw.receivedBytes, fw.crc32, match ? "match" : "MISMATCH");
    if (!match) ++g_failures;

    Section("Commit and factory restore");
    Step("Vyrix_CommitAll", Vyrix_CommitAll(h));
    ShowBrightness(h);
    Step("Vyrix_RestoreFactorySettings", Vyrix_RestoreFactorySettings(h));
    ShowBrightness(h);

    Section("Event log (newest first)");
    Vyrix_EventLogEntryS events[8] = {};
    if (Step("Vyrix_GetEventLog 8", Vyrix_GetEventLog(h, 8, events))) {
        printf("  %5s  %-16s %8s %10s %7s\n", "seq", "event", "time s", "detail", "opcode");
        for (const Vyrix_EventLogEntryS& e : events)
            if (e.field2 != 0)
                printf("  %5u  %-16s %8u %10u %7u\n", e.field2, EventName(e.field1).c_str(), e.field3, e.field4,
                       e.field5);
    }

    Section("A message of the device's own accord");
    KtRegisterCallback(OnMessage);
    sim.SendUnsolicited(sim.Model().Notification(vyrix::sim::kEventSettingChanged, 42));
    {
        std::unique_lock<std::mutex> lock(g_mutex);
        g_arrived.wait_for(lock, std::chrono::seconds(3), [] { return g_messages > 0; });
    }
    std::vector<uint8_t> buf(KT_XLNK_MAX_PAYLOAD);
    KtXlnkMsgS msg{};
    msg.pPayload = buf.data();
    if (Step("KtRemoveConnectionlessMsg", KtRemoveConnectionlessMsg(&msg))) {
        printf("  payload:");
        for (unsigned i = 0; i < msg.payloadLen; ++i) printf(" %02X", buf[i]);
        printf("\n");
    }

    Section("Closing");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    printf("  the session closes its connection and the library on exit; tour took %.1f s, %d problem%s\n", seconds,
           g_failures, g_failures == 1 ? "" : "s");
    return g_failures == 0 ? 0 : 1;
}
