// SPDX-License-Identifier: MIT
#include "LLC_LogFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "LLC_Common.h"
#include "LLC_Utility.h"

CLogFile* g_pLogFile = nullptr;
CLogFile* CLogFile::m_pCLogInst = nullptr;

namespace {
bool g_bFirstInstance = true;

// Writers hold it shared while they use g_pLogFile; creation and
// destruction hold it exclusively.  Statically initialised, so it outlives
// every static destructor and the unload routine.
pthread_rwlock_t g_logLifetime = PTHREAD_RWLOCK_INITIALIZER;

constexpr size_t kStampSize = 64;
constexpr unsigned kUniqueSuffixes = 100;
constexpr size_t kNameBufferSize = 512;

// The time-stamped log of a process that found the shared file taken.  The
// process's later logs go back to it instead of making a file for every
// port opened; it is known by name and inode, so a file put under the name
// since is never written.  A forked child (another pid) makes its own.
struct UniqueLog {
    pid_t ownerPid;  // 0 while the process has none
    dev_t device;
    ino_t inode;
    char name[kNameBufferSize];
} g_uniqueLog;

// Opens a log file of our own: never through a symbolic link, never
// blocking on whatever is planted under the name (a FIFO), and only a
// regular file owned by this user with no other name.  No truncation
// happens before those checks.  `createFlags`: O_CREAT, O_CREAT | O_EXCL,
// or 0 for a file that must exist.
int OpenOwnedFile(const char* path, int createFlags, struct stat& st) {
    int fd = open(path, O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | createFlags, 0644);
    if (fd < 0) return -1;
    int flags = fcntl(fd, F_GETFL);
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1 || flags < 0 ||
        fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
}

// Where entries go, from $VYRIX_LOG: "file" (or unset, or anything else)
// the log files, "stderr" standard error, "off" nowhere.
enum class LogTarget { kFile, kStderr, kOff };
LogTarget ConfiguredTarget() {
    const char* value = getenv("VYRIX_LOG");
    if (value == nullptr) return LogTarget::kFile;
    if (strcmp(value, "stderr") == 0) return LogTarget::kStderr;
    if (strcmp(value, "off") == 0) return LogTarget::kOff;
    return LogTarget::kFile;
}

bool TimeStampsWanted() {
    const char* value = getenv("VYRIX_LOG_TIME");
    return value != nullptr && strcmp(value, "1") == 0;
}

// "2026-11-23T22:51:03.123+01:00 "
constexpr size_t kTimeStampSize = sizeof "2026-11-23T22:51:03.123+01:00 ";
bool FormatTimeStamp(char (&out)[kTimeStampSize]) {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local {};
    if (localtime_r(&now.tv_sec, &local) == nullptr) return false;
    char seconds[sizeof "2026-11-23T22:51:03"];
    char zone[sizeof "+0100"];
    if (strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &local) == 0 ||
        strftime(zone, sizeof zone, "%z", &local) != 5)
        return false;
    const long millis = now.tv_nsec / 1000000;
    return snprintf(out, sizeof out, "%s.%03ld%.3s:%s ", seconds, millis, zone, zone + 3) > 0;
}

FILE* StreamFor(int fd) {
    FILE* f = fdopen(fd, "a");
    if (f == nullptr) {
        close(fd);
        return nullptr;
    }
    // Entries reach the file line by line, so a crash loses at most the
    // entry being written.
    setvbuf(f, nullptr, _IOLBF, 0);
    return f;
}

// Around fork(): the child gets the log's locks free and no copy of a
// log object in the middle of LogStart, LogEnd or an entry.  Always the
// lifetime lock first, then the write lock, as writers take them.
CLogFile* g_logHeldForFork = nullptr;

void PrepareFork() {
    pthread_rwlock_wrlock(&g_logLifetime);
    g_logHeldForFork = g_pLogFile;
    if (g_logHeldForFork != nullptr) g_logHeldForFork->HoldWritesForFork();
}

void ParentAfterFork() {
    if (g_logHeldForFork != nullptr) g_logHeldForFork->ReleaseWritesAfterFork();
    g_logHeldForFork = nullptr;
    pthread_rwlock_unlock(&g_logLifetime);
}

