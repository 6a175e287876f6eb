#include "Upgrade.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

std::string ReadImage(const std::string& path, std::vector<uint8_t>& image) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "cannot read " + path + ": " + strerror(errno);
    struct stat st {};
    std::string why;
    if (fstat(fd, &st) != 0) {
        why = "cannot read " + path + ": " + strerror(errno);
    } else if (S_ISDIR(st.st_mode)) {
        why = path + " is a directory, not a firmware image";
    } else {
        image.clear();
        std::vector<uint8_t> buffer(1 << 16);
        for (;;) {
            const ssize_t n = read(fd, buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                why = "cannot read " + path + ": " + strerror(errno);
                break;
            }
            if (n == 0) break;
            image.insert(image.end(), buffer.begin(), buffer.begin() + n);
        }
        if (why.empty() && image.empty()) why = path + " is empty";
    }
    close(fd);
    return why;
}

bool Decorated(FILE* stream) {
    const char* noColor = getenv("NO_COLOR");
    return isatty(fileno(stream)) && (noColor == nullptr || noColor[0] == '\0');
}

ProgressBar::ProgressBar(bool draw) : draw_(draw), start_(Now()) {}

void ProgressBar::Update(size_t done, size_t total) {
    const double elapsed = Now() - start_;
    rate_ = elapsed > 0 ? static_cast<double>(done) / elapsed : 0;
    if (!draw_) return;
    const int filled = total ? static_cast<int>(kBarWidth * done / total) : kBarWidth;
    fprintf(stderr, "\r[%.*s%*s] %3zu%%  %zu/%zu B  %.1f kB/s", filled, "##############################",
            kBarWidth - filled, "", total ? 100 * done / total : 100, done, total, rate_ / 1000.0);
    fflush(stderr);
}

void ProgressBar::Finish() {
    if (draw_) fprintf(stderr, "\n");
}

}  // namespace vyrix::tools
