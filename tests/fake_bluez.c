/* SPDX-License-Identifier: MIT */
/*
 * A narrow stand-in for the Bluetooth adapter, linked into the Bluetooth
 * test program only.  Its definitions come first in symbol lookup, so the
 * shipped library's calls land here:
 *   - hci_get_route / hci_open_dev: adapter present or not, radio failing;
 *   - hci_inquiry / hci_read_remote_name: answers from a file;
 *   - socket(AF_BLUETOOTH, ..., BTPROTO_RFCOMM): an AF_UNIX stream socket;
 *   - connect: the RFCOMM address and channel name a socket path; no such
 *     path is a device that is switched off;
 *   - setsockopt: recorded, then done natively.
 * The test's choices live in the directory named by VYRIX_FAKE_BT_DIR:
 * files "adapter", "radio-fails", "socket-fails", "inquiry-fails", and
 * "inquiry" with one device a line: "AA:BB:CC:DD:EE:FF [name]".
 */
#define _GNU_SOURCE
#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/rfcomm.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

/* What the library asked for, for the tests to check. */
int vyrix_fake_last_inquiry_length = -1;
int vyrix_fake_last_inquiry_max = -1;
long vyrix_fake_last_inquiry_flags = -1;
int vyrix_fake_timeouts_set = 0;   /* SO_RCVTIMEO/SO_SNDTIMEO of 2 s */
int vyrix_fake_rfcomm_cloexec = 0; /* the last RFCOMM socket asked for SOCK_CLOEXEC */

#define MAX_FD 4096
static unsigned char rfcomm_fd[MAX_FD];

/* The test's file `name`, opened for reading, or NULL. */
static FILE* Chosen(const char* name) {
    const char* dir = getenv("VYRIX_FAKE_BT_DIR");
    char path[256];
    snprintf(path, sizeof path, "%s/%s", dir ? dir : "/nonexistent", name);
    return fopen(path, "re");
}

static int Choice(const char* name) {
    FILE* f = Chosen(name);
    if (f != NULL) fclose(f);
    return f != NULL;
}

int hci_get_route(bdaddr_t* bdaddr) {
    (void)bdaddr;
    if (Choice("adapter")) return 0;
    errno = ENODEV;
    return -1;
}

int hci_open_dev(int dev_id) {
    if (dev_id >= 0 && Choice("adapter") && !Choice("radio-fails")) return open("/dev/null", O_RDONLY | O_CLOEXEC);
    errno = ENODEV;
    return -1;
}

/* Device `i` of the inquiry file: its address and name ("" when none). */
static int Device(int i, char address[32], char name[256]) {
    FILE* f = Chosen("inquiry");
    char line[512];
    int used = 0, found = 0;
    while (f != NULL && !found && fgets(line, sizeof line, f) != NULL)
        found = sscanf(line, "%31s %n", address, &used) >= 1 && i-- == 0;
    if (found) snprintf(name, 256, "%.*s", (int)strcspn(line + used, "\n"), line + used);
    if (f != NULL) fclose(f);
    return found;
}

int hci_inquiry(int dev_id, int len, int num_rsp, const uint8_t* lap, inquiry_info** ii, long flags) {
    (void)dev_id;
    (void)lap;
    vyrix_fake_last_inquiry_length = len;
    vyrix_fake_last_inquiry_max = num_rsp;
    vyrix_fake_last_inquiry_flags = flags;
    if (Choice("inquiry-fails")) return (errno = EIO, -1);
    if (*ii == NULL) *ii = calloc((size_t)num_rsp, sizeof(inquiry_info));
    char address[32], name[256];
    int n = 0;
    for (; n < num_rsp && Device(n, address, name); ++n) {
        memset(&(*ii)[n], 0, sizeof(inquiry_info));
        str2ba(address, &(*ii)[n].bdaddr);
    }
    return n;
}

int hci_read_remote_name(int sock, const bdaddr_t* ba, int len, char* name, int timeout) {
    (void)sock;
    (void)timeout;
    char wanted[32], address[32], text[256];
    ba2str(ba, wanted);
    for (int i = 0; Device(i, address, text); ++i) {
        if (strcasecmp(address, wanted) != 0) continue;
        if (*text == '\0') break;         /* no name: the request fails */
        strncpy(name, text, (size_t)len); /* as BlueZ does: the whole buffer is written */
        return 0;
    }
    errno = EIO;
    return -1;
}

int socket(int domain, int type, int protocol) {
    static int (*real)(int, int, int);
    if (real == NULL) real = (int (*)(int, int, int))dlsym(RTLD_NEXT, "socket");
    if (domain != AF_BLUETOOTH || protocol != BTPROTO_RFCOMM) {
        int other = real(domain, type, protocol);
        if (other >= 0 && other < MAX_FD) rfcomm_fd[other] = 0;
        return other;
    }
    vyrix_fake_rfcomm_cloexec = (type & SOCK_CLOEXEC) != 0;
    if (Choice("socket-fails")) return (errno = EAFNOSUPPORT, -1);
    int fd = real(AF_UNIX, SOCK_STREAM | (type & SOCK_CLOEXEC), 0);
    if (fd >= 0 && fd < MAX_FD) rfcomm_fd[fd] = 1;
    return fd;
}

int connect(int fd, const struct sockaddr* addr, socklen_t len) {
    static int (*real)(int, const struct sockaddr*, socklen_t);
    if (real == NULL) real = (int (*)(int, const struct sockaddr*, socklen_t))dlsym(RTLD_NEXT, "connect");
    if (fd < 0 || fd >= MAX_FD || !rfcomm_fd[fd] || addr->sa_family != AF_BLUETOOTH) return real(fd, addr, len);
    const struct sockaddr_rc* rc = (const struct sockaddr_rc*)addr;
    char address[32];
    ba2str(&rc->rc_bdaddr, address);
    struct sockaddr_un un;
    memset(&un, 0, sizeof un);
    un.sun_family = AF_UNIX;
    snprintf(un.sun_path, sizeof un.sun_path, "%s/%s_%d", getenv("VYRIX_FAKE_BT_DIR"), address, rc->rc_channel);
    return real(fd, (const struct sockaddr*)&un, sizeof un);
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
    static int (*real)(int, int, int, const void*, socklen_t);
    if (real == NULL) real = (int (*)(int, int, int, const void*, socklen_t))dlsym(RTLD_NEXT, "setsockopt");
    if (fd >= 0 && fd < MAX_FD && rfcomm_fd[fd] && level == SOL_SOCKET &&
        (name == SO_RCVTIMEO || name == SO_SNDTIMEO)) {
        const struct timeval* tv = (const struct timeval*)value;
        if (tv->tv_sec == 2 && tv->tv_usec == 0) ++vyrix_fake_timeouts_set;
    }
    return real(fd, level, name, value, len);
}
