/* SPDX-License-Identifier: MIT */
/* Sends a firmware image to the device in 4000-byte chunks and shows the
 * progress.  Usage: vyrix-example-upgrade SERIAL-DEVICE IMAGE */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <Vyrix_Api.h>

#include "example.h"

#define CHUNK 4000

static unsigned char* read_image(const char* path, size_t* size) {
    FILE* f = fopen(path, "rbe"); /* e: close on exec */
    if (f == NULL) return NULL;
    unsigned char* data = NULL;
    size_t used = 0, capacity = 0;
    for (;;) {
        if (used == capacity) {
            capacity = capacity ? capacity * 2 : 65536;
            unsigned char* grown = realloc(data, capacity);
            if (grown == NULL) break;
            data = grown;
        }
        size_t n = fread(data + used, 1, capacity - used, f);
        used += n;
        if (n == 0) break;
    }
    int bad = ferror(f);
    fclose(f);
    if (bad || used == 0) {
        free(data);
        return NULL;
    }
    *size = used;
    return data;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s SERIAL-DEVICE IMAGE\n", argv[0]);
        return 2;
    }
    size_t size = 0;
    unsigned char* image = read_image(argv[2], &size);
    if (image == NULL) {
        fprintf(stderr, "%s: cannot read it, or it is empty\n", argv[2]);
        return 1;
    }
    void* library = NULL;
    if (failed("Vyrix_OpenLibrary", Vyrix_OpenLibrary(&library))) return 1;
    Vyrix_ConnectionInfoS info = uart_record(argv[1]);
    void* connection = NULL;
    int status = failed("Vyrix_OpenConnection", Vyrix_OpenConnection(library, &connection, info));
    const int terminal = isatty(STDOUT_FILENO);
    unsigned char chunk[CHUNK];
    for (size_t offset = 0, index = 0; status == 0 && offset < size; offset += CHUNK, ++index) {
        size_t length = size - offset < CHUNK ? size - offset : CHUNK;
        memset(chunk, 0, sizeof chunk); /* all 4000 bytes go out */
        memcpy(chunk, image + offset, length);
        status = failed("Vyrix_UpgradeSoftware",
                        Vyrix_UpgradeSoftware(connection, (uint32_t)index, (uint32_t)length, (uint32_t)size, chunk));
        if (status == 0)
            printf(terminal ? "\rsent %zu of %zu bytes (%3zu%%)" : "sent %zu of %zu bytes (%zu%%)\n", offset + length,
                   size, 100 * (offset + length) / size);
        fflush(stdout);
    }
    if (terminal) printf("\n");
    if (status == 0) printf("firmware image sent\n");
    free(image);
    if (connection != NULL) Vyrix_CloseConnection(connection);
    Vyrix_CloseLibrary(library);
    return status;
}
