// SPDX-License-Identifier: MIT
// Opens the library, connects to the device on the serial line given as the
// first argument (if any), reads its brightness and closes again.
#include <Vyrix_Api.h>

#include <cstdio>

int main(int argc, char** argv) {
    void* library = nullptr;
    if (Vyrix_OpenLibrary(&library) != eVYRIX_RETURN_SUCCESS) return 1;
    Vyrix_LibraryInfoS info{};
    Vyrix_GetLibraryInfo(library, &info);
    std::printf("libVyrix_Api %u.%u.%u\n", info.majorVersion, info.minorVersion, info.revision);
    int status = 0;
    if (argc > 1) {
        Vyrix_ConnectionInfoS record{};
        record.connectionType = eVYRIX_CONNECTION_UART;
        record.uartInfo = Vyrix_UartInfoS{argv[1], 57600, 0, 1};
        void* connection = nullptr;
        Vyrix_ReturnStatus r = Vyrix_OpenConnection(library, &connection, record);
        uint8_t brightness = 0;
        if (r == eVYRIX_RETURN_SUCCESS) r = Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT);
        std::printf("brightness %u (result 0x%08X)\n", brightness, static_cast<unsigned>(r));
        status = r == eVYRIX_RETURN_SUCCESS ? 0 : 1;
        if (connection) Vyrix_CloseConnection(connection);
    }
    Vyrix_CloseLibrary(library);
    return status;
}
