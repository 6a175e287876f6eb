// The shipped library exports exactly the lifecycle, connection and
// implemented operations, the extensions and the LLC service functions under
// plain names, and the not-supported operations and the exported internal
// functions with C++ decoration; nothing else leaves it.
#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

namespace {

const char* const kPlain[] = {"Vyrix_OpenLibrary",
                              "Vyrix_GetLibraryInfo",
                              "Vyrix_CloseLibrary",
                              "Vyrix_OpenConnection",
                              "Vyrix_CloseConnection",
                              "Vyrix_GetInputVideoProperties",
                              "Vyrix_SetInputVideoState",
                              "Vyrix_GetInputVideoState",
                              "Vyrix_SetBrightness",
                              "Vyrix_GetBrightness",
                              "Vyrix_SetColorMode",
                              "Vyrix_GetColorMode",
                              "Vyrix_SetGamma",
                              "Vyrix_GetGamma",
                              "Vyrix_SetVideoGammaBoostMode",
                              "Vyrix_GetVideoGammaBoostMode",
                              "Vyrix_SetMicroWeaveMode",
                              "Vyrix_GetMicroWeaveMode",
                              "Vyrix_SetFlipState",
                              "Vyrix_GetFlipState",
                              "Vyrix_SetOutputVideoState",
                              "Vyrix_GetOutputVideoState",
                              "Vyrix_GetOutputVideoProperties",
                              "Vyrix_SetBiPhase",
                              "Vyrix_GetBiPhase",
                              "Vyrix_SetColorAlignment",
                              "Vyrix_GetColorAlignment",
                              "Vyrix_SetColorConverter",
                              "Vyrix_GetColorConverter",
                              "Vyrix_SetFrameRateMode",
                              "Vyrix_GetFrameRateMode",
                              "Vyrix_SetSensingState",
                              "Vyrix_GetSensingState",
                              "Vyrix_GetSystemInfo",
                              "Vyrix_GetSystemStatus",
                              "Vyrix_GetEventLog",
                              "Vyrix_RestoreFactorySettings",
                              "Vyrix_CommitAll",
                              "Vyrix_UpgradeSoftware",
                              "Vyrix_DrawTestPattern",
                              "Vyrix_GetTofFrameProperties",
                              "Vyrix_StartFrameCapture",
                              "Vyrix_StopFrameCapture",
                              "Vyrix_AcquireTofFrames",
                              "Vyrix_GetResultName",
                              "Vyrix_GetResultDescription",
                              "Vyrix_SetReplyTimeout",
                              "Vyrix_TakeUnpromptedMessage",
                              "KtOpenUsbPort",
                              "KtOpenSerialPort",
                              "KtOpenSerialPortByName",
                              "KtOpenBTHSocket",
                              "KtCheckUsbPort",
                              "KtCheckSerialPort",
                              "KtCheckBthSocket",
                              "KtSendMsg",
                              "KtSendMessage",
                              "KtRemoveMsg",
                              "KtRemoveConnectionlessMsg",
                              "KtRemoveMessage",
                              "KtRemoveConnectionlessMessage",
                              "KtCloseUsbPort",
                              "KtCloseSerialPort",
                              "KtCloseBTHSocket",
                              "KtRegisterCallback",
                              "KtEnumerateUSBDevices",
                              "KtEnumerateBTHDevices",
                              "KtEnumerateUARTDevices",
                              "LibraryCleanUpRoutine",
                              "KtCreateSyncObject",
                              "KtLockSyncObject",
                              "KtUnlockSyncObject",
                              "KtDestroySyncObj",
                              "KtWriteLogFile",
                              "KtSleep"};

const char* const kDecorated[] = {
    "Vyrix_OpenConnectionUSB", "Vyrix_OpenConnectionUart", "Vyrix_SetInputCaptureModeInfo",
    "Vyrix_ModifyInputCaptureModeInfo", "Vyrix_GetInputCaptureModeInfo", "Vyrix_SetActiveCaptureMode",
    "Vyrix_GetActiveCaptureMode", "Vyrix_CommitInputCaptureMode", "Vyrix_GetCommitedInputCaptureMode",
    "Vyrix_SetWhitePoint", "Vyrix_GetWhitePoint", "Vyrix_SetKeystoneCorrection", "Vyrix_GetKeystoneCorrection",
    "Vyrix_SetHorizontalBrightnessCompensationMode", "Vyrix_GetHorizontalBrightnessCompensationMode",
    "Vyrix_SetVerticalScanAngle", "Vyrix_GetVerticalScanAngle", "Vyrix_SetHorizontalScanAngle",
    "Vyrix_GetHorizontalScanAngle", "Vyrix_SetSplashScreenTimeout", "Vyrix_GetSplashScreenTimeout",
    "Vyrix_SetSensingDataInterface", "Vyrix_GetSensingDataInterface", "Vyrix_SetTofDataFormat",
    "Vyrix_GetTofDataFormat", "Vyrix_GetTofFrameSize", "Vyrix_GetTofFrameCount", "Vyrix_AcquirePcdFrames",
    "Vyrix_SetSystemPowerState", "Vyrix_GetSystemPowerState", "Vyrix_SaveAsSplash", "Vyrix_SetOSDState",
    "Vyrix_GetOSDState", "Vyrix_SetOSDInfo", "Vyrix_GetOSDInfo", "Vyrix_SetActiveRenderTarget",
    "Vyrix_GetActiveRenderTarget", "Vyrix_GetDisplayInfo", "Vyrix_LoadBitmapImage", "Vyrix_DrawText",
    "Vyrix_GetTextBoxInfo", "Vyrix_DrawPoint", "Vyrix_DrawLine", "Vyrix_DrawTriangle", "Vyrix_DrawRectangle",
    "Vyrix_Render", "Vyrix_ClearTarget",
    // internal functions
    "GetConnectionHandleIndex", "CloseConnection", "GetCOMPortNumber", "AlcSendCommandParams", "AlcSendCommandGetReply",
    "AlcSendCommandParamsGetReply", "SendXlnkMsg", "GetReply", "ValidateReply", "FlushMsgQueue", "GetAck", "CopyMemory",
    "AlcSendImageCommandGeneric", "AlcDrawText", "AlcGetTextBoxInfo", "GetIndexStatus", "LLCSleep"};

// The defined dynamic symbols of the shipped library.
std::set<std::string> Exported() {
    std::set<std::string> names;
    const std::string command = std::string("nm -D --defined-only ") + VYRIX_LIBRARY_FILE;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "re"), pclose);
    if (!pipe) return names;
    char line[1024];
    while (fgets(line, sizeof line, pipe.get()) != nullptr) {
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        names.insert(text.substr(text.find_last_of(' ') + 1));
    }
    return names;
}

