/* SPDX-License-Identifier: MIT */
// The process-wide log: Vyrix_SDK.log in the runtime directory (/tmp unless
// VYRIX_RUNTIME_DIR names another), shared between processes by an advisory
// lock, with a time-stamped file of its own for a process that finds the
// shared file taken (kept for the rest of the process's life).
// VYRIX_LOG=stderr sends the entries to standard error, VYRIX_LOG=off turns
// the log off.  VYRIX_LOG_TIME=1 puts the local time (ISO 8601, with
// milliseconds and the UTC offset) in front of every line; otherwise lines
// are written exactly as logged.  Safe across fork(): a child's copy never takes the parent's
// lock with it.
#ifndef LLC_LOGFILE_H
#define LLC_LOGFILE_H

#include <pthread.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstdio>

class CLogFile {
public:
    static CLogFile* getInstance();
    ~CLogFile();
    CLogFile(const CLogFile&) = delete;
    CLogFile& operator=(const CLogFile&) = delete;

    void WriteLogFile(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void WriteLogFileEx(const char* fmt, va_list varParList);

    // Fills uniqueName (`size` bytes) with "<dir>/Vyrix_SDK_<stamp>.log",
    // <dir> the runtime directory (/tmp by default); returns its length, or
    // -1 when no stamp can be made or the name does not fit.
    static int genUniqueFilename(char* uniqueName, size_t size = 64);

    // The stream entries go to (for tests and diagnostics).
    FILE* Stream() const { return m_pFileHandle; }

    // Held across fork() (pthread_atfork) so that the child's copy is never
    // taken in the middle of an entry.
    void HoldWritesForFork();
    void ReleaseWritesAfterFork();

private:
    CLogFile();
    void OpenUniqueFile();
    void ReopenUniqueFile();
    void UseFile(int fd);
    bool OwnsStream() const;
    void WriteTimeStamp();

    FILE* m_pFileHandle;
    int m_fd;  // the shared file, locked by m_ownerPid; -1 for other targets
    pid_t m_ownerPid;
    bool m_stampLines;   // VYRIX_LOG_TIME=1
    bool m_atLineStart;  // the last entry ended its line
    pthread_mutex_t m_writeLock;
    static CLogFile* m_pCLogInst;
};

// The log through which every writer goes; null while no port is open.  It
// is only read or changed through the functions below, which keep a writer
// on another thread from using a log that is being destroyed.
extern CLogFile* g_pLogFile;

// Creates the log when none exists (a port is being opened).
void LogStart();
// Destroys the log if it exists (a port was closed, or the library unloads).
void LogEnd();
// Whether a log exists now.
bool LogExists();

#endif  // LLC_LOGFILE_H
