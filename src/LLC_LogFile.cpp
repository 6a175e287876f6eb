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

// Opens a log file of our own: never through a symbolic link, never
// blocking on whatever is planted under the name (a FIFO), and only a
// regular file owned by this user with no other name.  No truncation
// happens before those checks.
int OpenOwnedFile(const char* path, int extraFlags) {
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | extraFlags, 0644);
    if (fd < 0) return -1;
    struct stat st {};
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
}  // namespace

CLogFile::CLogFile() : m_pFileHandle(nullptr), m_fd(-1), m_writeLock() {
    pthread_mutex_init(&m_writeLock, nullptr);
    char name[kNameBufferSize];
    int fd = -1;
    if (ConfiguredTarget() == LogTarget::kFile && RuntimeFileName(name, sizeof name, "%s", KT_LOG_FILE_NAME))
        fd = OpenOwnedFile(name, 0);
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
    const int length = genUniqueFilename(newFilename, sizeof newFilename);
    if (length > 0) {
        // Always a new file: when another process took the name in the same
        // second, "_<n>" goes before ".log".
        char* const extension = newFilename + length - strlen(".log");
        const size_t room = sizeof newFilename - static_cast<size_t>(extension - newFilename);
        fd = OpenOwnedFile(newFilename, O_EXCL);
        for (unsigned suffix = 1; fd < 0 && errno == EEXIST && suffix <= kUniqueSuffixes; ++suffix) {
            const int n = snprintf(extension, room, "_%u.log", suffix);
            if (n < 0 || static_cast<size_t>(n) >= room) break;
            fd = OpenOwnedFile(newFilename, O_EXCL);
        }
    }
    m_pFileHandle = fd >= 0 ? StreamFor(fd) : nullptr;
    if (m_pFileHandle == nullptr) {
        printf("CLogFile: Open file failed.\n");
        m_pFileHandle = stdout;
    }
}

CLogFile* CLogFile::getInstance() {
    if (m_pCLogInst == nullptr) m_pCLogInst = new CLogFile();
    return m_pCLogInst;
}

CLogFile::~CLogFile() {
    if (m_pCLogInst == nullptr) return;
    if (m_pFileHandle != stdout && m_pFileHandle != stderr && m_pFileHandle != nullptr) {
        if (m_fd >= 0) flock(m_fd, LOCK_UN);
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

void CLogFile::WriteLogFileEx(const char* fmt, va_list varParList) {
    if (fmt == nullptr) return;
    pthread_mutex_lock(&m_writeLock);
    vfprintf(m_pFileHandle, fmt, varParList);
    pthread_mutex_unlock(&m_writeLock);
}

void CLogFile::WriteLogFile(const char* fmt, ...) {
    if (fmt == nullptr) return;
    va_list args;
    va_start(args, fmt);
    WriteLogFileEx(fmt, args);
    va_end(args);
}

void LogStart() {
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
