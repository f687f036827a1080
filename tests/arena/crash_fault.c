// The fault layer of the crash tests (see crash_fault.h). Written in C so
// that its definitions of the libc functions match the system's
// declarations, which C++ would see with `throw ()` attached.
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
    volatile int armedPid;  // the process that counts, 0 for none
    long crashAt;
    int after;
    long perOp[32];  // calls of each kind, of any kind at 0
};

static struct FaultShared *shared;

__attribute__((constructor)) static void CrashFaultInit(void) {
    void *page = mmap(NULL, sizeof(struct FaultShared), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page != MAP_FAILED) shared = (struct FaultShared *)page;
}

// --- Counting.

// The number of this call while armed, else 0. Crashes before the call
// when it is the one.
static long Enter(int op) {
    if (shared == NULL || shared->armedPid == 0 || shared->armedPid != getpid()) return 0;
    long n = __atomic_add_fetch(&shared->perOp[CRASH_OP_ANY], 1, __ATOMIC_SEQ_CST);
    __atomic_add_fetch(&shared->perOp[op], 1, __ATOMIC_SEQ_CST);
    if (n == shared->crashAt && !shared->after) _exit(CRASH_FAULT_EXIT);
    return n;
}

static void Leave(long n) {
    if (n != 0 && n == shared->crashAt && shared->after) _exit(CRASH_FAULT_EXIT);
}

void CrashFaultArm(long crashAt, int after) {
    if (shared == NULL) return;
    memset(shared->perOp, 0, sizeof shared->perOp);
    shared->crashAt = crashAt;
    shared->after = after;
    __atomic_store_n(&shared->armedPid, getpid(), __ATOMIC_SEQ_CST);
}

long CrashFaultDisarm(void) {
    if (shared == NULL) return 0;
    __atomic_store_n(&shared->armedPid, 0, __ATOMIC_SEQ_CST);
    return shared->perOp[CRASH_OP_ANY];
}

long CrashFaultCount(int op) {
    return shared && op >= 0 && op < 32 ? shared->perOp[op] : 0;
}

// --- The interposed calls.

static int Writing(int flags) {
    return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
}

static int StreamWrites(const char *mode) {
    return mode != NULL && (strchr(mode, 'w') || strchr(mode, 'a') || strchr(mode, '+'));
}

// The mode argument of the open calls, present only with these flags.
#define MODE_ARG(flags)                                               \
    mode_t m = 0;                                                     \
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) { \
        va_list args;                                                 \
        va_start(args, flags);                                        \
        m = (mode_t)va_arg(args, int);                                \
        va_end(args);                                                 \
    }

// Defines `name(params)`: after `prologue`, it forwards `args` to the next
// definition (libc's or a sanitizer's), looked up on first use since calls
// may come before any constructor has run, and returns `fail` when there
// is none. Calls for which `counts` holds are counted as `op`, and may end
// the process before or after the real call.
#define WRAP(type, fail, name, params, args, op, counts, prologue)                  \
    type name params {                                                              \
        static type(*real) params;                                                  \
        prologue;                                                                   \
        type(*next) params = __atomic_load_n(&real, __ATOMIC_RELAXED);              \
        if (next == NULL)                                                           \
            __atomic_store_n(&real, next = (type(*) params)dlsym(RTLD_NEXT, #name), \
                             __ATOMIC_RELAXED);                                     \
        if (next == NULL) return errno = ENOSYS, fail;                              \
        if (!(counts)) return next args;                                            \
        long n_ = Enter(op);                                                        \
        type result_ = next args;                                                   \
        int saved_ = errno;                                                         \
        Leave(n_);                                                                  \
        errno = saved_;                                                             \
        return result_;                                                             \
    }

// Calls always counted, and the open calls, counted when they may write.
#define ON(type, name, op, params, args) \
    WRAP(type, -1, name, params, args, CRASH_OP_##op, 1, (void)0)
#define ON_OPEN(name, params, args) \
    WRAP(int, -1, name, params, args, CRASH_OP_OPEN, Writing(f), MODE_ARG(f))

ON_OPEN(open, (const char *p, int f, ...), (p, f, m))
ON_OPEN(open64, (const char *p, int f, ...), (p, f, m))
ON_OPEN(openat, (int d, const char *p, int f, ...), (d, p, f, m))
ON_OPEN(openat64, (int d, const char *p, int f, ...), (d, p, f, m))
WRAP(FILE *, NULL, fopen, (const char *p, const char *m), (p, m), CRASH_OP_FOPEN, StreamWrites(m),
     (void)0)
WRAP(FILE *, NULL, fopen64, (const char *p, const char *m), (p, m), CRASH_OP_FOPEN, StreamWrites(m),
     (void)0)
ON(int, creat, OPEN, (const char *p, mode_t m), (p, m))
ON(int, creat64, OPEN, (const char *p, mode_t m), (p, m))
ON(ssize_t, write, WRITE, (int fd, const void *b, size_t n), (fd, b, n))
ON(ssize_t, pwrite, PWRITE, (int fd, const void *b, size_t n, off_t o), (fd, b, n, o))
ON(ssize_t, pwrite64, PWRITE, (int fd, const void *b, size_t n, off64_t o), (fd, b, n, o))
ON(int, ftruncate, FTRUNCATE, (int fd, off_t n), (fd, n))
ON(int, ftruncate64, FTRUNCATE, (int fd, off64_t n), (fd, n))
ON(int, truncate, TRUNCATE, (const char *p, off_t n), (p, n))
ON(int, truncate64, TRUNCATE, (const char *p, off64_t n), (p, n))
// posix_fallocate returns its error instead of setting errno.
WRAP(int, ENOSYS, posix_fallocate, (int fd, off_t o, off_t n), (fd, o, n), CRASH_OP_FALLOCATE, 1,
     (void)0)
WRAP(int, ENOSYS, posix_fallocate64, (int fd, off64_t o, off64_t n), (fd, o, n), CRASH_OP_FALLOCATE,
     1, (void)0)
ON(int, fallocate, FALLOCATE, (int fd, int m, off_t o, off_t n), (fd, m, o, n))
ON(int, fallocate64, FALLOCATE, (int fd, int m, off64_t o, off64_t n), (fd, m, o, n))
ON(int, rename, RENAME, (const char *from, const char *to), (from, to))
ON(int, renameat, RENAME, (int d, const char *from, int e, const char *to), (d, from, e, to))
ON(int, renameat2, RENAME, (int d, const char *from, int e, const char *to, unsigned f),
   (d, from, e, to, f))
ON(int, unlink, UNLINK, (const char *p), (p))
ON(int, unlinkat, UNLINK, (int d, const char *p, int f), (d, p, f))
ON(int, mkdir, MKDIR, (const char *p, mode_t m), (p, m))
ON(int, mkdirat, MKDIR, (int d, const char *p, mode_t m), (d, p, m))
ON(int, rmdir, RMDIR, (const char *p), (p))
ON(int, fsync, FSYNC, (int fd), (fd))
ON(int, fdatasync, FDATASYNC, (int fd), (fd))
ON(int, msync, MSYNC, (void *a, size_t n, int f), (a, n, f))
