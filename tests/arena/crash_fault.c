/*
 * The fault layer of the crash tests (see crash_fault.h). Written in C so
 * that its definitions of the libc functions match the system's
 * declarations, which C++ would see with `throw ()` attached.
 */
#undef _FORTIFY_SOURCE
#define _GNU_SOURCE 1

#include "crash_fault.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

struct FaultShared {
    volatile int armedPid; /* the process that counts, 0 for none */
    long crashAt;
    int after;
    long count;
    long perOp[32];
    unsigned char ops[CRASH_FAULT_LOG];
    char args[CRASH_FAULT_LOG][CRASH_FAULT_ARG];
};

static struct FaultShared *shared;

#define REAL(name) real_##name
#define DECLARE_REAL(ret, name, params) static ret(*REAL(name)) params

DECLARE_REAL(int, open, (const char *, int, ...));
DECLARE_REAL(int, open64, (const char *, int, ...));
DECLARE_REAL(int, openat, (int, const char *, int, ...));
DECLARE_REAL(int, openat64, (int, const char *, int, ...));
DECLARE_REAL(int, creat, (const char *, mode_t));
DECLARE_REAL(int, creat64, (const char *, mode_t));
DECLARE_REAL(ssize_t, write, (int, const void *, size_t));
DECLARE_REAL(ssize_t, pwrite, (int, const void *, size_t, off_t));
DECLARE_REAL(ssize_t, pwrite64, (int, const void *, size_t, off64_t));
DECLARE_REAL(int, ftruncate, (int, off_t));
DECLARE_REAL(int, ftruncate64, (int, off64_t));
DECLARE_REAL(int, truncate, (const char *, off_t));
DECLARE_REAL(int, truncate64, (const char *, off64_t));
DECLARE_REAL(int, posix_fallocate, (int, off_t, off_t));
DECLARE_REAL(int, posix_fallocate64, (int, off64_t, off64_t));
DECLARE_REAL(int, fallocate, (int, int, off_t, off_t));
DECLARE_REAL(int, fallocate64, (int, int, off64_t, off64_t));
DECLARE_REAL(int, rename, (const char *, const char *));
DECLARE_REAL(int, renameat, (int, const char *, int, const char *));
DECLARE_REAL(int, renameat2, (int, const char *, int, const char *, unsigned));
DECLARE_REAL(int, unlink, (const char *));
DECLARE_REAL(int, unlinkat, (int, const char *, int));
DECLARE_REAL(int, mkdir, (const char *, mode_t));
DECLARE_REAL(int, mkdirat, (int, const char *, mode_t));
DECLARE_REAL(int, rmdir, (const char *));
DECLARE_REAL(int, fsync, (int));
DECLARE_REAL(int, fdatasync, (int));
DECLARE_REAL(int, msync, (void *, size_t, int));
DECLARE_REAL(FILE *, fopen, (const char *, const char *));
DECLARE_REAL(FILE *, fopen64, (const char *, const char *));

#define RESOLVE(name) REAL(name) = (__typeof__(REAL(name)))dlsym(RTLD_NEXT, #name)

__attribute__((constructor)) static void CrashFaultInit(void) {
    void *page = mmap(NULL, sizeof(struct FaultShared), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page != MAP_FAILED) shared = (struct FaultShared *)page;
    RESOLVE(open);
    RESOLVE(open64);
    RESOLVE(openat);
    RESOLVE(openat64);
    RESOLVE(creat);
    RESOLVE(creat64);
    RESOLVE(write);
    RESOLVE(pwrite);
    RESOLVE(pwrite64);
    RESOLVE(ftruncate);
    RESOLVE(ftruncate64);
    RESOLVE(truncate);
    RESOLVE(truncate64);
    RESOLVE(posix_fallocate);
    RESOLVE(posix_fallocate64);
    RESOLVE(fallocate);
    RESOLVE(fallocate64);
    RESOLVE(rename);
    RESOLVE(renameat);
    RESOLVE(renameat2);
    RESOLVE(unlink);
    RESOLVE(unlinkat);
    RESOLVE(mkdir);
    RESOLVE(mkdirat);
    RESOLVE(rmdir);
    RESOLVE(fsync);
    RESOLVE(fdatasync);
    RESOLVE(msync);
    RESOLVE(fopen);
    RESOLVE(fopen64);
}

