// Checking a log file at open: its header, then a walk over the records
// whose size fits and whose checksum agrees, up to the first that does not
// or to an end-of-file record.
#include <string.h>

#include "frame/endian.h"
#include "log/log_internal.h"
#include "qk/file.h"

namespace qk::log {
namespace {

// The record at `offset` when it is whole and its checksum agrees.
bool ValidAt(const UByte *bytes, ULong size, ULong offset, RecordHeader *header) {
    if (size < LOG_HEADER_SIZE || offset > size - LOG_HEADER_SIZE) return false;
    *header = DecodeHeader(bytes + offset);
    if (header->size < LOG_HEADER_SIZE || header->size > size - offset) return false;
    const UByte *at = bytes + offset;
    return CheckSum(at, at + LOG_HEADER_SIZE, header->size - LOG_HEADER_SIZE) == header->checksum;
}

bool IsFileHeader(const UByte *bytes, ULong size, UInt number) {
    RecordHeader header;
    if (!ValidAt(bytes, size, 0, &header) || header.action != LOG_ACTION_HEADER ||
        header.size != kFileHeaderSize)
        return false;
    UByte expected[16];
    FileHeaderPayload(number, expected);
    return memcmp(bytes + LOG_HEADER_SIZE, expected, sizeof expected) == 0;
}

}  // namespace

bool CheckFile(int fd, const char *path, UInt number, bool newest, FileCheck *check) {
    size_t mapped = 0;
    int empty = 0;
    void *view = FileMapFD(fd, 1, &mapped, &empty);
    if (view == nullptr && !empty) {
        QKErrorRethrow("error mapping file \"%s\"", path);
        return false;
    }
    *check = {false, false, 0, 0, mapped};
    const UByte *bytes = static_cast<const UByte *>(view);
    // Offsets are 32-bit: bytes beyond cannot hold records.
    ULong size = mapped > 0xFFFFFFFFu ? 0xFFFFFFFFu : mapped;
    if (view != nullptr && IsFileHeader(bytes, size, number)) {
        ULong offset = 0;
        RecordHeader header;
        while (!check->endsInEof && ValidAt(bytes, size, offset, &header)) {
            check->lastOffset = (UInt)offset;
            check->endsInEof = header.action == LOG_ACTION_EOF;
            offset += header.size;
        }
        check->end = (UInt)offset;
        check->good = newest || (check->endsInEof && offset == mapped);
    }
    if (view != nullptr) FileUnmap(view);
    return true;
}

}  // namespace qk::log
