/*
 * Status files: the small text record of named numbers that a store keeps
 * beside its data. A status holds 52 parameters named by the letters 'a' to
 * 'z' and 'A' to 'Z', up to 1000 bucket values and up to 1000 items of user
 * data, and lives in "status.txt" (or "status.txt.<serial>").
 *
 * The file is plain text, one line per value, each ended by a line feed, in
 * this order: "<letter>=<decimal>" for each parameter that is not zero, the
 * letters in the order a A b B ... z Z; "#<decimal>" for each bucket;
 * "@<text>" for each item of user data, its text written by the caller.
 *
 * A write goes to "status.new", synced, and replaces "status.txt" through
 * "status.old"; a read first finishes a replacement that a crash cut short.
 */
#ifndef QK_STATUS_H
#define QK_STATUS_H

#include <stdio.h>

#include "qk/types.h"

QK_BEGIN_DECLS

/* The serial of a status (and of an arena's files) that has none. */
#define STATUS_NO_SERIAL (~(ULong)0)
#define STATUS_MAX_BUCKETS 1000
#define STATUS_MAX_DATA 1000
/* Room for the directory, with its terminator. */
#define STATUS_DIR_SIZE 1024
/* Room for the directory, '/', the longest name and a 64-bit serial. */
#define STATUS_PATH_SIZE (STATUS_DIR_SIZE + 40)

/* A log that is told of file creations and removals; not part of this
 * library: a status or arena with one attached is refused. */
typedef struct ReplicationLog ReplicationLog;

typedef struct Status {
    UInt bucketCount;
    char dir[STATUS_DIR_SIZE];
    char path[STATUS_PATH_SIZE];
    char tempPath[STATUS_PATH_SIZE];
    ULong serial;
    ULong lower[26]; /* 'a' to 'z' */
    ULong upper[26]; /* 'A' to 'Z' */
    ULong buckets[STATUS_MAX_BUCKETS];
    UInt dataCount;
    void *data[STATUS_MAX_DATA]; /* owned by the caller */
    ReplicationLog *replication;
} Status;

/* Turns the text of a data line (without '@' and the line feed) into the
 * item to keep, or none to keep nothing. Lines count from 1. */
typedef void *(*StatusParseFn)(const char *line, Int lineNumber, void *argument);
/* Writes the text of one item; 0 fails the write. */
typedef int (*StatusPrintFn)(FILE *file, void *item, void *argument);

/* Loads "status.txt" (or its serial form) of `dir` into `status`. A missing
 * file gives an empty status and 1 with `create`, 0 without. Parameters,
 * buckets and the data count start from zero: the caller frees the items of
 * an earlier read first. On a parse error the status holds what was read so
 * far, and the result is 0. */
QK_API int StatusRead(const char *dir, ULong serial, Status *status, int create,
                      StatusParseFn parse, void *argument);
/* Writes the status in place of the current file. A serial form that does
 * not exist yet is written under its final name. */
QK_API int StatusWrite(Status *status, StatusPrintFn print, void *argument);
/* 0 for a name that is no letter. */
QK_API ULong StatusGetParameter(const Status *status, int name);
/* A name that is no letter is an assertion. */
QK_API void StatusSetParameter(Status *status, int name, ULong value);
/* 1, or 0 when the status holds 1000 items already. */
QK_API int StatusAddData(Status *status, void *item);
/* Removes the serial forms of "status.txt", "status.new" and "status.old"
 * whose serial lies in [from, to]. 1, or 0 when a removal failed (the others
 * are still made). */
QK_API int StatusRemoveFiles(const char *dir, ULong from, ULong to, ReplicationLog *replication);

QK_END_DECLS

#endif /* QK_STATUS_H */
