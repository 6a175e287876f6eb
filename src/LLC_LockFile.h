/* SPDX-License-Identifier: MIT */
// The lock file that marks a device as taken.  The file is created
// exclusively, holds the holder's process id as text ("%10d\n", the form
// serial lock files have always had) and an exclusive advisory lock (flock)
// is held on it for as long as the port is open.  Programs that take the
// same name without flock are honoured: a file is taken over only when
// nobody locks it and it is left over, its process gone or the file older
// than the system's boot.  Only the file this object created or took over
// is ever deleted.
#ifndef LLC_LOCKFILE_H
#define LLC_LOCKFILE_H

#include <sys/types.h>
#include <time.h>

class CLockFile {
public:
    CLockFile() = default;
    ~CLockFile();
    CLockFile(const CLockFile&) = delete;
    CLockFile& operator=(const CLockFile&) = delete;

    // Creates the lock file `name` (mode 0644, never through a symbolic
    // link), or takes over a stale one, logging an "<INFO>" entry that names
    // it; either way the file then holds this process's id.  True when the
    // device is now ours; otherwise *pOpenResult is -1 and another holder's
    // file was left as it was (one this call failed to write is removed).
    bool Acquire(const char* name, int* pOpenResult);

    // Deletes the file named in `lockName` (if any) when it is still the one
    // this object holds, drops the advisory lock and empties the name.
    // False when a name was held but its file could not be deleted or is no
    // longer ours.
    bool Release(char* lockName);

    bool Held() const { return m_fd >= 0; }

    // The process that the lock file `name` names (the holder that made an
    // Acquire fail), or 0 when it names nobody or cannot be read.
    static pid_t HolderOf(const char* name);

private:
    enum class Attempt { kTaken, kRefused, kRetry };
    Attempt TryCreate(const char* name);
    Attempt TryTakeOver(const char* name);
    Attempt Claim(const char* name, int fd, int out);
    void Remember(int fd, const struct stat& st);

    int m_fd = -1;
    // Which file is ours: a file planted under the same name later is not
    // it, even when it gets the same inode number (its times differ).
    dev_t m_dev = 0;
    ino_t m_ino = 0;
    struct timespec m_modified = {0, 0};
};

#endif  // LLC_LOCKFILE_H
