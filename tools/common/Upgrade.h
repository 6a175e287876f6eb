// A firmware image sent chunk by chunk, with a progress bar.
#ifndef VYRIX_TOOLS_UPGRADE_H
#define VYRIX_TOOLS_UPGRADE_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "Vyrix_Api.h"

namespace vyrix::tools {

constexpr uint32_t kChunkBytes = 4000;

// Sends the image in 4000-byte chunks: chunk number, bytes used in the chunk
// and the image size go with each.  Calls progress(done, total) after each
// chunk; stops at the first failure.
Vyrix_ReturnStatus SendFirmware(void* handle, const std::vector<uint8_t>& image,
                                const std::function<void(size_t, size_t)>& progress);

// Reads a firmware image whole; returns why it cannot be used (a
// directory, not readable, empty) or "" when it was read.
std::string ReadImage(const std::string& path, std::vector<uint8_t>& image);

// True when `stream` is a terminal and NO_COLOR is not set: only then do
// the programs draw with colours and carriage returns.
bool Decorated(FILE* stream);

// Draws "[#####     ]  50%  20000/40000 B  12.3 kB/s" on one line of stderr
// when `draw` is set; measures the rate either way.
class ProgressBar {
public:
    explicit ProgressBar(bool draw);
    void Update(size_t done, size_t total);
    void Finish();
    double BytesPerSecond() const { return rate_; }

private:
    bool draw_;
    double start_;
    double rate_ = 0;
};

}  // namespace vyrix::tools

#endif
