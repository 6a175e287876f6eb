#include "ResultNames.h"

#include <cstdio>

namespace vyrix::tools {

namespace {
const char* const kNames[] = {"eVYRIX_SUCCESS",
                              "eVYRIX_FAILURE",
                              "eVYRIX_NOT_SUPPORTED",
                              "eVYRIX_TIMEOUT",
                              "eVYRIX_UNINITIALIZED",
                              "eVYRIX_INVALID_ARGUMENT",
                              "eVYRIX_INIT_FAILURE",
                              "eVYRIX_INCOMPLETE",
                              "eVYRIX_NOT_IMPLEMENTED",
                              "eVYRIX_INTERNAL_ERROR",
                              "eVYRIX_DEVICE_ERROR",
                              "eVYRIX_RESOURCE_BUSY",
                              "eVYRIX_RESOURCE_FULL",
                              "eVYRIX_INVALID_CHECKSUM",
                              "eVYRIX_INVALID_DATA",
                              "eVYRIX_INVALID_CONTEXT",
                              "eVYRIX_ARGUMENT_OUT_OF_RANGE",
                              "eVYRIX_INVALID_CALL_STATE",
                              "eVYRIX_CONDITIONS_NOT_CORRECT",
                              "eVYRIX_NO_MORE_RESOURCES",
                              "eVYRIX_OS_ERROR",
                              "eVYRIX_EMPTY",
                              "eVYRIX_NOT_CONNECTED",
                              "eVYRIX_COMMUNICATION_ERROR",
                              "eVYRIX_ALREADY_OPENED",
                              "eVYRIX_BTH_DISABLED",
                              "eVYRIX_PAYLOAD_TOO_LARGE",
                              "eVYRIX_RETRY",
                              "eVYRIX_RECONNECT_FAILED"};
}  // namespace

std::string ResultName(uint32_t result) {
    const uint32_t code = result >> 24;
    if ((result & 0x00FFFFFFu) == 0 && code < sizeof kNames / sizeof kNames[0]) return kNames[code];
    char text[40];
    snprintf(text, sizeof text, "device status 0x%08X", result);
    return text;
}

}  // namespace vyrix::tools
