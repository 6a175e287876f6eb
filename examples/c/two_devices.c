/* SPDX-License-Identifier: MIT */
/* Drives two devices at once, one thread each: every connection's handle
 * routes its commands to its own device.
 * Usage: vyrix-example-two-devices /dev/ttyUSB0 /dev/ttyUSB1 */
#include <pthread.h>
#include <stdio.h>

#include <Vyrix_Api.h>

#include "example.h"

typedef struct Device {
    const char* path;
    void* connection;
    uint8_t brightness;
    int status;
} Device;

/* Sets a brightness of the device's own and reads it back. */
static void* Drive(void* arg) {
    Device* device = arg;
    uint8_t back = 0;
    device->status =
        failed(device->path, Vyrix_SetBrightness(device->connection, device->brightness, eVYRIX_STORAGE_CURRENT)) ||
        failed(device->path, Vyrix_GetBrightness(device->connection, &back, eVYRIX_STORAGE_CURRENT));
    if (device->status == 0) printf("%s: brightness %u\n", device->path, back);
    return NULL;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s SERIAL-DEVICE SERIAL-DEVICE\n", argv[0]);
        return 2;
    }
    void* library = NULL;
    if (failed("Vyrix_OpenLibrary", Vyrix_OpenLibrary(&library))) return 1;
    Device devices[2] = {{argv[1], NULL, 30, 1}, {argv[2], NULL, 60, 1}};
    int status = 0;
    for (int i = 0; i < 2 && status == 0; ++i) {
        Vyrix_ConnectionInfoS info = uart_record(devices[i].path);
        status = failed(devices[i].path, Vyrix_OpenConnection(library, &devices[i].connection, info));
    }
    if (status == 0) {
        pthread_t threads[2];
        for (int i = 0; i < 2; ++i) pthread_create(&threads[i], NULL, Drive, &devices[i]);
        for (int i = 0; i < 2; ++i) pthread_join(threads[i], NULL);
        status = devices[0].status || devices[1].status;
    }
    Vyrix_CloseLibrary(library); /* closes both connections */
    return status;
}
