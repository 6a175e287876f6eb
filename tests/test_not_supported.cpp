// Every published operation that the library does not carry out answers
// 0x02000000 at once, before the library is opened or after, and writes
// nothing through its pointers.
#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "Vyrix_Api.h"

namespace {

constexpr Vyrix_ReturnStatus kNotSupported = static_cast<Vyrix_ReturnStatus>(0x02000000u);

struct Sentinels {
    void* h = reinterpret_cast<void*>(0x1);
    void* lib = reinterpret_cast<void*>(0x2);
    void* ptr = reinterpret_cast<void*>(0x3);
    Vyrix_USBInfoS usb{7, "x"};
    Vyrix_UartInfoS uart{"/dev/null", 1, 2, 3};
    Vyrix_VideoModeHandleE mode = eVYRIX_VIDEO_MODE_2;
    Vyrix_VideoCaptureInfoS capture{0xAAAA, 0xAAAA, 1.5f, 0xAAAAAAAA};
    Vyrix_WhitePointE white = eVYRIX_WHITE_POINT_D50;
    Vyrix_HorizontalBrightnessCompensationModeE hbc = eVYRIX_HBC_ON;
    Vyrix_SensingDataInterfaceE sensing = eVYRIX_SENSING_IF_USB;
    Vyrix_ToFDataFormatE tof = eVYRIX_TOF_FORMAT_POINT_CLOUD;
    Vyrix_PowerStateE power = eVYRIX_POWER_OFF;
    Vyrix_RenderTargetE target = eVYRIX_RENDER_TARGET_1;
    Vyrix_OSDStateE osd = eVYRIX_OSD_ON;
    Vyrix_PointS point{0xAAAA, 0xAAAA};
    Vyrix_RectSizeS size{0xAAAA, 0xAAAA};
    Vyrix_ColorS color{0xAA, 0xAA, 0xAA, 0xAA};
    Vyrix_TofFramePropertiesS tofProps{0xAAAA, 0xAAAA, 0xAAAAAAAA};
    int32_t i32 = -0x55555556;
    uint32_t u32 = 0xAAAAAAAA;
    float f32 = 1.5f;
    uint8_t bytes[16];
    uint16_t text16[4] = {0xAAAA, 0xAAAA, 0xAAAA, 0xAAAA};
    uint32_t words[4] = {0xAAAAAAAA, 0xAAAAAAAA, 0xAAAAAAAA, 0xAAAAAAAA};
    Sentinels() { memset(bytes, 0xAA, sizeof bytes); }
};

TEST(NotSupported, AnswersAtOnceWithNullArguments) {
    EXPECT_EQ(Vyrix_OpenConnectionUSB(nullptr, nullptr, nullptr), kNotSupported) << "Vyrix_OpenConnectionUSB";
    EXPECT_EQ(Vyrix_OpenConnectionUart(nullptr, nullptr, nullptr), kNotSupported) << "Vyrix_OpenConnectionUart";
    EXPECT_EQ(Vyrix_SetInputCaptureModeInfo(nullptr, nullptr, nullptr), kNotSupported)
        << "Vyrix_SetInputCaptureModeInfo";
    EXPECT_EQ(Vyrix_ModifyInputCaptureModeInfo(nullptr, eVYRIX_VIDEO_MODE_0, nullptr), kNotSupported)
        << "Vyrix_ModifyInputCaptureModeInfo";
    EXPECT_EQ(Vyrix_GetInputCaptureModeInfo(nullptr, eVYRIX_VIDEO_MODE_0, nullptr), kNotSupported)
        << "Vyrix_GetInputCaptureModeInfo";
    EXPECT_EQ(Vyrix_SetActiveCaptureMode(nullptr, eVYRIX_VIDEO_MODE_0), kNotSupported) << "Vyrix_SetActiveCaptureMode";
    EXPECT_EQ(Vyrix_GetActiveCaptureMode(nullptr, nullptr), kNotSupported) << "Vyrix_GetActiveCaptureMode";
    EXPECT_EQ(Vyrix_CommitInputCaptureMode(nullptr, eVYRIX_VIDEO_MODE_0), kNotSupported)
        << "Vyrix_CommitInputCaptureMode";
    EXPECT_EQ(Vyrix_GetCommitedInputCaptureMode(nullptr, nullptr), kNotSupported)
        << "Vyrix_GetCommitedInputCaptureMode";
    EXPECT_EQ(Vyrix_SetWhitePoint(nullptr, eVYRIX_WHITE_POINT_D65, 0), kNotSupported) << "Vyrix_SetWhitePoint";
    EXPECT_EQ(Vyrix_GetWhitePoint(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported) << "Vyrix_GetWhitePoint";
    EXPECT_EQ(Vyrix_SetKeystoneCorrection(nullptr, 0, 0), kNotSupported) << "Vyrix_SetKeystoneCorrection";
    EXPECT_EQ(Vyrix_GetKeystoneCorrection(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported)
        << "Vyrix_GetKeystoneCorrection";
    EXPECT_EQ(Vyrix_SetHorizontalBrightnessCompensationMode(nullptr, eVYRIX_HBC_OFF, 0), kNotSupported)
        << "Vyrix_SetHorizontalBrightnessCompensationMode";
    EXPECT_EQ(Vyrix_GetHorizontalBrightnessCompensationMode(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported)
        << "Vyrix_GetHorizontalBrightnessCompensationMode";
    EXPECT_EQ(Vyrix_SetVerticalScanAngle(nullptr, 0.0f, 0), kNotSupported) << "Vyrix_SetVerticalScanAngle";
    EXPECT_EQ(Vyrix_GetVerticalScanAngle(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported)
        << "Vyrix_GetVerticalScanAngle";
    EXPECT_EQ(Vyrix_SetHorizontalScanAngle(nullptr, 0.0f, 0), kNotSupported) << "Vyrix_SetHorizontalScanAngle";
    EXPECT_EQ(Vyrix_GetHorizontalScanAngle(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported)
        << "Vyrix_GetHorizontalScanAngle";
    EXPECT_EQ(Vyrix_SetSplashScreenTimeout(nullptr, 0u, 0), kNotSupported) << "Vyrix_SetSplashScreenTimeout";
    EXPECT_EQ(Vyrix_GetSplashScreenTimeout(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported)
        << "Vyrix_GetSplashScreenTimeout";
    EXPECT_EQ(Vyrix_SetSensingDataInterface(nullptr, eVYRIX_SENSING_IF_NONE, 0), kNotSupported)
        << "Vyrix_SetSensingDataInterface";
    EXPECT_EQ(Vyrix_GetSensingDataInterface(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported)
        << "Vyrix_GetSensingDataInterface";
    EXPECT_EQ(Vyrix_SetTofDataFormat(nullptr, eVYRIX_TOF_FORMAT_RAW, 0), kNotSupported) << "Vyrix_SetTofDataFormat";
    EXPECT_EQ(Vyrix_GetTofDataFormat(nullptr, nullptr, eVYRIX_STORAGE_CURRENT), kNotSupported)
        << "Vyrix_GetTofDataFormat";
    EXPECT_EQ(Vyrix_GetTofFrameSize(nullptr, nullptr), kNotSupported) << "Vyrix_GetTofFrameSize";
    EXPECT_EQ(Vyrix_GetTofFrameCount(nullptr, nullptr), kNotSupported) << "Vyrix_GetTofFrameCount";
    EXPECT_EQ(Vyrix_AcquirePcdFrames(nullptr, 0u, nullptr, nullptr), kNotSupported) << "Vyrix_AcquirePcdFrames";
    EXPECT_EQ(Vyrix_SetSystemPowerState(nullptr, eVYRIX_POWER_ON), kNotSupported) << "Vyrix_SetSystemPowerState";
    EXPECT_EQ(Vyrix_GetSystemPowerState(nullptr, nullptr), kNotSupported) << "Vyrix_GetSystemPowerState";
    EXPECT_EQ(Vyrix_SaveAsSplash(nullptr, eVYRIX_RENDER_TARGET_0), kNotSupported) << "Vyrix_SaveAsSplash";
    EXPECT_EQ(Vyrix_SetOSDState(nullptr, eVYRIX_RENDER_TARGET_0, eVYRIX_OSD_OFF), kNotSupported) << "Vyrix_SetOSDState";
    EXPECT_EQ(Vyrix_GetOSDState(nullptr, eVYRIX_RENDER_TARGET_0, nullptr), kNotSupported) << "Vyrix_GetOSDState";
    EXPECT_EQ(Vyrix_SetOSDInfo(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, nullptr), kNotSupported) << "Vyrix_SetOSDInfo";
    EXPECT_EQ(Vyrix_GetOSDInfo(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, nullptr), kNotSupported) << "Vyrix_GetOSDInfo";
    EXPECT_EQ(Vyrix_SetActiveRenderTarget(nullptr, eVYRIX_RENDER_TARGET_0), kNotSupported)
        << "Vyrix_SetActiveRenderTarget";
    EXPECT_EQ(Vyrix_GetActiveRenderTarget(nullptr, nullptr), kNotSupported) << "Vyrix_GetActiveRenderTarget";
    EXPECT_EQ(Vyrix_GetDisplayInfo(nullptr, eVYRIX_RENDER_TARGET_0, nullptr), kNotSupported) << "Vyrix_GetDisplayInfo";
    EXPECT_EQ(Vyrix_LoadBitmapImage(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, nullptr, nullptr, 0), kNotSupported)
        << "Vyrix_LoadBitmapImage";
    EXPECT_EQ(Vyrix_DrawText(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, 0, Vyrix_PointS{}, nullptr, nullptr),
              kNotSupported)
        << "Vyrix_DrawText";
    EXPECT_EQ(Vyrix_GetTextBoxInfo(nullptr, nullptr, 0, nullptr), kNotSupported) << "Vyrix_GetTextBoxInfo";
    EXPECT_EQ(Vyrix_DrawPoint(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, nullptr), kNotSupported) << "Vyrix_DrawPoint";
    EXPECT_EQ(Vyrix_DrawLine(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, nullptr, nullptr), kNotSupported)
        << "Vyrix_DrawLine";
    EXPECT_EQ(Vyrix_DrawTriangle(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, nullptr, nullptr, nullptr), kNotSupported)
        << "Vyrix_DrawTriangle";
    EXPECT_EQ(Vyrix_DrawRectangle(nullptr, eVYRIX_RENDER_TARGET_0, nullptr, nullptr, nullptr), kNotSupported)
        << "Vyrix_DrawRectangle";
    EXPECT_EQ(Vyrix_Render(nullptr, eVYRIX_RENDER_TARGET_0), kNotSupported) << "Vyrix_Render";
    EXPECT_EQ(Vyrix_ClearTarget(nullptr, eVYRIX_RENDER_TARGET_0), kNotSupported) << "Vyrix_ClearTarget";
    EXPECT_EQ(Vyrix_GetTofFrameProperties(nullptr, nullptr, nullptr), kNotSupported) << "Vyrix_GetTofFrameProperties";
    EXPECT_EQ(Vyrix_StartFrameCapture(nullptr), kNotSupported) << "Vyrix_StartFrameCapture";
    EXPECT_EQ(Vyrix_StopFrameCapture(nullptr), kNotSupported) << "Vyrix_StopFrameCapture";
    EXPECT_EQ(Vyrix_AcquireTofFrames(nullptr, 0u, nullptr, nullptr), kNotSupported) << "Vyrix_AcquireTofFrames";
}

TEST(NotSupported, LeavesEveryOutArgumentUntouched) {
    // Built in zeroed storage, so padding compares equal too.
    alignas(Sentinels) unsigned char rawCall[sizeof(Sentinels)] = {};
    alignas(Sentinels) unsigned char rawBefore[sizeof(Sentinels)] = {};
    Sentinels& s = *new (rawCall) Sentinels;
    const Sentinels& before = *new (rawBefore) Sentinels;
    auto& [h, lib, ptr, usb, uart, mode, capture, white, hbc, sensing, tof, power, target, osd, point, size, color,
           tofProps, i32, u32, f32, bytes, text16, words] = s;
    EXPECT_EQ(Vyrix_OpenConnectionUSB(lib, &usb, &ptr), kNotSupported) << "Vyrix_OpenConnectionUSB";
    EXPECT_EQ(Vyrix_OpenConnectionUart(lib, &uart, &ptr), kNotSupported) << "Vyrix_OpenConnectionUart";
    EXPECT_EQ(Vyrix_SetInputCaptureModeInfo(h, &mode, &capture), kNotSupported) << "Vyrix_SetInputCaptureModeInfo";
    EXPECT_EQ(Vyrix_ModifyInputCaptureModeInfo(h, mode, &capture), kNotSupported) << "Vyrix_ModifyInputCaptureModeInfo";
    EXPECT_EQ(Vyrix_GetInputCaptureModeInfo(h, mode, &capture), kNotSupported) << "Vyrix_GetInputCaptureModeInfo";
    EXPECT_EQ(Vyrix_SetActiveCaptureMode(h, mode), kNotSupported) << "Vyrix_SetActiveCaptureMode";
    EXPECT_EQ(Vyrix_GetActiveCaptureMode(h, &mode), kNotSupported) << "Vyrix_GetActiveCaptureMode";
    EXPECT_EQ(Vyrix_CommitInputCaptureMode(h, mode), kNotSupported) << "Vyrix_CommitInputCaptureMode";
    EXPECT_EQ(Vyrix_GetCommitedInputCaptureMode(h, &mode), kNotSupported) << "Vyrix_GetCommitedInputCaptureMode";
    EXPECT_EQ(Vyrix_SetWhitePoint(h, white, 1), kNotSupported) << "Vyrix_SetWhitePoint";
    EXPECT_EQ(Vyrix_GetWhitePoint(h, &white, eVYRIX_STORAGE_SAVED), kNotSupported) << "Vyrix_GetWhitePoint";
    EXPECT_EQ(Vyrix_SetKeystoneCorrection(h, 5, 1), kNotSupported) << "Vyrix_SetKeystoneCorrection";
    EXPECT_EQ(Vyrix_GetKeystoneCorrection(h, &i32, eVYRIX_STORAGE_SAVED), kNotSupported)
        << "Vyrix_GetKeystoneCorrection";
    EXPECT_EQ(Vyrix_SetHorizontalBrightnessCompensationMode(h, hbc, 1), kNotSupported)
        << "Vyrix_SetHorizontalBrightnessCompensationMode";
    EXPECT_EQ(Vyrix_GetHorizontalBrightnessCompensationMode(h, &hbc, eVYRIX_STORAGE_SAVED), kNotSupported)
        << "Vyrix_GetHorizontalBrightnessCompensationMode";
    EXPECT_EQ(Vyrix_SetVerticalScanAngle(h, 1.5f, 1), kNotSupported) << "Vyrix_SetVerticalScanAngle";
    EXPECT_EQ(Vyrix_GetVerticalScanAngle(h, &f32, eVYRIX_STORAGE_SAVED), kNotSupported) << "Vyrix_GetVerticalScanAngle";
    EXPECT_EQ(Vyrix_SetHorizontalScanAngle(h, 1.5f, 1), kNotSupported) << "Vyrix_SetHorizontalScanAngle";
    EXPECT_EQ(Vyrix_GetHorizontalScanAngle(h, &f32, eVYRIX_STORAGE_SAVED), kNotSupported)
        << "Vyrix_GetHorizontalScanAngle";
    EXPECT_EQ(Vyrix_SetSplashScreenTimeout(h, 3u, 1), kNotSupported) << "Vyrix_SetSplashScreenTimeout";
    EXPECT_EQ(Vyrix_GetSplashScreenTimeout(h, &u32, eVYRIX_STORAGE_SAVED), kNotSupported)
        << "Vyrix_GetSplashScreenTimeout";
    EXPECT_EQ(Vyrix_SetSensingDataInterface(h, sensing, 1), kNotSupported) << "Vyrix_SetSensingDataInterface";
    EXPECT_EQ(Vyrix_GetSensingDataInterface(h, &sensing, eVYRIX_STORAGE_SAVED), kNotSupported)
        << "Vyrix_GetSensingDataInterface";
    EXPECT_EQ(Vyrix_SetTofDataFormat(h, tof, 1), kNotSupported) << "Vyrix_SetTofDataFormat";
    EXPECT_EQ(Vyrix_GetTofDataFormat(h, &tof, eVYRIX_STORAGE_SAVED), kNotSupported) << "Vyrix_GetTofDataFormat";
    EXPECT_EQ(Vyrix_GetTofFrameSize(h, &u32), kNotSupported) << "Vyrix_GetTofFrameSize";
    EXPECT_EQ(Vyrix_GetTofFrameCount(h, &u32), kNotSupported) << "Vyrix_GetTofFrameCount";
    EXPECT_EQ(Vyrix_AcquirePcdFrames(h, 4u, words, &u32), kNotSupported) << "Vyrix_AcquirePcdFrames";
    EXPECT_EQ(Vyrix_SetSystemPowerState(h, power), kNotSupported) << "Vyrix_SetSystemPowerState";
    EXPECT_EQ(Vyrix_GetSystemPowerState(h, &power), kNotSupported) << "Vyrix_GetSystemPowerState";
    EXPECT_EQ(Vyrix_SaveAsSplash(h, target), kNotSupported) << "Vyrix_SaveAsSplash";
    EXPECT_EQ(Vyrix_SetOSDState(h, target, osd), kNotSupported) << "Vyrix_SetOSDState";
    EXPECT_EQ(Vyrix_GetOSDState(h, target, &osd), kNotSupported) << "Vyrix_GetOSDState";
    EXPECT_EQ(Vyrix_SetOSDInfo(h, target, &point, &size), kNotSupported) << "Vyrix_SetOSDInfo";
    EXPECT_EQ(Vyrix_GetOSDInfo(h, target, &point, &size), kNotSupported) << "Vyrix_GetOSDInfo";
    EXPECT_EQ(Vyrix_SetActiveRenderTarget(h, target), kNotSupported) << "Vyrix_SetActiveRenderTarget";
    EXPECT_EQ(Vyrix_GetActiveRenderTarget(h, &target), kNotSupported) << "Vyrix_GetActiveRenderTarget";
    EXPECT_EQ(Vyrix_GetDisplayInfo(h, target, &size), kNotSupported) << "Vyrix_GetDisplayInfo";
    EXPECT_EQ(Vyrix_LoadBitmapImage(h, target, &point, &size, bytes, 1), kNotSupported) << "Vyrix_LoadBitmapImage";
    EXPECT_EQ(Vyrix_DrawText(h, target, bytes, 8, point, &color, &color), kNotSupported) << "Vyrix_DrawText";
    EXPECT_EQ(Vyrix_GetTextBoxInfo(h, text16, 4, &size), kNotSupported) << "Vyrix_GetTextBoxInfo";
    EXPECT_EQ(Vyrix_DrawPoint(h, target, &point, &color), kNotSupported) << "Vyrix_DrawPoint";
    EXPECT_EQ(Vyrix_DrawLine(h, target, &point, &point, &color), kNotSupported) << "Vyrix_DrawLine";
    EXPECT_EQ(Vyrix_DrawTriangle(h, target, &point, &point, &point, &color), kNotSupported) << "Vyrix_DrawTriangle";
    EXPECT_EQ(Vyrix_DrawRectangle(h, target, &point, &size, &color), kNotSupported) << "Vyrix_DrawRectangle";
    EXPECT_EQ(Vyrix_Render(h, target), kNotSupported) << "Vyrix_Render";
    EXPECT_EQ(Vyrix_ClearTarget(h, target), kNotSupported) << "Vyrix_ClearTarget";
    EXPECT_EQ(Vyrix_GetTofFrameProperties(h, &tofProps, &tof), kNotSupported) << "Vyrix_GetTofFrameProperties";
    EXPECT_EQ(Vyrix_StartFrameCapture(h), kNotSupported) << "Vyrix_StartFrameCapture";
    EXPECT_EQ(Vyrix_StopFrameCapture(h), kNotSupported) << "Vyrix_StopFrameCapture";
    EXPECT_EQ(Vyrix_AcquireTofFrames(h, 2u, bytes, &u32), kNotSupported) << "Vyrix_AcquireTofFrames";
    EXPECT_EQ(memcmp(&s, &before, sizeof s), 0) << "an out argument was written";
}

TEST(NotSupported, StillAnswersWhileTheLibraryIsOpen) {
    void* library = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    uint32_t size = 0xAAAAAAAA;
    EXPECT_EQ(Vyrix_GetTofFrameSize(library, &size), kNotSupported);
    EXPECT_EQ(Vyrix_SetWhitePoint(library, eVYRIX_WHITE_POINT_D65, 0), kNotSupported);
    EXPECT_EQ(size, 0xAAAAAAAAu);
    Vyrix_CloseLibrary(library);
}

}  // namespace
