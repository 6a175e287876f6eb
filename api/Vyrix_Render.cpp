// SPDX-License-Identifier: MIT
// Test patterns: the one drawing operation the device carries out here.
#include "Vyrix_Operation.h"

using namespace op;

namespace {
constexpr int32_t kMaxPattern = 4;
}

extern "C" Vyrix_ReturnStatus Vyrix_DrawTestPattern(void* handle, int32_t patternSelect, uint32_t patternParam1,
                                                    uint32_t patternParam2) {
    return Set(handle, handle && patternSelect <= kMaxPattern, eOP_DRAW_TEST_PATTERN,
               {U32(static_cast<uint32_t>(patternSelect)), U32(patternParam1), U32(patternParam2)});
}
