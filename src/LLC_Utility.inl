// Template bodies of LLC_Utility.h.
#include <cerrno>

template <typename WriteFn>
Vyrix_ReturnStatus WriteWithRetry(const unsigned char* buf, size_t len, WriteFn write) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(buf + done, len - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EBUSY || errno == EAGAIN)) {
            LlcLog("<INFO> %s: Resource is temporarily unavailable\n", "WritePort");
            LLCSleep(KT_WRITE_RETRY_MS);
        } else {
            LlcLog("<ERROR> %s: Write Failed.\n", "WritePort");
            return RC(eVYRIX_FAILURE);
        }
    }
    return RC_OK;
}
