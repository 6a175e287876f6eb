// SPDX-License-Identifier: MIT
// Linked into every test program: before anything else runs, the library's
// log and lock files are sent to a directory of this program's own
// (VYRIX_RUNTIME_DIR), removed again when the program ends.  Test programs
// thus never meet other users of /tmp, nor each other under ctest -j.
// Processes the tests start inherit the directory; a program that re-executes
// itself (same process id) keeps it.
#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr char kDirVariable[] = "VYRIX_RUNTIME_DIR";
constexpr char kOwnerVariable[] = "VYRIX_TEST_RUNTIME_OWNER";

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

class PrivateRuntimeDir {
public:
    PrivateRuntimeDir() {
        const std::string self = std::to_string(getpid());
        const char* dir = getenv(kDirVariable);
        const char* owner = getenv(kOwnerVariable);
        if (dir != nullptr && owner != nullptr) {
            if (self == owner) dir_ = dir;  // this program, re-executed
            return;                         // started by a test: the directory is its parent's
        }
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/vyrix-test.XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        dir_ = pattern;
        setenv(kDirVariable, dir_.c_str(), 1);
        setenv(kOwnerVariable, self.c_str(), 1);
    }
    ~PrivateRuntimeDir() {
        // Forked children run this too when they exit: only the creator
        // removes the directory.
        const char* owner = getenv(kOwnerVariable);
        if (dir_.empty() || owner == nullptr || std::to_string(getpid()) != owner) return;
        nftw(dir_.c_str(), RemoveEntry, 8, FTW_DEPTH | FTW_PHYS);
    }
    PrivateRuntimeDir(const PrivateRuntimeDir&) = delete;
    PrivateRuntimeDir& operator=(const PrivateRuntimeDir&) = delete;

private:
    std::string dir_;
};

PrivateRuntimeDir g_privateRuntimeDir;

}  // namespace

// LeakSanitizer's check at exit, in a child forked from a test: the child
// holds the memory of its parent's other threads (their stacks and what
// they own) without the threads, so everything they owned would read as
// leaked.  The test program's own process is checked as always.
namespace {
const pid_t g_testProcess = getpid();
}  // namespace

extern "C" int __lsan_is_turned_off() { return getpid() != g_testProcess; }