void ChildAfterFork() {
    if (g_logHeldForFork != nullptr) g_logHeldForFork->ReleaseWritesAfterFork();
    g_logHeldForFork = nullptr;
    // The lock knows its writer by thread id, and the child's thread has
    // another: an unlock alone leaves it taken.  The unlock keeps lock
    // checkers (ThreadSanitizer) in step; the child's only thread held the
    // lock exclusively, so starting it afresh loses nothing.
    pthread_rwlock_unlock(&g_logLifetime);
    pthread_rwlock_init(&g_logLifetime, nullptr);
}

pthread_once_t g_forkHandlersOnce = PTHREAD_ONCE_INIT;
void RegisterForkHandlers() { pthread_atfork(PrepareFork, ParentAfterFork, ChildAfterFork); }
// At load, before any thread can be logging; LogStart makes sure again for
// a log started from another static initialiser.
const int g_forkHandlersAtLoad = pthread_once(&g_forkHandlersOnce, RegisterForkHandlers);
}  // namespace

CLogFile::CLogFile()
    : m_pFileHandle(nullptr),
      m_fd(-1),
      m_ownerPid(getpid()),
      m_stampLines(TimeStampsWanted()),
      m_atLineStart(true),
      m_writeLock() {
    pthread_mutex_init(&m_writeLock, nullptr);
    char name[kNameBufferSize];
    int fd = -1;
    struct stat st {};
    if (ConfiguredTarget() == LogTarget::kFile) {
        if (g_uniqueLog.ownerPid == m_ownerPid) {
            // Once on a file of its own, the process stays there even when
            // the shared file is free again: one log per process.
            ReopenUniqueFile();
            return;
        }
        if (RuntimeFileName(name, sizeof name, "%s", KT_LOG_FILE_NAME)) fd = OpenOwnedFile(name, O_CREAT, st);
    }
    if (fd < 0) {
        m_pFileHandle = stderr;
        return;
    }
    bool first = g_bFirstInstance;
    g_bFirstInstance = false;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        // Another process logs to the shared file: leave it alone.
        close(fd);
        OpenUniqueFile();
        return;
    }
    if (first && ftruncate(fd, 0) != 0) {
        // Keep appending to what is there rather than lose the log.
    }
    m_fd = fd;
    m_pFileHandle = StreamFor(fd);
    if (m_pFileHandle == nullptr) {
        m_fd = -1;
        m_pFileHandle = stderr;
    }
}

void CLogFile::OpenUniqueFile() {
    char newFilename[kNameBufferSize] = {0};
    int fd = -1;
    struct stat st {};
    const int length = genUniqueFilename(newFilename, sizeof newFilename);
    if (length > 0) {
        // Always a new file: when another process took the name in the same
        // second, "_<n>" goes before ".log".
        char* const extension = newFilename + length - strlen(".log");
        const size_t room = sizeof newFilename - static_cast<size_t>(extension - newFilename);
        fd = OpenOwnedFile(newFilename, O_CREAT | O_EXCL, st);
        for (unsigned suffix = 1; fd < 0 && errno == EEXIST && suffix <= kUniqueSuffixes; ++suffix) {
            const int n = snprintf(extension, room, "_%u.log", suffix);
            if (n < 0 || static_cast<size_t>(n) >= room) break;
            fd = OpenOwnedFile(newFilename, O_CREAT | O_EXCL, st);
        }
    }
    if (fd >= 0) {
        g_uniqueLog.ownerPid = m_ownerPid;
        g_uniqueLog.device = st.st_dev;
        g_uniqueLog.inode = st.st_ino;
        memcpy(g_uniqueLog.name, newFilename, sizeof g_uniqueLog.name);
    }
    UseFile(fd);
}

// Appends to the process's time-stamped log, never emptying it; when the
// file is gone or another one is under its name, a new one takes over.
void CLogFile::ReopenUniqueFile() {
    struct stat st {};
    int fd = OpenOwnedFile(g_uniqueLog.name, 0, st);
    if (fd >= 0 && (st.st_dev != g_uniqueLog.device || st.st_ino != g_uniqueLog.inode)) {
        close(fd);
        fd = -1;
    }
    if (fd < 0) {
        OpenUniqueFile();
        return;
    }
    UseFile(fd);
}

void CLogFile::UseFile(int fd) {
    m_pFileHandle = fd >= 0 ? StreamFor(fd) : nullptr;
    if (m_pFileHandle == nullptr) {
        printf("CLogFile: Open file failed.\n");
        m_pFileHandle = stdout;
    }
}