/* --- Counting. --- */

static void Note(long n, int op, const char *arg) {
    if (n > CRASH_FAULT_LOG) return;
    shared->ops[n - 1] = (unsigned char)op;
    size_t length = arg ? strlen(arg) : 0;
    const char *tail = length >= CRASH_FAULT_ARG ? arg + length - (CRASH_FAULT_ARG - 1) : arg;
    snprintf(shared->args[n - 1], CRASH_FAULT_ARG, "%s", tail ? tail : "");
}

/* The number of this call while armed, else 0. Crashes before the call
 * when it is the one. */
static long Enter(int op, const char *path, int fd) {
    if (shared == NULL || shared->armedPid == 0 || shared->armedPid != getpid()) return 0;
    long n = __atomic_add_fetch(&shared->count, 1, __ATOMIC_SEQ_CST);
    __atomic_add_fetch(&shared->perOp[op], 1, __ATOMIC_SEQ_CST);
    char link[CRASH_FAULT_ARG * 4];
    if (path == NULL && fd >= 0) {
        char proc[64];
        snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd);
        ssize_t got = readlink(proc, link, sizeof link - 1);
        link[got > 0 ? got : 0] = '\0';
        path = link;
    }
    Note(n, op, path);
    if (n == shared->crashAt && !shared->after) _exit(CRASH_FAULT_EXIT);
    return n;
}

static void Leave(long n) {
    if (n != 0 && n == shared->crashAt && shared->after) _exit(CRASH_FAULT_EXIT);
}

#define WITH_FAULT(op, path, fd, type, call) \
    do {                                     \
        long n_ = Enter(op, path, fd);       \
        int saved_;                          \
        type result_ = call;                 \
        saved_ = errno;                      \
        Leave(n_);                           \
        errno = saved_;                      \
        return result_;                      \
    } while (0)

/* Calls may come before the constructor has run (from other libraries'
 * initialisers): the real function is then looked up on the spot. */
#define MISSING(name)                      \
    if (REAL(name) == NULL) RESOLVE(name); \
    if (REAL(name) == NULL) {              \
        errno = ENOSYS;                    \
        return -1;                         \
    }

void CrashFaultArm(long crashAt, int after) {
    if (shared == NULL) return;
    shared->count = 0;
    memset(shared->perOp, 0, sizeof shared->perOp);
    memset(shared->ops, 0, sizeof shared->ops);
    shared->crashAt = crashAt;
    shared->after = after;
    __atomic_store_n(&shared->armedPid, getpid(), __ATOMIC_SEQ_CST);
}

long CrashFaultDisarm(void) {
    if (shared == NULL) return 0;
    __atomic_store_n(&shared->armedPid, 0, __ATOMIC_SEQ_CST);
    return shared->count;
}

long CrashFaultCount(void) {
    return shared ? shared->count : 0;
}

long CrashFaultCountOf(int op) {
    return shared && op > 0 && op < 32 ? shared->perOp[op] : 0;
}

int CrashFaultOpAt(long n) {
    return shared && n >= 1 && n <= CRASH_FAULT_LOG ? shared->ops[n - 1] : 0;
}

const char *CrashFaultArgAt(long n) {
    return shared && n >= 1 && n <= CRASH_FAULT_LOG ? shared->args[n - 1] : "";
}

const char *CrashFaultOpName(int op) {
    static const char *const names[] = {"?",        "open",      "write",     "pwrite", "ftruncate",
                                        "truncate", "fallocate", "rename",    "unlink", "mkdir",
                                        "rmdir",    "fsync",     "fdatasync", "msync",  "fopen"};
    return op >= 0 && op < (int)(sizeof names / sizeof names[0]) ? names[op] : "?";
}

/* --- The interposed calls. --- */

static int Writing(int flags) {
    return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
}

static int NeedsMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

