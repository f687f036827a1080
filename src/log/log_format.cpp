// The log's formats: record headers and their checksum, the file header's
// payload, and the names of the log files.
#include <string.h>
#include <trio.h>

#include "frame/endian.h"
#include "log/log_internal.h"
#include "qk/file.h"

namespace qk::log {
namespace {

constexpr UInt kFnvPrime = 16777619u;
constexpr UInt kChecksumField = 8;

UInt Hash(UInt hash, const UByte *bytes, size_t size) {
    for (size_t i = 0; i < size; i++) hash = (hash * kFnvPrime) ^ bytes[i];
    return hash;
}

}  // namespace

void EncodeHeader(const RecordHeader &header, UByte *bytes) {
    StoreLE(bytes, header.size, 4);
    StoreLE(bytes + 4, header.previous, 4);
    StoreLE(bytes + 8, header.checksum, 4);
    StoreLE(bytes + 12, header.action, 4);
}

RecordHeader DecodeHeader(const UByte *bytes) {
    return {LoadLE32(bytes), LoadLE32(bytes + 4), LoadLE32(bytes + 8), LoadLE32(bytes + 12)};
}

RecordHeader MakeHeader(UInt action, UInt previous, const void *payload, UInt size) {
    RecordHeader header = {size + LOG_HEADER_SIZE, previous, 0, action};
    UByte bytes[LOG_HEADER_SIZE];
    EncodeHeader(header, bytes);
    header.checksum = CheckSum(bytes, payload, size);
    return header;
}

void FileHeaderPayload(UInt number, UByte payload[16]) {
    memcpy(payload, kMagic, sizeof kMagic);
    StoreLE(payload + 8, kLogVersion, 4);
    StoreLE(payload + 12, number, 4);
}

void MakeFileName(ByteArray *name, const char *dir, UInt number) {
    size_t room = strlen(dir) + 16;
    ArrayEnsure(*name, room);
    trio_snprintf(reinterpret_cast<char *>(name->data), room, "%s/log.%u", dir, number);
    name->length = (UInt)strlen(Name(*name));
}

UInt ParseFileName(const char *name) {
    if (strncmp(name, "log.", 4) != 0 || name[4] < '1' || name[4] > '9') return 0;
    ULong number = 0;
    for (const char *p = name + 4; *p; p++) {
        if (*p < '0' || *p > '9') return 0;
        number = number * 10 + (*p - '0');
        if (number > 0xFFFFFFFFu) return 0;
    }
    return (UInt)number;
}

bool ScanDirectory(const char *dir, UInt *first, UInt *last) {
    UInt range[2] = {0, 0};
    auto note = [](const char *name, void *argument) {
        UInt number = ParseFileName(name), *r = static_cast<UInt *>(argument);
        if (number != 0 && (r[0] == 0 || number < r[0])) r[0] = number;
        if (number > r[1]) r[1] = number;
        return 1;
    };
    if (!DirectoryEnumerateRelative(dir, note, range)) {
        QKErrorRethrow("error reading log directory \"%s\"", dir);
        return false;
    }
    *first = range[0];
    *last = range[1];
    return true;
}

}  // namespace qk::log

extern "C" {

QK_API UInt CheckSum(const void *header, const void *data, UInt size) {
    const UByte *bytes = static_cast<const UByte *>(header);
    const UByte zero[4] = {0, 0, 0, 0};
    UInt hash = qk::log::Hash(0, bytes, qk::log::kChecksumField);
    hash = qk::log::Hash(hash, zero, 4);
    hash = qk::log::Hash(hash, bytes + 12, 4);
    return qk::log::Hash(hash, static_cast<const UByte *>(data), size);
}

}  // extern "C"
