/* SPDX-License-Identifier: MIT */
// The sentence about the last failure on the calling thread, for
// Vyrix_GetLastErrorText: what went wrong in words a user can act on, with
// the operating system's reason where there was one.  Each thread has its
// own text; nothing is shared, so any code path may set it without a lock.
#ifndef LLC_LASTERROR_H
#define LLC_LASTERROR_H

class CLastError {
public:
    // Room for one sentence with two paths in it; longer text is cut.
    static constexpr unsigned kCapacity = 512;

    static void Clear();
    static void Set(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // As Set, followed by " (<the text of errnum>)".
    static void SetWithErrno(int errnum, const char* format, ...) __attribute__((format(printf, 2, 3)));
    // The calling thread's text; "" when none.  The storage belongs to the
    // thread and lives as long as it.
    static const char* Text();
    static bool IsSet() { return Text()[0] != '\0'; }
};

#endif  // LLC_LASTERROR_H