#define MODE_ARG(flags)                   \
    mode_t mode = 0;                      \
    if (NeedsMode(flags)) {               \
        va_list args;                     \
        va_start(args, flags);            \
        mode = (mode_t)va_arg(args, int); \
        va_end(args);                     \
    }

int open(const char *path, int flags, ...) {
    MODE_ARG(flags);
    MISSING(open);
    if (!Writing(flags)) return REAL(open)(path, flags, mode);
    WITH_FAULT(CRASH_OP_OPEN, path, -1, int, REAL(open)(path, flags, mode));
}

int open64(const char *path, int flags, ...) {
    MODE_ARG(flags);
    MISSING(open64);
    if (!Writing(flags)) return REAL(open64)(path, flags, mode);
    WITH_FAULT(CRASH_OP_OPEN, path, -1, int, REAL(open64)(path, flags, mode));
}

int openat(int dirfd, const char *path, int flags, ...) {
    MODE_ARG(flags);
    MISSING(openat);
    if (!Writing(flags)) return REAL(openat)(dirfd, path, flags, mode);
    WITH_FAULT(CRASH_OP_OPEN, path, -1, int, REAL(openat)(dirfd, path, flags, mode));
}

int openat64(int dirfd, const char *path, int flags, ...) {
    MODE_ARG(flags);
    MISSING(openat64);
    if (!Writing(flags)) return REAL(openat64)(dirfd, path, flags, mode);
    WITH_FAULT(CRASH_OP_OPEN, path, -1, int, REAL(openat64)(dirfd, path, flags, mode));
}

int creat(const char *path, mode_t mode) {
    MISSING(creat);
    WITH_FAULT(CRASH_OP_OPEN, path, -1, int, REAL(creat)(path, mode));
}

int creat64(const char *path, mode_t mode) {
    MISSING(creat64);
    WITH_FAULT(CRASH_OP_OPEN, path, -1, int, REAL(creat64)(path, mode));
}

ssize_t write(int fd, const void *buffer, size_t size) {
    MISSING(write);
    WITH_FAULT(CRASH_OP_WRITE, NULL, fd, ssize_t, REAL(write)(fd, buffer, size));
}

ssize_t pwrite(int fd, const void *buffer, size_t size, off_t offset) {
    MISSING(pwrite);
    WITH_FAULT(CRASH_OP_PWRITE, NULL, fd, ssize_t, REAL(pwrite)(fd, buffer, size, offset));
}

ssize_t pwrite64(int fd, const void *buffer, size_t size, off64_t offset) {
    MISSING(pwrite64);
    WITH_FAULT(CRASH_OP_PWRITE, NULL, fd, ssize_t, REAL(pwrite64)(fd, buffer, size, offset));
}

int ftruncate(int fd, off_t size) {
    MISSING(ftruncate);
    WITH_FAULT(CRASH_OP_FTRUNCATE, NULL, fd, int, REAL(ftruncate)(fd, size));
}

int ftruncate64(int fd, off64_t size) {
    MISSING(ftruncate64);
    WITH_FAULT(CRASH_OP_FTRUNCATE, NULL, fd, int, REAL(ftruncate64)(fd, size));
}

int truncate(const char *path, off_t size) {
    MISSING(truncate);
    WITH_FAULT(CRASH_OP_TRUNCATE, path, -1, int, REAL(truncate)(path, size));
}

int truncate64(const char *path, off64_t size) {
    MISSING(truncate64);
    WITH_FAULT(CRASH_OP_TRUNCATE, path, -1, int, REAL(truncate64)(path, size));
}

int posix_fallocate(int fd, off_t offset, off_t size) {
    if (REAL(posix_fallocate) == NULL) RESOLVE(posix_fallocate);
    if (REAL(posix_fallocate) == NULL) return ENOSYS;
    WITH_FAULT(CRASH_OP_FALLOCATE, NULL, fd, int, REAL(posix_fallocate)(fd, offset, size));
}

