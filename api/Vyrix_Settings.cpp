// SPDX-License-Identifier: MIT
// Picture, video and sensing settings: one command each.
#include "Vyrix_Operation.h"

using namespace op;

namespace {
constexpr uint8_t kMaxBrightness = 100;
constexpr int32_t kMaxColorMode = 4;
constexpr float kMinGamma = 1.0f;
constexpr float kMaxGamma = 3.0f;
constexpr uint32_t kGammaBoostChannels = 3;
constexpr uint32_t kMaxFlipState = 3;
constexpr int16_t kBiPhaseLimit = 100;
constexpr int32_t kMaxSelector2 = 4;
constexpr int16_t kAlignmentLimit = 32;
constexpr int32_t kMaxConverterIndex = 8;
constexpr int32_t kMinConverterValue = -65536;
constexpr int32_t kMaxConverterValue = 65535;
constexpr uint32_t kMaxFrameRateMode = 2;

bool OnOff(uint32_t v) { return v <= 1; }
}  // namespace

extern "C" {

Vyrix_ReturnStatus Vyrix_GetInputVideoProperties(void* handle, uint16_t* width, uint16_t* height, float* frameRate) {
    return Get(handle, handle && width && height && frameRate, eOP_GET_INPUT_VIDEO_PROPERTIES, {},
               {Out(width), Out(height), Out(frameRate)});
}

Vyrix_ReturnStatus Vyrix_SetInputVideoState(void* handle, uint32_t state, uint32_t storage) {
    return Set(handle, handle && OnOff(state), eOP_SET_INPUT_VIDEO_STATE, {U32(state), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetInputVideoState(void* handle, uint32_t* state, uint32_t storage) {
    return Get(handle, handle && state, eOP_GET_INPUT_VIDEO_STATE, {U32(storage)}, {Out(state)});
}

Vyrix_ReturnStatus Vyrix_SetBrightness(void* handle, uint8_t brightness, Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && SetStorage(storage) && brightness <= kMaxBrightness, eOP_SET_BRIGHTNESS,
               {U8(brightness), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetBrightness(void* handle, uint8_t* brightness, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && GetStorage(storage) && brightness, eOP_GET_BRIGHTNESS, {U32(storage)},
               {Out(brightness)});
}

Vyrix_ReturnStatus Vyrix_SetColorMode(void* handle, int32_t colorMode, Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && SetStorage(storage) && colorMode <= kMaxColorMode, eOP_SET_COLOR_MODE,
               {U32(static_cast<uint32_t>(colorMode)), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetColorMode(void* handle, int32_t* colorMode, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && GetStorage(storage) && colorMode, eOP_GET_COLOR_MODE, {U32(storage)},
               {Out(colorMode)});
}

Vyrix_ReturnStatus Vyrix_SetGamma(void* handle, uint32_t channel, float gamma, Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && SetStorage(storage) && gamma >= kMinGamma && gamma <= kMaxGamma, eOP_SET_GAMMA,
               {U32(channel), F32(gamma), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetGamma(void* handle, uint32_t channel, float* gamma, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && GetStorage(storage) && gamma, eOP_GET_GAMMA, {U32(channel), U32(storage)},
               {Out(gamma)});
}

Vyrix_ReturnStatus Vyrix_SetVideoGammaBoostMode(void* handle, uint32_t channel, uint32_t mode,
                                                Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && channel < kGammaBoostChannels && SetStorage(storage) && OnOff(mode),
               eOP_SET_VIDEO_GAMMA_BOOST, {U32(channel), U32(mode), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetVideoGammaBoostMode(void* handle, uint32_t channel, uint32_t* mode,
                                                Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && channel < kGammaBoostChannels && GetStorage(storage) && mode,
               eOP_GET_VIDEO_GAMMA_BOOST, {U32(channel), U32(storage)}, {Out(mode)});
}

Vyrix_ReturnStatus Vyrix_SetMicroWeaveMode(void* handle, uint32_t mode, Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && OnOff(mode) && SetStorage(storage), eOP_SET_MICROWEAVE, {U32(mode), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetMicroWeaveMode(void* handle, uint32_t* mode, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && GetStorage(storage) && mode, eOP_GET_MICROWEAVE, {U32(storage)}, {Out(mode)});
}

Vyrix_ReturnStatus Vyrix_SetFlipState(void* handle, uint32_t flipState, Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && flipState <= kMaxFlipState && SetStorage(storage), eOP_SET_FLIP_STATE,
               {U32(flipState), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetFlipState(void* handle, uint32_t* flipState, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && GetStorage(storage) && flipState, eOP_GET_FLIP_STATE, {U32(storage)},
               {Out(flipState)});
}

Vyrix_ReturnStatus Vyrix_SetOutputVideoState(void* handle, uint32_t state, uint32_t storage) {
    return Set(handle, handle && OnOff(state), eOP_SET_OUTPUT_VIDEO_STATE, {U32(state), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetOutputVideoState(void* handle, uint32_t* state, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && GetStorage(storage) && state, eOP_GET_OUTPUT_VIDEO_STATE, {U32(storage)},
               {Out(state)});
}

Vyrix_ReturnStatus Vyrix_GetOutputVideoProperties(void* handle, Vyrix_VideoPropertiesS* properties) {
    if (handle == nullptr || properties == nullptr) return Get(handle, false, eOP_GET_OUTPUT_VIDEO_PROPERTIES, {}, {});
    return Get(handle, true, eOP_GET_OUTPUT_VIDEO_PROPERTIES, {},
               {Out(&properties->width), Out(&properties->height), Out(&properties->frameRate)});
}

Vyrix_ReturnStatus Vyrix_SetBiPhase(void* handle, int16_t biPhase, Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && SetStorage(storage) && biPhase >= -kBiPhaseLimit && biPhase <= kBiPhaseLimit,
               eOP_SET_BIPHASE, {I16(biPhase), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetBiPhase(void* handle, int16_t* biPhase, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && GetStorage(storage) && biPhase, eOP_GET_BIPHASE, {U32(storage)}, {Out(biPhase)});
}

Vyrix_ReturnStatus Vyrix_SetColorAlignment(void* handle, uint32_t selector1, int32_t selector2, int16_t offset,
                                           Vyrix_ValueStorageTypeE storage) {
    return Set(handle,
               handle && SetStorage(storage) && OnOff(selector1) && selector2 >= 0 && selector2 <= kMaxSelector2 &&
                   offset >= -kAlignmentLimit && offset <= kAlignmentLimit,
               eOP_SET_COLOR_ALIGNMENT,
               {U32(selector1), U32(static_cast<uint32_t>(selector2)), F32(static_cast<float>(offset)), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetColorAlignment(void* handle, uint32_t selector1, int32_t selector2, int16_t* offset,
                                           Vyrix_ValueStorageTypeE storage) {
    return Get(
        handle,
        handle && selector2 >= 0 && selector2 <= kMaxSelector2 && OnOff(selector1) && GetStorage(storage) && offset,
        eOP_GET_COLOR_ALIGNMENT, {U32(selector1), U32(static_cast<uint32_t>(selector2)), U32(storage)},
        {OutTruncated(offset)});
}

Vyrix_ReturnStatus Vyrix_SetColorConverter(void* handle, int32_t index, int32_t value,
                                           Vyrix_ValueStorageTypeE storage) {
    return Set(handle,
               handle && SetStorage(storage) && index >= 0 && index <= kMaxConverterIndex &&
                   value >= kMinConverterValue && value <= kMaxConverterValue,
               eOP_SET_COLOR_CONVERTER,
               {U32(static_cast<uint32_t>(index)), I32(value), I32(static_cast<int32_t>(storage))});
}

Vyrix_ReturnStatus Vyrix_GetColorConverter(void* handle, int32_t index, int32_t* value,
                                           Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && index >= 0 && index <= kMaxConverterIndex && GetStorage(storage) && value,
               eOP_GET_COLOR_CONVERTER, {U32(static_cast<uint32_t>(index)), U32(storage)}, {Out(value)});
}

Vyrix_ReturnStatus Vyrix_SetFrameRateMode(void* handle, Vyrix_FrameRateS frameRate, uint32_t storage) {
    return Set(handle, handle && frameRate.mode <= kMaxFrameRateMode, eOP_SET_FRAME_RATE_MODE,
               {U32(frameRate.mode), U32(frameRate.param1), U32(frameRate.param2), U32(storage)});
}

Vyrix_ReturnStatus Vyrix_GetFrameRateMode(void* handle, Vyrix_FrameRateS* frameRate, Vyrix_ValueStorageTypeE storage) {
    if (handle == nullptr || frameRate == nullptr) return Get(handle, false, eOP_GET_FRAME_RATE_MODE, {}, {});
    return Get(handle, GetStorage(storage), eOP_GET_FRAME_RATE_MODE, {U32(storage)},
               {Out(&frameRate->mode), Out(&frameRate->param1), Out(&frameRate->param2)});
}

Vyrix_ReturnStatus Vyrix_SetSensingState(void* handle, uint32_t state, Vyrix_ValueStorageTypeE storage) {
    return Set(handle, handle && SetStorage(storage) && OnOff(state), eOP_SET_SENSING_STATE,
               {I32(static_cast<int32_t>(state)), I32(static_cast<int32_t>(storage))});
}

Vyrix_ReturnStatus Vyrix_GetSensingState(void* handle, uint32_t* state, Vyrix_ValueStorageTypeE storage) {
    return Get(handle, handle && state && GetStorage(storage), eOP_GET_SENSING_STATE,
               {I32(static_cast<int32_t>(storage))}, {Out(state)});
}

}  // extern "C"
