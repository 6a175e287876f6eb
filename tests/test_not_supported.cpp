// SPDX-License-Identifier: MIT
// Every published operation that the library does not carry out answers
// 0x02000000 at once, with the library closed or open, with null arguments
// or with pointers to storage it must leave untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <type_traits>
#include <vector>

#include "Vyrix_Api.h"

namespace {

// Every pointer argument points here; every other argument but an
// enumeration is 0xAA bytes.
alignas(16) unsigned char g_storage[4096];

template <typename T>
T Arg(bool null) {
    T value{};
    if constexpr (std::is_pointer_v<T>) {
        if (!null) value = reinterpret_cast<T>(g_storage);
    } else if constexpr (!std::is_enum_v<T>) {  // an enumeration keeps its first value
        if (!null) memset(&value, 0xAA, sizeof value);
    }
    return value;
}

// A call of the operation with arguments made from their types.
template <typename... A>
std::function<Vyrix_ReturnStatus(bool)> Probe(Vyrix_ReturnStatus (*operation)(A...)) {
    return [operation](bool null) { return operation(Arg<A>(null)...); };
}

using Operation = std::pair<const char*, std::function<Vyrix_ReturnStatus(bool)>>;
template <typename... O>
std::vector<Operation> Table(O... operations) {
    return {operations...};
}
#define OP(f) Operation(#f, Probe(f))
const std::vector<Operation> kOperations = Table(
    OP(Vyrix_OpenConnectionUSB), OP(Vyrix_OpenConnectionUart), OP(Vyrix_SetInputCaptureModeInfo),
    OP(Vyrix_ModifyInputCaptureModeInfo), OP(Vyrix_GetInputCaptureModeInfo), OP(Vyrix_SetActiveCaptureMode),
    OP(Vyrix_GetActiveCaptureMode), OP(Vyrix_CommitInputCaptureMode), OP(Vyrix_GetCommitedInputCaptureMode),
    OP(Vyrix_SetWhitePoint), OP(Vyrix_GetWhitePoint), OP(Vyrix_SetKeystoneCorrection), OP(Vyrix_GetKeystoneCorrection),
    OP(Vyrix_SetHorizontalBrightnessCompensationMode), OP(Vyrix_GetHorizontalBrightnessCompensationMode),
    OP(Vyrix_SetVerticalScanAngle), OP(Vyrix_GetVerticalScanAngle), OP(Vyrix_SetHorizontalScanAngle),
    OP(Vyrix_GetHorizontalScanAngle), OP(Vyrix_SetSplashScreenTimeout), OP(Vyrix_GetSplashScreenTimeout),
    OP(Vyrix_SetSensingDataInterface), OP(Vyrix_GetSensingDataInterface), OP(Vyrix_SetTofDataFormat),
    OP(Vyrix_GetTofDataFormat), OP(Vyrix_GetTofFrameSize), OP(Vyrix_GetTofFrameCount), OP(Vyrix_AcquirePcdFrames),
    OP(Vyrix_SetSystemPowerState), OP(Vyrix_GetSystemPowerState), OP(Vyrix_SaveAsSplash), OP(Vyrix_SetOSDState),
    OP(Vyrix_GetOSDState), OP(Vyrix_SetOSDInfo), OP(Vyrix_GetOSDInfo), OP(Vyrix_SetActiveRenderTarget),
    OP(Vyrix_GetActiveRenderTarget), OP(Vyrix_GetDisplayInfo), OP(Vyrix_LoadBitmapImage), OP(Vyrix_DrawText),
    OP(Vyrix_GetTextBoxInfo), OP(Vyrix_DrawPoint), OP(Vyrix_DrawLine), OP(Vyrix_DrawTriangle), OP(Vyrix_DrawRectangle),
    OP(Vyrix_Render), OP(Vyrix_ClearTarget), OP(Vyrix_GetTofFrameProperties), OP(Vyrix_StartFrameCapture),
    OP(Vyrix_StopFrameCapture), OP(Vyrix_AcquireTofFrames));

TEST(NotSupported, AnswersAtOnceAndTouchesNothing) {
    void* library = nullptr;
    for (bool open : {false, true}) {
        if (open) {
            ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
        }
        for (bool null : {true, false}) {
            memset(g_storage, 0x55, sizeof g_storage);
            for (const auto& [name, call] : kOperations) EXPECT_EQ(call(null), 0x02000000u) << name;
            EXPECT_EQ(std::count(std::begin(g_storage), std::end(g_storage), 0x55), 4096) << "something was written";
        }
    }
    Vyrix_CloseLibrary(library);
}

}  // namespace
