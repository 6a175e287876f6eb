// The shipped library exports the implemented operations and the LLC
// functions under plain names, and the not-supported operations and the
// internal functions with C++ decoration.
#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

namespace {

std::set<std::string> DynamicSymbols() {
    std::set<std::string> names;
    std::string command = std::string("nm -D --defined-only ") + VYRIX_LIBRARY_FILE;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return names;
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        size_t last = text.find_last_of(' ');
        std::string name = text.substr(last + 1);
        while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.pop_back();
        names.insert(name);
    }
    pclose(pipe);
    return names;
}

// The plain function name of a decorated symbol ("" if not decorated).
std::string DemangledName(const std::string& symbol) {
    int status = 0;
    char* text = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
    if (status != 0 || text == nullptr) return "";
    std::string full(text);
    free(text);
    return full.substr(0, full.find('('));
}

const std::set<std::string>& Symbols() {
    static const std::set<std::string> symbols = DynamicSymbols();
    return symbols;
}

bool HasDecorated(const std::string& name) {
    for (const std::string& s : Symbols())
        if (s.rfind("_Z", 0) == 0 && DemangledName(s) == name) return true;
    return false;
}

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

TEST(Symbols, ImplementedAndServiceFunctionsArePlain) {
    ASSERT_FALSE(Symbols().empty()) << "could not read " << VYRIX_LIBRARY_FILE;
    for (const char* name : kPlain) {
        EXPECT_EQ(Symbols().count(name), 1u) << name << " is not exported under its plain name";
        EXPECT_FALSE(HasDecorated(name)) << name << " is also decorated";
    }
}

TEST(Symbols, NotSupportedAndInternalFunctionsAreDecorated) {
    for (const char* name : kDecorated) {
        EXPECT_EQ(Symbols().count(name), 0u) << name << " must not have a plain name";
        EXPECT_TRUE(HasDecorated(name)) << name << " is not exported with C++ decoration";
    }
}

TEST(Symbols, NoTestDoubleInTheShippedLibrary) {
    for (const std::string& s : Symbols()) EXPECT_EQ(s.find("vyrix_fake"), std::string::npos) << s;
}

}  // namespace
