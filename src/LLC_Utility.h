// Small services shared by the ports: sleeping and lock files.
#ifndef LLC_UTILITY_H
#define LLC_UTILITY_H

#include <cstddef>

#include "LLC_Common.h"

// Creates the lock file `name` exclusively (mode 0644, never through a
// symbolic link); true when this call created it.
bool CreateExclusiveLockFile(const char* name, int* pOpenResult);

// Deletes the lock file named in `lockName` (if any) and empties the name.
// Returns false when a name was held but the file could not be deleted.
bool ReleaseLockFile(char* lockName);

#endif  // LLC_UTILITY_H
