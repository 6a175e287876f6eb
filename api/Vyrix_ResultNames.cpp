// SPDX-License-Identifier: MIT
// Names and one-sentence descriptions of result words.
#include <cstdio>

#include "LLC_LastError.h"
#include "Vyrix_Api.h"

namespace {

struct Entry {
    const char* name;
    const char* description;
};

// Indexed by the code in bits 24..31.
constexpr Entry kEntries[] = {
    {"eVYRIX_SUCCESS", "The operation succeeded."},
    {"eVYRIX_FAILURE", "The operation failed: a lock, an allocation, a reply check or a close did not succeed."},
    {"eVYRIX_NOT_SUPPORTED", "The operation is not carried out by this library."},
    {"eVYRIX_TIMEOUT", "A transfer to or from the device timed out."},
    {"eVYRIX_UNINITIALIZED", "The library is not open."},
    {"eVYRIX_INVALID_ARGUMENT", "An argument is missing or out of range."},
    {"eVYRIX_INIT_FAILURE", "Initialisation failed."},
    {"eVYRIX_INCOMPLETE", "No complete message is queued, or a transfer was stopped."},
    {"eVYRIX_NOT_IMPLEMENTED", "The operation is not implemented."},
    {"eVYRIX_INTERNAL_ERROR", "An internal error occurred in the library."},
    {"eVYRIX_DEVICE_ERROR", "The device reported an error."},
    {"eVYRIX_RESOURCE_BUSY", "The resource is busy."},
    {"eVYRIX_RESOURCE_FULL", "The resource is full."},
    {"eVYRIX_INVALID_CHECKSUM", "A checksum did not match."},
    {"eVYRIX_INVALID_DATA", "The data are not valid."},
    {"eVYRIX_INVALID_CONTEXT", "The context is not valid."},
    {"eVYRIX_ARGUMENT_OUT_OF_RANGE", "An argument is out of range."},
    {"eVYRIX_INVALID_CALL_STATE", "The call is not valid in the current state."},
    {"eVYRIX_CONDITIONS_NOT_CORRECT", "The conditions for the operation are not met."},
    {"eVYRIX_NO_MORE_RESOURCES", "No more resources are available."},
    {"eVYRIX_OS_ERROR", "The operating system reported an error."},
    {"eVYRIX_EMPTY", "There is nothing to return."},
    {"eVYRIX_NOT_CONNECTED",
     "The device is not connected: no port is open, the connection is unknown, or the "
     "device went away."},
    {"eVYRIX_COMMUNICATION_ERROR", "The device answered the command with an error reply."},
    {"eVYRIX_ALREADY_OPENED", "The library, the connection or the port is already open."},
    {"eVYRIX_BTH_DISABLED", "No usable Bluetooth adapter was found."},
    {"eVYRIX_PAYLOAD_TOO_LARGE", "A payload or buffer exceeds 4095 bytes."},
    {"eVYRIX_RETRY", "The device asked for the last packet again."},
    {"eVYRIX_RECONNECT_FAILED", "Reconnecting to the device failed."},
};
static_assert(sizeof kEntries / sizeof kEntries[0] == eVYRIX_MAX_RETURN_CODE_ENUM, "one entry per code");

constexpr const char* kDeviceStatusDescription =
    "The device reported a status of its own; see the device's documentation.";

const Entry* Find(Vyrix_ReturnStatus result) {
    const uint32_t code = VYRIX_CODE(result);
    if ((result & 0x00FFFFFFu) != 0 || code >= eVYRIX_MAX_RETURN_CODE_ENUM) return nullptr;
    return &kEntries[code];
}

}  // namespace

extern "C" const char* Vyrix_GetResultName(Vyrix_ReturnStatus result) {
    if (const Entry* e = Find(result)) return e->name;
    thread_local char text[32];
    snprintf(text, sizeof text, "device status 0x%08X", static_cast<unsigned>(result));
    return text;
}

extern "C" const char* Vyrix_GetResultDescription(Vyrix_ReturnStatus result) {
    const Entry* e = Find(result);
    return e != nullptr ? e->description : kDeviceStatusDescription;
}

extern "C" const char* Vyrix_GetLastErrorText(void) { return CLastError::Text(); }
