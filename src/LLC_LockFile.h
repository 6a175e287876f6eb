// The lock file that marks a device as taken.  The file is created
// exclusively and an exclusive advisory lock (flock) is held on it for as
// long as the port is open, so a file whose lock is free was left by a
// process that died: it is taken over.  Only the file this object created
// or took over is ever deleted.
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
    // it.  True when the device is now ours; otherwise *pOpenResult is -1
    // and nothing was changed.
    bool Acquire(const char* name, int* pOpenResult);

    // Deletes the file named in `lockName` (if any) when it is still the one
    // this object holds, drops the advisory lock and empties the name.
    // False when a name was held but its file could not be deleted or is no
    // longer ours.
    bool Release(char* lockName);

    bool Held() const { return m_fd >= 0; }

private:
    enum class Attempt { kTaken, kRefused, kRetry };
    Attempt TryCreate(const char* name);
    Attempt TryTakeOver(const char* name);
    void Remember(int fd, const struct stat& st);

    int m_fd = -1;
    // Which file is ours: a file planted under the same name later is not
    // it, even when it gets the same inode number (its times differ).
    dev_t m_dev = 0;
    ino_t m_ino = 0;
    struct timespec m_modified = {0, 0};
};

#endif  // LLC_LOCKFILE_H
