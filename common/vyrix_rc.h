/* SPDX-License-Identifier: MIT */
/*
 * vyrix_rc.h - result codes of libVyrix_Api.
 *
 * Every exported function returns a 32-bit result word (Vyrix_ReturnStatus).
 * A result made by the library carries one of the codes below in bits 24..31
 * and zero in bits 0..23, so the code of a result word r is (r >> 24).  A
 * non-zero status word reported by the device is handed to the application
 * unchanged, including whatever the device put in the low 24 bits.
 */
#ifndef VYRIX_RC_H
#define VYRIX_RC_H

#include <stdint.h>

/* Marks the functions that the shared library exports.  The library is
 * built with hidden visibility and a version script; everything without
 * this mark stays inside it. */
#ifndef VYRIX_API
#if defined(__GNUC__)
#define VYRIX_API __attribute__((visibility("default")))
#else
#define VYRIX_API
#endif
#endif

typedef enum Vyrix_ReturnCodeE {
    eVYRIX_SUCCESS = 0,          /* the operation succeeded */
    eVYRIX_FAILURE = 1,          /* a lock, allocation, validation or close failed */
    eVYRIX_NOT_SUPPORTED = 2,    /* the operation is not carried out by this library */
    eVYRIX_TIMEOUT = 3,          /* a USB transfer timed out */
    eVYRIX_UNINITIALIZED = 4,    /* the library is not open */
    eVYRIX_INVALID_ARGUMENT = 5, /* an argument is missing or out of range */
    eVYRIX_INIT_FAILURE = 6,
    eVYRIX_INCOMPLETE = 7, /* no complete message queued; a transfer was stopped */
    eVYRIX_NOT_IMPLEMENTED = 8,
    eVYRIX_INTERNAL_ERROR = 9, /* an API operation caught an exception */
    eVYRIX_DEVICE_ERROR = 10,
    eVYRIX_RESOURCE_BUSY = 11,
    eVYRIX_RESOURCE_FULL = 12,
    eVYRIX_INVALID_CHECKSUM = 13,
    eVYRIX_INVALID_DATA = 14,
    eVYRIX_INVALID_CONTEXT = 15,
    eVYRIX_ARGUMENT_OUT_OF_RANGE = 16,
    eVYRIX_INVALID_CALL_STATE = 17,
    eVYRIX_CONDITIONS_NOT_CORRECT = 18,
    eVYRIX_NO_MORE_RESOURCES = 19,
    eVYRIX_OS_ERROR = 20,
    eVYRIX_EMPTY = 21,
    eVYRIX_NOT_CONNECTED = 22,       /* no port open, connection unknown, device gone */
    eVYRIX_COMMUNICATION_ERROR = 23, /* the device answered with an error reply */
    eVYRIX_ALREADY_OPENED = 24,      /* library, connection or port already open */
    eVYRIX_BTH_DISABLED = 25,        /* no usable Bluetooth adapter */
    eVYRIX_PAYLOAD_TOO_LARGE = 26,   /* a payload or buffer exceeds 4095 bytes */
    eVYRIX_RETRY = 27,               /* link layer only: the device asked for a resend */
    eVYRIX_RECONNECT_FAILED = 28,
    eVYRIX_MAX_RETURN_CODE_ENUM = 29 /* count of codes; never returned */
} Vyrix_ReturnCodeE;

/* The result word.  Only its width is fixed by the enumeration. */
#ifdef __cplusplus
enum Vyrix_ReturnStatus : uint32_t { eVYRIX_RETURN_SUCCESS = 0, eVYRIX_MAX_RETURN_STATUS_ENUM = 0xFFFFFFFFu };
#else
typedef uint32_t Vyrix_ReturnStatus;
#define eVYRIX_RETURN_SUCCESS ((Vyrix_ReturnStatus)0)
#define eVYRIX_MAX_RETURN_STATUS_ENUM ((Vyrix_ReturnStatus)0xFFFFFFFFu)
#endif

/* The result word that carries a library code. */
#define VYRIX_RESULT(code) ((Vyrix_ReturnStatus)((uint32_t)(code) << 24))
/* The code in bits 24..31 of a result word. */
#define VYRIX_CODE(result) ((uint32_t)(result) >> 24)

/* Compile-time checks of the layouts that cross the interface. */
#ifdef __cplusplus
#define VYRIX_LAYOUT(condition) static_assert(condition, #condition)
#else
#define VYRIX_LAYOUT(condition) _Static_assert(condition, #condition)
#endif

#endif /* VYRIX_RC_H */
