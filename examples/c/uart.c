/* SPDX-License-Identifier: MIT */
/* Connects to the device on a serial line and prints its system information
 * and brightness.  Usage: vyrix-example-uart /dev/ttyUSB0 */
#include <stdio.h>

#include <Vyrix_Api.h>
#include <vyrix_version.h>

#include "example.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s SERIAL-DEVICE\n", argv[0]);
        return 2;
    }
    printf("built against libVyrix_Api %s\n", VYRIX_VERSION_STRING);
    void* library = NULL;
    if (failed("Vyrix_OpenLibrary", Vyrix_OpenLibrary(&library))) return 1;
    Vyrix_ConnectionInfoS info = uart_record(argv[1]);
    void* connection = NULL;
    int status = failed("Vyrix_OpenConnection", Vyrix_OpenConnection(library, &connection, info));
    if (status == 0) {
        Vyrix_SystemInfoS system = {0};
        uint8_t brightness = 0;
        status = failed("Vyrix_GetSystemInfo", Vyrix_GetSystemInfo(connection, &system)) ||
                 failed("Vyrix_GetBrightness", Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT));
        if (status == 0) printf("device %s, brightness %u\n", system.infoText, brightness);
        Vyrix_CloseConnection(connection);
    }
    Vyrix_CloseLibrary(library);
    return status;
}
