/* SPDX-License-Identifier: MIT */
/* What the examples share: printing a result with its name. */
#ifndef VYRIX_EXAMPLE_H
#define VYRIX_EXAMPLE_H

#include <stdio.h>

#include <Vyrix_Api.h>

/* Prints "what: eVYRIX_... (description)" to stderr when r is a failure;
 * returns non-zero then. */
static inline int failed(const char* what, Vyrix_ReturnStatus r) {
    if (r == eVYRIX_RETURN_SUCCESS) return 0;
    fprintf(stderr, "%s: %s (%s)\n", what, Vyrix_GetResultName(r), Vyrix_GetResultDescription(r));
    return 1;
}

/* The record of a serial connection: 57600 8N1, the device's only setting. */
static inline Vyrix_ConnectionInfoS uart_record(const char* path) {
    Vyrix_ConnectionInfoS info = {0};
    info.connectionType = eVYRIX_CONNECTION_UART;
    info.uartInfo.pPortName = path;
    info.uartInfo.baudRate = 57600;
    info.uartInfo.flowControl = 0;
    info.uartInfo.stopBits = 1;
    return info;
}

#endif