// The function name of a decorated symbol, without its parameters ("" when
// the symbol is not decorated).
std::string BaseName(const std::string& symbol) {
    if (symbol.rfind("_Z", 0) != 0) return "";
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), free);
    if (status != 0 || !text) return "";
    const std::string full(text.get());
    return full.substr(0, full.find('('));
}

TEST(Symbols, ExactlyThePublicNamesAreExported) {
    const std::set<std::string> plain(std::begin(kPlain), std::end(kPlain));
    const std::set<std::string> decorated(std::begin(kDecorated), std::end(kDecorated));
    const std::set<std::string> exported = Exported();
    ASSERT_FALSE(exported.empty()) << "could not read " << VYRIX_LIBRARY_FILE;

    std::set<std::string> decoratedFound;
    for (const std::string& symbol : exported) {
        const std::string base = BaseName(symbol);
        if (decorated.count(base) != 0) {
            decoratedFound.insert(base);
            continue;
        }
        EXPECT_EQ(plain.count(symbol), 1u)
            << symbol << (base.empty() ? "" : " (" + base + ")") << " is exported but not public";
    }
    for (const std::string& name : plain) EXPECT_EQ(exported.count(name), 1u) << name << " lacks its plain name";
    for (const std::string& name : decorated) {
        EXPECT_EQ(decoratedFound.count(name), 1u) << name << " is not exported with C++ decoration";
        EXPECT_EQ(exported.count(name), 0u) << name << " must not have a plain name";
    }
}

}  // namespace
