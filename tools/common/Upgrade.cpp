#include "Upgrade.h"

#include <chrono>
#include <cstdio>

namespace vyrix::tools {

namespace {
double Now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
constexpr int kBarWidth = 30;
}  // namespace

Vyrix_ReturnStatus SendFirmware(void* handle, const std::vector<uint8_t>& image,
                                const std::function<void(size_t, size_t)>& progress) {
    std::vector<uint8_t> chunk(kChunkBytes);
    for (size_t offset = 0, index = 0; offset < image.size(); offset += kChunkBytes, ++index) {
        const size_t length = std::min<size_t>(kChunkBytes, image.size() - offset);
        std::fill(chunk.begin(), chunk.end(), 0);
        std::copy(image.begin() + static_cast<long>(offset), image.begin() + static_cast<long>(offset + length),
                  chunk.begin());
        Vyrix_ReturnStatus r =
            Vyrix_UpgradeSoftware(handle, static_cast<uint32_t>(index), static_cast<uint32_t>(length),
                                  static_cast<uint32_t>(image.size()), chunk.data());
        if (r != eVYRIX_RETURN_SUCCESS) return r;
        if (progress) progress(offset + length, image.size());
    }
    return eVYRIX_RETURN_SUCCESS;
}

ProgressBar::ProgressBar() : start_(Now()) {}

void ProgressBar::Update(size_t done, size_t total) {
    const double elapsed = Now() - start_;
    rate_ = elapsed > 0 ? static_cast<double>(done) / elapsed : 0;
    const int filled = total ? static_cast<int>(kBarWidth * done / total) : kBarWidth;
    fprintf(stderr, "\r[%.*s%*s] %3zu%%  %zu/%zu B  %.1f kB/s", filled, "##############################",
            kBarWidth - filled, "", total ? 100 * done / total : 100, done, total, rate_ / 1000.0);
    fflush(stderr);
}

void ProgressBar::Finish() { fprintf(stderr, "\n"); }

}  // namespace vyrix::tools
