// Fault injection for the crash tests: the test executable defines the libc
// entry points through which the library changes files (open, write,
// ftruncate, rename, unlink, mkdir, fsync, msync and their relatives) and
// forwards them to the next definition, libc's or a sanitizer's. Definitions
// in the executable come first in the dynamic lookup, so the library's calls
// go through them. While armed, every such call is counted; the call
// numbered `crashAt` ends the process with _exit(77), before or after the
// real call.
//
// The counters live in a shared anonymous mapping made at start, so that a
// parent reads what its forked child did after the child is gone.
//
// What survives such an end is what survives a process crash: bytes given
// to write() and stores into a shared mapping are in the page cache and stay;
// nothing models the loss of unsynced data on a power cut.
#ifndef QK_TEST_CRASH_FAULT_H
#define QK_TEST_CRASH_FAULT_H

#ifdef __cplusplus
extern "C" {
#endif

// The exit status of a process ended by the fault layer.
#define CRASH_FAULT_EXIT 77

enum CrashFaultOp {
    CRASH_OP_ANY,   // calls of every kind
    CRASH_OP_OPEN,  // open for writing or creation
    CRASH_OP_WRITE,
    CRASH_OP_PWRITE,
    CRASH_OP_FTRUNCATE,
    CRASH_OP_TRUNCATE,
    CRASH_OP_FALLOCATE,
    CRASH_OP_RENAME,
    CRASH_OP_UNLINK,
    CRASH_OP_MKDIR,
    CRASH_OP_RMDIR,
    CRASH_OP_FSYNC,
    CRASH_OP_FDATASYNC,
    CRASH_OP_MSYNC,
    CRASH_OP_FOPEN  // a stream opened for writing
};

// Starts counting from zero. `crashAt` 0 never crashes; `after` non-zero
// crashes once the real call has returned.
void CrashFaultArm(long crashAt, int after);
// Stops counting; the count of calls since the arming.
long CrashFaultDisarm(void);
// The count so far of calls of kind `op` (CRASH_OP_ANY: all), also of a
// child that has ended.
long CrashFaultCount(int op);

#ifdef __cplusplus
}
#endif

#endif  // QK_TEST_CRASH_FAULT_H
