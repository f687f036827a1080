// Files, private to their sources: the joined and checked path that every
// call builds, the conversions of names between UTF-8 and UCS2, and a few
// system-call helpers that keep the first error.
#pragma once

#include <errno.h>

#include "qk/file.h"
#include "qk/frame.h"
#include "qk/unicode.h"

namespace qk {

// A working path: a directory (or none), '/' and a name, as zero-terminated
// UTF-8 bytes. The working array is freed with the object.
class FilePath {
  public:
    FilePath() = default;
    FilePath(const FilePath &) = delete;
    FilePath &operator=(const FilePath &) = delete;
    ~FilePath() { ArrayFree(bytes_); }

    // Joins the parts and reads the result back character by character:
    // READ_EOF when it is well-formed UTF-8, the negative code that stopped
    // the reading otherwise.
    Int Join(const char *directory, const char *name);
    Int JoinUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                 UInt nameLength);

    // The same, failing with errno EILSEQ for a malformed path.
    bool Set(const char *directory, const char *name) { return Checked(Join(directory, name)); }
    bool SetUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                 UInt nameLength) {
        return Checked(JoinUCS2(directory, directoryLength, name, nameLength));
    }

    char *Data() { return reinterpret_cast<char *>(bytes_.data); }
    const char *Get() const { return reinterpret_cast<const char *>(bytes_.data); }
    UInt Length() const { return bytes_.length; }

  private:
    static bool Checked(Int c) {
        if (c == READ_EOF) return true;
        errno = EILSEQ;
        return false;
    }
    Int Finish();

    ByteArray bytes_{};
};

// The ReadUTF8 result that ends the reading of `length` bytes: READ_EOF for
// well-formed text.
Int CheckUTF8(const char *text, size_t length);

// Appends UCS2 units as UTF-8 (surrogates as any other unit), without a
// terminator.
void AppendUCS2AsUTF8(ByteArray *out, const UShort *units, UInt length);
// Appends UTF-8 bytes from the system as UCS2, then a zero beyond the length.
// A byte that does not start a well-formed sequence of at most three bytes,
// and a whole four-byte sequence, become U+FFFD.
void AppendUTF8AsUCS2(UShortArray *out, const char *text, size_t length);

// close() that leaves errno and the thread's last error as they were: for
// clean-up on an error path.
void CloseKeepingError(int fd);

// Records a system error as the thread's last error and sets errno to -1.
inline void SetSystemError(int error) {
    QKSetLastError(error);
    errno = -1;
}

}  // namespace qk
