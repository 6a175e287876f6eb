// SPDX-License-Identifier: MIT
#include "LLC_LastError.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {
// A plain array: nothing to construct or destroy when a thread starts or
// ends, so the text is safe to set from any thread at any time.
thread_local char t_text[CLastError::kCapacity];

void Format(const char* format, va_list args) { vsnprintf(t_text, sizeof t_text, format, args); }
}  // namespace

void CLastError::Clear() { t_text[0] = '\0'; }

void CLastError::Set(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Format(format, args);
    va_end(args);
}

void CLastError::SetWithErrno(int errnum, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Format(format, args);
    va_end(args);
    char reason[128];
    // The GNU strerror_r returns its text, not always in `reason`.
    const char* text = strerror_r(errnum, reason, sizeof reason);
    const size_t used = strlen(t_text);
    snprintf(t_text + used, sizeof t_text - used, " (%s)", text);
}

const char* CLastError::Text() { return t_text; }