bool CLogFile::OwnsStream() const {
    return m_pFileHandle != nullptr && m_pFileHandle != stdout && m_pFileHandle != stderr;
}

CLogFile* CLogFile::getInstance() {
    if (m_pCLogInst == nullptr) m_pCLogInst = new CLogFile();
    return m_pCLogInst;
}

CLogFile::~CLogFile() {
    if (m_pCLogInst == nullptr) return;
    if (OwnsStream()) {
        // A forked child's copy shares the parent's open file description,
        // and with it the parent's lock: only the process that took the
        // lock lets it go.  Closing the child's descriptor leaves it alone,
        // the parent's is still open.
        if (m_fd >= 0 && m_ownerPid == getpid()) flock(m_fd, LOCK_UN);
        fclose(m_pFileHandle);
    }
    m_pFileHandle = nullptr;
    m_fd = -1;
    pthread_mutex_destroy(&m_writeLock);
    m_pCLogInst = nullptr;
}

int CLogFile::genUniqueFilename(char* uniqueName, size_t size) {
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char sysdate_buffer[kStampSize];
    if (strftime(sysdate_buffer, sizeof sysdate_buffer, "%d%b%Y_%H%M%S", &local) == 0) return -1;
    if (!RuntimeFileName(uniqueName, size, "%s_%s.log", KT_LOG_FILE_PREFIX, sysdate_buffer)) return -1;
    return static_cast<int>(strlen(uniqueName));
}

void CLogFile::WriteTimeStamp() {
    char stamp[kTimeStampSize];
    if (FormatTimeStamp(stamp)) fputs(stamp, m_pFileHandle);
}

void CLogFile::WriteLogFileEx(const char* fmt, va_list varParList) {
    if (fmt == nullptr) return;
    pthread_mutex_lock(&m_writeLock);
    // Some entries leave their line open for the next one: the stamp goes
    // where a line begins, never into the middle of one.
    if (m_stampLines && m_atLineStart) WriteTimeStamp();
    vfprintf(m_pFileHandle, fmt, varParList);
    const size_t length = strlen(fmt);
    if (length > 0) m_atLineStart = fmt[length - 1] == '\n';
    pthread_mutex_unlock(&m_writeLock);
}

void CLogFile::HoldWritesForFork() {
    pthread_mutex_lock(&m_writeLock);
    // Entries end in a newline and go out at once; a partial one left in
    // the buffer would otherwise be written by both processes.
    if (OwnsStream()) fflush(m_pFileHandle);
}

void CLogFile::ReleaseWritesAfterFork() { pthread_mutex_unlock(&m_writeLock); }

void CLogFile::WriteLogFile(const char* fmt, ...) {
    if (fmt == nullptr) return;
    va_list args;
    va_start(args, fmt);
    WriteLogFileEx(fmt, args);
    va_end(args);
}

void LogStart() {
    pthread_once(&g_forkHandlersOnce, RegisterForkHandlers);
    pthread_rwlock_wrlock(&g_logLifetime);
    if (g_pLogFile == nullptr && ConfiguredTarget() != LogTarget::kOff) g_pLogFile = CLogFile::getInstance();
    pthread_rwlock_unlock(&g_logLifetime);
}

void LogEnd() {
    pthread_rwlock_wrlock(&g_logLifetime);
    if (g_pLogFile != nullptr) {
        delete g_pLogFile;
        g_pLogFile = nullptr;
    }
    pthread_rwlock_unlock(&g_logLifetime);
}

bool LogExists() {
    pthread_rwlock_rdlock(&g_logLifetime);
    bool exists = g_pLogFile != nullptr;
    pthread_rwlock_unlock(&g_logLifetime);
    return exists;
}

static void LogWriteV(const char* fmt, va_list args) {
    pthread_rwlock_rdlock(&g_logLifetime);
    if (g_pLogFile != nullptr) g_pLogFile->WriteLogFileEx(fmt, args);
    pthread_rwlock_unlock(&g_logLifetime);
}

void LlcLog(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    LogWriteV(fmt, args);
    va_end(args);
}

extern "C" void KtWriteLogFile(const char* fmt, ...) {
    try {
        if (fmt == nullptr) return;
        va_list args;
        va_start(args, fmt);
        LogWriteV(fmt, args);
        va_end(args);
    } catch (...) {
    }
}
