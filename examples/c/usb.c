/* SPDX-License-Identifier: MIT */
/* Lists the devices on USB and connects to one (the first, or the one with
 * the serial number given) to print its status.
 * Usage: vyrix-example-usb [SERIAL] */
#include <stdio.h>

#include <Vyrix_Api.h>
#include <Vyrix_LLC_Api_Ex.h>

#include "example.h"

#define MAX_DEVICES 8

int main(int argc, char** argv) {
    Vyrix_EnumerateUSBInfo found[MAX_DEVICES];
    unsigned int count = 0;
    Vyrix_ReturnStatus r = KtEnumerateUSBDevices(MAX_DEVICES, &count, found);
    if (count == 0) {
        printf("no device on USB (%s)\n", Vyrix_GetResultName(r));
        return 1;
    }
    for (unsigned int i = 0; i < count && i < MAX_DEVICES; ++i)
        printf("product %u, serial %s\n", found[i].productID, found[i].serialNumber);
    const char* serial = argc > 1 ? argv[1] : found[0].serialNumber;

    void* library = NULL;
    if (failed("Vyrix_OpenLibrary", Vyrix_OpenLibrary(&library))) return 1;
    Vyrix_ConnectionInfoS info = {0};
    info.connectionType = eVYRIX_CONNECTION_USB;
    info.usbInfo.productID = 4;
    info.usbInfo.pSerialNumber = serial; /* must stay valid until the connection is closed */
    void* connection = NULL;
    int status = failed("Vyrix_OpenConnection", Vyrix_OpenConnection(library, &connection, info));
    if (status == 0) {
        Vyrix_SystemStatusS system = {0};
        status = failed("Vyrix_GetSystemStatus", Vyrix_GetSystemStatus(connection, &system));
        if (status == 0)
            printf("state %u, errors %u, temperature %.1f C\n", system.statusWord1, system.statusWord2,
                   (double)system.statusValue);
        Vyrix_CloseConnection(connection);
    }
    Vyrix_CloseLibrary(library);
    return status;
}
