// SPDX-License-Identifier: MIT
#include "Vyrix_Operation.h"

#include <cmath>

namespace op {

namespace {
// Toward zero; a value the device could not mean (NaN, out of range) is
// held to the 16-bit range instead of being undefined.
int16_t TruncateTo16(float f) {
    if (std::isnan(f)) return 0;
    double t = std::trunc(static_cast<double>(f));
    if (t < INT16_MIN) return INT16_MIN;
    if (t > INT16_MAX) return INT16_MAX;
    return static_cast<int16_t>(t);
}
}  // namespace

void StoreValues(const unsigned char* at, std::initializer_list<Value> values) {
    for (const Value& v : values) {
        switch (v.kind) {
            case Value::kU8:
                *static_cast<uint8_t*>(v.dest) = at[0];
                at += 1;
                break;
            case Value::kU16: {
                uint16_t x = Le16(at);
                memcpy(v.dest, &x, sizeof x);
                at += 2;
                break;
            }
            case Value::kU32:
            case Value::kF32: {
                uint32_t x = Le32(at);
                memcpy(v.dest, &x, sizeof x);
                at += 4;
                break;
            }
            case Value::kF32Truncated16: {
                uint32_t bits = Le32(at);
                float f;
                memcpy(&f, &bits, sizeof f);
                *static_cast<int16_t*>(v.dest) = TruncateTo16(f);
                at += 4;
                break;
            }
        }
    }
}

Vyrix_ReturnStatus Set(const void* handle, bool argumentsValid, uint8_t opcode,
                       std::initializer_list<Vyrix_DataS> params) {
    CLastError::Clear();
    if (g_pLibCtx == nullptr) return VYRIX_RESULT(eVYRIX_UNINITIALIZED);
    if (!argumentsValid) return VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT);
    try {
        CommandRoute route;
        Vyrix_ReturnStatus r = RouteFor(handle, &route);
        if (r != eVYRIX_RETURN_SUCCESS) return r;
        Records records(params);
        return CommandExchange(route, opcode, records.Data(), records.count, nullptr, nullptr, eEP_DEVICE);
    } catch (...) {
        return VYRIX_RESULT(eVYRIX_INTERNAL_ERROR);
    }
}

}  // namespace op
