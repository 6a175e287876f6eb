// SPDX-License-Identifier: MIT
#include "Upgrade.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vyrix::tools {

namespace {
double Now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
constexpr int kBarWidth = 30;

std::string KindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}
}  // namespace

ImageFile::~ImageFile() {
    if (fd_ >= 0) close(fd_);
}

std::string ImageFile::Open(const std::string& path) {
    path_ = path;
    // Non-blocking: opening a FIFO nobody writes must not wait.
    fd_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd_ < 0) return "cannot read " + path + ": " + strerror(errno);
    struct stat st {};
    if (fstat(fd_, &st) != 0) return "cannot read " + path + ": " + strerror(errno);
    if (!S_ISREG(st.st_mode)) return path + " is " + KindOf(st.st_mode) + ", not a firmware image file";
    if (st.st_size == 0) return path + " is empty";
    size_ = static_cast<uint64_t>(st.st_size);
    if (size_ > kMaxImageBytes)
        return path + " is " + std::to_string(size_) + " bytes; the largest image is " +
               std::to_string(kMaxImageBytes) + " bytes";
    // A regular file never blocks; reads wait for the disk as usual.
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
    return "";
}

std::string ImageFile::Read(uint8_t* into, size_t length) {
    size_t got = 0;
    while (got < length) {
        const ssize_t n = read(fd_, into + got, length - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return "cannot read " + path_ + ": " + strerror(errno);
        if (n == 0) return path_ + " became shorter while it was sent";
        got += static_cast<size_t>(n);
    }
    return "";
}

UpgradeOutcome SendFirmware(void* handle, uint64_t total, const ImageReader& read, const std::atomic<bool>& stop,
                            const std::function<void(uint64_t, uint64_t)>& progress) {
    UpgradeOutcome outcome;
    std::vector<uint8_t> chunk(kChunkBytes);
    uLong crc = crc32(0, nullptr, 0);
    for (uint32_t index = 0; outcome.sent < total; ++index) {
        if (stop) {
            outcome.stopped = true;
            break;
        }
        const size_t length = static_cast<size_t>(std::min<uint64_t>(kChunkBytes, total - outcome.sent));
        std::fill(chunk.begin(), chunk.end(), 0);
        outcome.failure = read(chunk.data(), length);
        if (!outcome.failure.empty()) break;
        outcome.result = Vyrix_UpgradeSoftware(handle, index, static_cast<uint32_t>(length),
                                               static_cast<uint32_t>(total), chunk.data());
        if (outcome.result != eVYRIX_RETURN_SUCCESS) break;
        crc = crc32(crc, chunk.data(), static_cast<uInt>(length));
        outcome.sent += length;
        if (progress) progress(outcome.sent, total);
    }
    outcome.crc32 = static_cast<uint32_t>(crc);
    return outcome;
}

bool Decorated(FILE* stream) {
    const char* noColor = getenv("NO_COLOR");
    return isatty(fileno(stream)) && (noColor == nullptr || noColor[0] == '\0');
}

ProgressBar::ProgressBar(bool draw) : draw_(draw), start_(Now()) {}

void ProgressBar::Update(uint64_t done, uint64_t total) {
    const double elapsed = Now() - start_;
    rate_ = elapsed > 0 ? static_cast<double>(done) / elapsed : 0;
    if (!draw_) return;
    const int filled = total ? static_cast<int>(kBarWidth * done / total) : kBarWidth;
    fprintf(stderr, "\r[%.*s%*s] %3u%%  %llu/%llu B  %.1f kB/s", filled, "##############################",
            kBarWidth - filled, "", static_cast<unsigned>(total ? 100 * done / total : 100),
            static_cast<unsigned long long>(done), static_cast<unsigned long long>(total), rate_ / 1000.0);
    fflush(stderr);
}

void ProgressBar::Finish() {
    if (draw_) fprintf(stderr, "\n");
}

}  // namespace vyrix::tools
