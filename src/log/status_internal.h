// Status files, private to their sources: the three file names and how a
// name and a serial make a path.
#pragma once

#include "qk/frame.h"
#include "qk/status.h"

namespace qk::status {

constexpr const char *kCurrent = "status.txt";
constexpr const char *kNew = "status.new";
constexpr const char *kOld = "status.old";

// "<dir>/<name>" or, with a serial, "<dir>/<name>.<serial>", into a buffer
// of STATUS_PATH_SIZE bytes.
void MakePath(char *buffer, const char *dir, const char *name, ULong serial);

// Throws (0, 2) with the text when the file's content is not a status.
void ThrowFormat(const char *format, Int line);

}  // namespace qk::status