int posix_fallocate64(int fd, off64_t offset, off64_t size) {
    if (REAL(posix_fallocate64) == NULL) RESOLVE(posix_fallocate64);
    if (REAL(posix_fallocate64) == NULL) return ENOSYS;
    WITH_FAULT(CRASH_OP_FALLOCATE, NULL, fd, int, REAL(posix_fallocate64)(fd, offset, size));
}

int fallocate(int fd, int mode, off_t offset, off_t size) {
    MISSING(fallocate);
    WITH_FAULT(CRASH_OP_FALLOCATE, NULL, fd, int, REAL(fallocate)(fd, mode, offset, size));
}

int fallocate64(int fd, int mode, off64_t offset, off64_t size) {
    MISSING(fallocate64);
    WITH_FAULT(CRASH_OP_FALLOCATE, NULL, fd, int, REAL(fallocate64)(fd, mode, offset, size));
}

int rename(const char *from, const char *to) {
    MISSING(rename);
    WITH_FAULT(CRASH_OP_RENAME, to, -1, int, REAL(rename)(from, to));
}

int renameat(int fromDir, const char *from, int toDir, const char *to) {
    MISSING(renameat);
    WITH_FAULT(CRASH_OP_RENAME, to, -1, int, REAL(renameat)(fromDir, from, toDir, to));
}

int renameat2(int fromDir, const char *from, int toDir, const char *to, unsigned flags) {
    MISSING(renameat2);
    WITH_FAULT(CRASH_OP_RENAME, to, -1, int, REAL(renameat2)(fromDir, from, toDir, to, flags));
}

int unlink(const char *path) {
    MISSING(unlink);
    WITH_FAULT(CRASH_OP_UNLINK, path, -1, int, REAL(unlink)(path));
}

int unlinkat(int dirfd, const char *path, int flags) {
    MISSING(unlinkat);
    WITH_FAULT(CRASH_OP_UNLINK, path, -1, int, REAL(unlinkat)(dirfd, path, flags));
}

int mkdir(const char *path, mode_t mode) {
    MISSING(mkdir);
    WITH_FAULT(CRASH_OP_MKDIR, path, -1, int, REAL(mkdir)(path, mode));
}

int mkdirat(int dirfd, const char *path, mode_t mode) {
    MISSING(mkdirat);
    WITH_FAULT(CRASH_OP_MKDIR, path, -1, int, REAL(mkdirat)(dirfd, path, mode));
}

int rmdir(const char *path) {
    MISSING(rmdir);
    WITH_FAULT(CRASH_OP_RMDIR, path, -1, int, REAL(rmdir)(path));
}

int fsync(int fd) {
    MISSING(fsync);
    WITH_FAULT(CRASH_OP_FSYNC, NULL, fd, int, REAL(fsync)(fd));
}

int fdatasync(int fd) {
    MISSING(fdatasync);
    WITH_FAULT(CRASH_OP_FDATASYNC, NULL, fd, int, REAL(fdatasync)(fd));
}

int msync(void *address, size_t size, int flags) {
    MISSING(msync);
    WITH_FAULT(CRASH_OP_MSYNC, "(mapping)", -1, int, REAL(msync)(address, size, flags));
}

static int StreamWrites(const char *mode) {
    return mode != NULL && (strchr(mode, 'w') || strchr(mode, 'a') || strchr(mode, '+'));
}

FILE *fopen(const char *path, const char *mode) {
    if (REAL(fopen) == NULL) RESOLVE(fopen);
    if (REAL(fopen) == NULL) {
        errno = ENOSYS;
        return NULL;
    }
    if (!StreamWrites(mode)) return REAL(fopen)(path, mode);
    WITH_FAULT(CRASH_OP_FOPEN, path, -1, FILE *, REAL(fopen)(path, mode));
}

FILE *fopen64(const char *path, const char *mode) {
    if (REAL(fopen64) == NULL) RESOLVE(fopen64);
    if (REAL(fopen64) == NULL) {
        errno = ENOSYS;
        return NULL;
    }
    if (!StreamWrites(mode)) return REAL(fopen64)(path, mode);
    WITH_FAULT(CRASH_OP_FOPEN, path, -1, FILE *, REAL(fopen64)(path, mode));
}
