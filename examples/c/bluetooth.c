/* SPDX-License-Identifier: MIT */
/* Connects to the device over Bluetooth RFCOMM (it must be paired already)
 * and reads its output video properties.
 * Usage: vyrix-example-bluetooth 00:11:22:33:44:55 [PASSKEY] */
#include <stdio.h>

#include <Vyrix_Api.h>

#include "example.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s ADDRESS [PASSKEY]\n", argv[0]);
        return 2;
    }
    void* library = NULL;
    if (failed("Vyrix_OpenLibrary", Vyrix_OpenLibrary(&library))) return 1;
    Vyrix_ConnectionInfoS info = {0};
    info.connectionType = eVYRIX_CONNECTION_BTH;
    info.bthInfo.pMacID = argv[1];
    info.bthInfo.pPassKey = argc > 2 ? argv[2] : ""; /* never null */
    void* connection = NULL;
    int status = failed("Vyrix_OpenConnection", Vyrix_OpenConnection(library, &connection, info));
    if (status == 0) {
        Vyrix_VideoPropertiesS video = {0};
        status = failed("Vyrix_GetOutputVideoProperties", Vyrix_GetOutputVideoProperties(connection, &video));
        if (status == 0) printf("output %ux%u at %.2f Hz\n", video.width, video.height, (double)video.frameRate);
        Vyrix_CloseConnection(connection);
    }
    Vyrix_CloseLibrary(library);
    return status;
}
