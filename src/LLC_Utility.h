// Small services shared by the ports: sleeping and lock files.
#ifndef LLC_UTILITY_H
#define LLC_UTILITY_H

#include <cstddef>

#include "LLC_Common.h"

#include <sys/types.h>
#include <time.h>

// Which file a lock is: a file planted under the same name later is not
// it, even when it gets the same inode number (its times differ).
struct LockIdentity {
    dev_t dev = 0;
    ino_t ino = 0;
    struct timespec modified = {0, 0};
};

// Creates the lock file `name` exclusively (mode 0644, never through a
// symbolic link); true when this call created it.
bool CreateExclusiveLockFile(const char* name, int* pOpenResult, LockIdentity* identity);

// Deletes the lock file named in `lockName` (if any) when it is still the
// file this process created, and empties the name.  Returns false when a
// name was held but the file could not be deleted or is no longer ours.
bool ReleaseLockFile(char* lockName, const LockIdentity& identity);

#endif  // LLC_UTILITY_H
