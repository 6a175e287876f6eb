/* SPDX-License-Identifier: MIT */
// A firmware image sent chunk by chunk, with a progress bar.
#ifndef VYRIX_TOOLS_UPGRADE_H
#define VYRIX_TOOLS_UPGRADE_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "Vyrix_Api.h"

namespace vyrix::tools {

constexpr uint32_t kChunkBytes = 4000;
// Every chunk carries the size of the whole image in a 32-bit word (and its
// own number in another), so no larger image can be described to the
// device.
constexpr uint64_t kMaxImageBytes = UINT32_MAX;

// A firmware image file, opened once and read once, front to back, while
// it is sent: a regular file of 1 to kMaxImageBytes bytes.
class ImageFile {
public:
    ImageFile() = default;
    ~ImageFile();
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;

    // Why the file cannot be an image (missing, not readable, a directory,
    // a FIFO or a device, empty, too large), or "" when it is open.  Never
    // blocks, whatever the path names.
    std::string Open(const std::string& path);
    uint64_t Size() const { return size_; }
    // The next `length` bytes; why they cannot be read ("" when they were).
    std::string Read(uint8_t* into, size_t length);

private:
    std::string path_;
    int fd_ = -1;
    uint64_t size_ = 0;
};

struct UpgradeOutcome {
    Vyrix_ReturnStatus result = eVYRIX_RETURN_SUCCESS;
    std::string failure;   // why the file could not be read, or ""
    uint64_t sent = 0;     // bytes the device acknowledged
    uint32_t crc32 = 0;    // of the bytes acknowledged
    bool stopped = false;  // `stop` was seen between two chunks
};

// Where the bytes of an image come from: fills the next `length` bytes, or
// says why it cannot.
using ImageReader = std::function<std::string(uint8_t* into, size_t length)>;

// Sends a `total`-byte image in 4000-byte chunks: chunk number, bytes used
// in the chunk and the image size go with each.  Calls progress(sent,
// total) after each chunk; stops at the first failure, or before the next
// chunk once `stop` is set, so that no chunk is left half done on the
// device.
UpgradeOutcome SendFirmware(void* handle, uint64_t total, const ImageReader& read, const std::atomic<bool>& stop,
                            const std::function<void(uint64_t, uint64_t)>& progress);

// True when `stream` is a terminal and NO_COLOR is not set: only then do
// the programs draw with colours and carriage returns.
bool Decorated(FILE* stream);

// Draws "[#####     ]  50%  20000/40000 B  12.3 kB/s" on one line of stderr
// when `draw` is set; measures the rate either way.
class ProgressBar {
public:
    explicit ProgressBar(bool draw);
    void Update(uint64_t done, uint64_t total);
    void Finish();
    double BytesPerSecond() const { return rate_; }

private:
    bool draw_;
    double start_;
    double rate_ = 0;
};

}  // namespace vyrix::tools

#endif
