// SPDX-License-Identifier: MIT
// Time-of-flight frame capture: not available on this device family; the
// operations exist so that applications link and can find that out.
#include "Vyrix_Api.h"

namespace {
constexpr Vyrix_ReturnStatus kNotSupported = VYRIX_RESULT(eVYRIX_NOT_SUPPORTED);
}

extern "C" {
Vyrix_ReturnStatus Vyrix_GetTofFrameProperties(void*, Vyrix_TofFramePropertiesS*, Vyrix_ToFDataFormatE*) {
    return kNotSupported;
}
Vyrix_ReturnStatus Vyrix_StartFrameCapture(void*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_StopFrameCapture(void*) { return kNotSupported; }
Vyrix_ReturnStatus Vyrix_AcquireTofFrames(void*, uint32_t, uint8_t*, uint32_t*) { return kNotSupported; }
}
