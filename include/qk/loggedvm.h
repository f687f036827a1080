/*
 * Logged arenas: a VMArena protected by a Log. A store built on a LoggedVM
 * writes one log record per change and applies the change to the arena's
 * new generation; the arena is committed only at the checkpoints that the
 * store asks to commit. After a crash the arena opens at its last commit
 * and the records since then are replayed up to the last checkpoint.
 *
 * Directory: "<dir>/log" holds the Log, "<dir>/vm" the arena (fixed file
 * names, no replication log, no page cache). The arena's array "lvm/serial"
 * holds one 64-bit element: the log serial up to which the arena's image is
 * complete.
 *
 * Log records of the LoggedVM itself (the store's records take actions above
 * 15; 1 and 2 are the log's file header and trailer):
 *   13 LVMCheckpoint     payload: the 64-bit serial (little-endian) up to
 *                        which the store's records belong to the checkpoint
 *   14 LVMRecycleSetNew  no payload: what was freed by records up to that
 *                        serial now waits for the readers of the moment
 *   15 LVMRecycle        no payload: what waited is free again
 *
 * A checkpoint drains the writers that came in before it, lets the store
 * make its own data durable (onCheckpoint), forces LVMCheckpoint to disk,
 * marks the freed blocks (onRecycleSetNew, LVMRecycleSetNew), drains the
 * readers of the moment, then recycles (LVMRecycle, onRecycle); a commit
 * checkpoint stops the writers, commits the arena and truncates the log.
 *
 * Recovery replays the store's records after the arena's serial up to the
 * last LVMCheckpoint's serial, in log order, together with the LoggedVM's
 * records among them; it then performs the LVMRecycleSetNew and LVMRecycle
 * that follow that last LVMCheckpoint (the store's records after its serial
 * are dropped), calls onRecycle once more, and commits. Replay writes no log
 * record, so a recovery cut at any point replays the same records again.
 *
 * Blocks freed by a record logged after a checkpoint's serial must not be
 * recycled by that checkpoint: a crash before the next checkpoint drops the
 * record and brings back the mapping that names them. onRecycleSetNew reads
 * the bound with LoggedVMRecycleSerial.
 *
 * Locks, in this order: the checkpoint's own mutex, the commit lock (writers
 * shared, a commit checkpoint exclusive), the store's mutex
 * (LoggedVMAcquire). Readers take only the arena's old-generation lock, and
 * never wait for a checkpoint's disk work. A reader must not take the
 * store's mutex while it holds its epoch: a committing checkpoint holds that
 * mutex while the arena switches its image, which waits for the readers.
 */
#ifndef QK_LOGGEDVM_H
#define QK_LOGGEDVM_H

#include "qk/arena.h"
#include "qk/log.h"
#include "qk/types.h"

QK_BEGIN_DECLS

#define LVM_ACTION_CHECKPOINT 13u
#define LVM_ACTION_RECYCLE_SET_NEW 14u
#define LVM_ACTION_RECYCLE 15u
/* The first action free for a store's own records. */
#define LVM_ACTION_STORE 16u

typedef struct LoggedVM LoggedVM;

/* Callbacks return non-zero for success. */
typedef int (*LoggedVMCallback)(void *arg);
/* Replays the records in [fromSerial, toSerial] through `context`: the
 * store's own, and the others through LoggedVMProcessFun. */
typedef int (*LoggedVMReplayCallback)(LogReadContext *context, ULong fromSerial, ULong toSerial,
                                      void *arg);

/* Opens (with `create`, makes) the store's log and arena in `dir`; with a
 * new arena *created is set (`created` may be null), and the store commits
 * the arena once its arrays are made. The callbacks but onReplay are
 * optional. None on failure. */
QK_API LoggedVM *LoggedVMOpen(const char *dir, UInt bucketCount, int create, int readOnly,
                              int *created, LoggedVMCallback onCheckpoint,
                              LoggedVMCallback onRecycleSetNew, LoggedVMCallback onRecycle,
                              LoggedVMReplayCallback onReplay, void *arg);
/* Closes arena and log, with no checkpoint: 1 if both closed. */
QK_API int LoggedVMClose(LoggedVM *lvm);
/* Replays the log after the arena's image: 1, or 0. */
QK_API int LoggedVMRecover(LoggedVM *lvm);
/* A checkpoint of everything logged up to `serial` (all ones: the log's last
 * serial); with `commit`, the arena is committed and the log truncated. */
QK_API int LoggedVMCheckpoint(LoggedVM *lvm, int commit, ULong serial);
QK_API VMArena *LoggedVMArenaGet(LoggedVM *lvm);
QK_API Log *LoggedVMLogGet(LoggedVM *lvm);
/* The store's lock around a log write and the change that goes with it. */
QK_API void LoggedVMAcquire(LoggedVM *lvm);
QK_API void LoggedVMRelease(LoggedVM *lvm);
/* Writers and readers enter an epoch and leave it with the value returned.
 * A reader holds the arena's old-generation lock meanwhile. */
QK_API ULong LoggedVMWriterAcquire(LoggedVM *lvm);
QK_API void LoggedVMWriterRelease(LoggedVM *lvm, ULong epoch);
QK_API ULong LoggedVMReaderAcquire(LoggedVM *lvm);
QK_API void LoggedVMReaderRelease(LoggedVM *lvm, ULong epoch);
/* LogLastSerial under the store's lock. */
QK_API ULong LoggedVMSerialGet(LoggedVM *lvm);
/* In onRecycleSetNew: the serial of the checkpoint that marks; what records
 * after it freed waits for the next checkpoint. */
QK_API ULong LoggedVMRecycleSerial(LoggedVM *lvm);
/* Replays a record that is not the store's: 1, or 0 for an unknown action. */
QK_API int LoggedVMProcessFun(LoggedVM *lvm, ULong serial, UInt action);
/* Prints a LoggedVM record's name and payload. */
QK_API void LoggedVMOpDebug(UInt action, const void *data, UInt size);
/* Prints every record of the log in `directory`: 1, or 0. */
QK_API int LogDebug(const char *directory);

QK_END_DECLS

#endif /* QK_LOGGEDVM_H */
