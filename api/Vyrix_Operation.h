/* SPDX-License-Identifier: MIT */
// What every device operation shares: the library check, the argument
// verdict, one command with typed parameters, and the decoding of the reply
// values into the caller's variables.  Each exported operation is then one
// line of description: opcode, parameters, argument rule, reply layout.
#ifndef VYRIX_OPERATION_H
#define VYRIX_OPERATION_H

#include <cstring>
#include <initializer_list>

#include "LLC_LastError.h"
#include "Vyrix_Internal.h"
#include "Vyrix_Opcodes.h"

namespace op {

inline Vyrix_DataS U8(uint8_t v) {
    Vyrix_DataS d{};
    d.type = eDATA_UINT8;
    d.value.u8 = v;
    return d;
}
inline Vyrix_DataS U16(uint16_t v) {
    Vyrix_DataS d{};
    d.type = eDATA_UINT16;
    d.value.u16 = v;
    return d;
}
inline Vyrix_DataS I16(int16_t v) {
    Vyrix_DataS d{};
    d.type = eDATA_INT16;
    d.value.i16 = v;
    return d;
}
inline Vyrix_DataS U32(uint32_t v) {
    Vyrix_DataS d{};
    d.type = eDATA_UINT32;
    d.value.u32 = v;
    return d;
}
inline Vyrix_DataS I32(int32_t v) {
    Vyrix_DataS d{};
    d.type = eDATA_INT32;
    d.value.i32 = v;
    return d;
}
inline Vyrix_DataS F32(float v) {
    Vyrix_DataS d{};
    d.type = eDATA_FLOAT;
    d.value.f32 = v;
    return d;
}
inline Vyrix_DataS Buffer(Vyrix_DataBufferS* b) {
    Vyrix_DataS d{};
    d.type = eDATA_BUFFER;
    d.value.pBuffer = b;
    return d;
}

// Storage rules: a Set writes the current or saved copy; a Get may also
// read the factory copy.
inline bool SetStorage(uint32_t storage) { return storage <= eVYRIX_STORAGE_SAVED; }
inline bool GetStorage(uint32_t storage) { return storage <= eVYRIX_STORAGE_FACTORY; }

// One reply value: its width on the wire and where it goes.
struct Value {
    enum Kind { kU8, kU16, kU32, kF32, kF32Truncated16 } kind;
    void* dest;
};
inline Value Out(uint8_t* p) { return {Value::kU8, p}; }
inline Value Out(uint16_t* p) { return {Value::kU16, p}; }
inline Value Out(int16_t* p) { return {Value::kU16, p}; }
inline Value Out(uint32_t* p) { return {Value::kU32, p}; }
inline Value Out(int32_t* p) { return {Value::kU32, p}; }
inline Value Out(float* p) { return {Value::kF32, p}; }
// A float on the wire, truncated toward zero into a 16-bit variable.
inline Value OutTruncated(int16_t* p) { return {Value::kF32Truncated16, p}; }

// Copies the values in order, packed, from the first reply value byte.
void StoreValues(const unsigned char* at, std::initializer_list<Value> values);

// The parameters of one command (at most four) as an array.
struct Records {
    explicit Records(std::initializer_list<Vyrix_DataS> params) {
        for (const Vyrix_DataS& p : params) items[count++] = p;
    }
    Vyrix_DataS* Data() { return count ? items : nullptr; }
    Vyrix_DataS items[4] = {};
    int count = 0;
};

// The Set pattern: library check, argument verdict, command acknowledged.
Vyrix_ReturnStatus Set(const void* handle, bool argumentsValid, uint8_t opcode,
                       std::initializer_list<Vyrix_DataS> params);

// The Get pattern with a custom reader of the reply values.
template <typename Store>
Vyrix_ReturnStatus Query(const void* handle, bool argumentsValid, uint8_t opcode,
                         std::initializer_list<Vyrix_DataS> params, Store store) {
    CLastError::Clear();
    if (g_pLibCtx == nullptr) return VYRIX_RESULT(eVYRIX_UNINITIALIZED);
    if (!argumentsValid) return VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT);
    try {
        CommandRoute route;
        Vyrix_ReturnStatus r = RouteFor(handle, &route);
        if (r != eVYRIX_RETURN_SUCCESS) return r;
        Records records(params);
        unsigned char* reply = nullptr;
        unsigned short replyLength = 0;
        r = CommandExchange(route, opcode, records.Data(), records.count, &reply, &replyLength, eEP_DEVICE);
        return ReadReply(r, reply, store);
    } catch (...) {
        return VYRIX_RESULT(eVYRIX_INTERNAL_ERROR);
    }
}

// The Get pattern with the reply values in a table.
inline Vyrix_ReturnStatus Get(const void* handle, bool argumentsValid, uint8_t opcode,
                              std::initializer_list<Vyrix_DataS> params, std::initializer_list<Value> values) {
    return Query(handle, argumentsValid, opcode, params,
                 [values](const unsigned char* at) { StoreValues(at, values); });
}

}  // namespace op

#endif  // VYRIX_OPERATION_H
