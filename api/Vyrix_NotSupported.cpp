// SPDX-License-Identifier: MIT
// Operations of the published interface that this library does not carry
// out: each answers at once that it is not supported and touches nothing.
#include "Vyrix_Api.h"

namespace {
constexpr Vyrix_ReturnStatus kNotSupported = VYRIX_RESULT(eVYRIX_NOT_SUPPORTED);
}

Vyrix_ReturnStatus Vyrix_OpenConnectionUSB(void*, const Vyrix_USBInfoS*, void**) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_OpenConnectionUart(void*, const Vyrix_UartInfoS*, void**) { return kNotSupported; }

Vyrix_ReturnStatus Vyrix_SetInputCaptureModeInfo(void*, Vyrix_VideoModeHandleE*, const Vyrix_VideoCaptureInfoS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_ModifyInputCaptureModeInfo(void*, Vyrix_VideoModeHandleE, const Vyrix_VideoCaptureInfoS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_GetInputCaptureModeInfo(void*, Vyrix_VideoModeHandleE, Vyrix_VideoCaptureInfoS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_SetActiveCaptureMode(void*, Vyrix_VideoModeHandleE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetActiveCaptureMode(void*, Vyrix_VideoModeHandleE*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_CommitInputCaptureMode(void*, Vyrix_VideoModeHandleE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetCommitedInputCaptureMode(void*, Vyrix_VideoModeHandleE*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SetWhitePoint(void*, Vyrix_WhitePointE, int32_t) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetWhitePoint(void*, Vyrix_WhitePointE*, Vyrix_ValueStorageTypeE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SetKeystoneCorrection(void*, int32_t, int32_t) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetKeystoneCorrection(void*, int32_t*, Vyrix_ValueStorageTypeE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SetHorizontalBrightnessCompensationMode(void*, Vyrix_HorizontalBrightnessCompensationModeE,
                                                                 int32_t) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_GetHorizontalBrightnessCompensationMode(void*, Vyrix_HorizontalBrightnessCompensationModeE*,
                                                                 Vyrix_ValueStorageTypeE) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_SetVerticalScanAngle(void*, float, int32_t) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetVerticalScanAngle(void*, float*, Vyrix_ValueStorageTypeE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SetHorizontalScanAngle(void*, float, int32_t) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetHorizontalScanAngle(void*, float*, Vyrix_ValueStorageTypeE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SetSplashScreenTimeout(void*, uint32_t, int32_t) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetSplashScreenTimeout(void*, uint32_t*, Vyrix_ValueStorageTypeE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SetSensingDataInterface(void*, Vyrix_SensingDataInterfaceE, int32_t) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetSensingDataInterface(void*, Vyrix_SensingDataInterfaceE*, Vyrix_ValueStorageTypeE) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_SetTofDataFormat(void*, Vyrix_ToFDataFormatE, int32_t) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetTofDataFormat(void*, Vyrix_ToFDataFormatE*, Vyrix_ValueStorageTypeE) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_GetTofFrameSize(void*, uint32_t*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetTofFrameCount(void*, uint32_t*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_AcquirePcdFrames(void*, uint32_t, uint32_t*, uint32_t*) { return kNotSupported; }

Vyrix_ReturnStatus Vyrix_SetSystemPowerState(void*, Vyrix_PowerStateE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetSystemPowerState(void*, Vyrix_PowerStateE*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SaveAsSplash(void*, Vyrix_RenderTargetE) { return kNotSupported; }

Vyrix_ReturnStatus Vyrix_SetOSDState(void*, Vyrix_RenderTargetE, Vyrix_OSDStateE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetOSDState(void*, Vyrix_RenderTargetE, Vyrix_OSDStateE*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_SetOSDInfo(void*, Vyrix_RenderTargetE, const Vyrix_PointS*, const Vyrix_RectSizeS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_GetOSDInfo(void*, Vyrix_RenderTargetE, Vyrix_PointS*, Vyrix_RectSizeS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_SetActiveRenderTarget(void*, Vyrix_RenderTargetE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetActiveRenderTarget(void*, Vyrix_RenderTargetE*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_GetDisplayInfo(void*, Vyrix_RenderTargetE, Vyrix_RectSizeS*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_LoadBitmapImage(void*, Vyrix_RenderTargetE, const Vyrix_PointS*, const Vyrix_RectSizeS*,
                                         uint8_t*, uint8_t) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_DrawText(void*, Vyrix_RenderTargetE, const uint8_t*, uint16_t, Vyrix_PointS,
                                  const Vyrix_ColorS*, const Vyrix_ColorS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_GetTextBoxInfo(void*, const uint16_t*, uint16_t, Vyrix_RectSizeS*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_DrawPoint(void*, Vyrix_RenderTargetE, const Vyrix_PointS*, const Vyrix_ColorS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_DrawLine(void*, Vyrix_RenderTargetE, const Vyrix_PointS*, const Vyrix_PointS*,
                                  const Vyrix_ColorS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_DrawTriangle(void*, Vyrix_RenderTargetE, const Vyrix_PointS*, const Vyrix_PointS*,
                                      const Vyrix_PointS*, const Vyrix_ColorS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_DrawRectangle(void*, Vyrix_RenderTargetE, const Vyrix_PointS*, const Vyrix_RectSizeS*,
                                       const Vyrix_ColorS*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_Render(void*, Vyrix_RenderTargetE) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_ClearTarget(void*, Vyrix_RenderTargetE) { return kNotSupported; }
