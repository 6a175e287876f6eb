// SPDX-License-Identifier: MIT
// Opens the library, prints its version and closes it again.
#include <cstdio>

#include "Vyrix_Api.h"

int main() {
    void* library = nullptr;
    Vyrix_ReturnStatus r = Vyrix_OpenLibrary(&library);
    if (r != eVYRIX_RETURN_SUCCESS) {
        std::fprintf(stderr, "Vyrix_OpenLibrary failed: 0x%08X\n", static_cast<unsigned>(r));
        return 1;
    }
    Vyrix_LibraryInfoS info{};
    r = Vyrix_GetLibraryInfo(library, &info);
    if (r == eVYRIX_RETURN_SUCCESS)
        std::printf("libVyrix_Api version %u.%u.%u build %u\n", info.majorVersion, info.minorVersion, info.revision,
                    static_cast<unsigned>(info.build));
    Vyrix_CloseLibrary(library);
    return r == eVYRIX_RETURN_SUCCESS ? 0 : 1;
}
