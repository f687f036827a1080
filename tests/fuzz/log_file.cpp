// Log files. The first byte of the input picks the files' numbers (bits 1
// and 2) and whether there are two of them (bit 0); with two, the next two
// bytes, least significant first, say where the first file's bytes end. The
// rest are the files' bytes. The log is opened read-only, then writable,
// and read forwards and backwards each time: a call that fails leaves its
// error, and nothing stays open. A writable log takes a record that reads
// back at once and after a reopening.
#include <string.h>

#include <algorithm>
#include <vector>

#include "fuzz_util.h"

namespace {

constexpr UInt kFirstNumbers[] = {1, 2, 9, 0xFFFFFFFEu};

void WriteFiles(const std::string &dir, const uint8_t *data, size_t size) {
    const bool two = data[0] & 1;
    const UInt first = kFirstNumbers[(data[0] >> 1) & 3];
    size_t at = two ? std::min<size_t>(3, size) : 1, split = size;
    if (two && size >= 3) split = std::min(size, at + (data[1] | (size_t)data[2] << 8));
    qkfuzz::WriteFile(dir + "/log." + std::to_string(first), data + at, split - at);
    if (two)
        qkfuzz::WriteFile(dir + "/log." + std::to_string(first + 1), data + split, size - split);
}

// Reads from the first record forwards and from the last backwards, each
// walk at most `limit` records long; a read that fails names its error.
void Walk(Log *log, size_t limit) {
    LogReadContext *context = LogReadContextNew(log);
    std::vector<UByte> buffer(1024);
    UInt action, size;
    ULong at = 0, last = LogLastSerial(log);
    bool ok = LogFirstSerial(context, 0, &at, 0, 0);
    for (size_t n = 0; ok && n < limit && at <= last; n++) {
        size = buffer.size();
        ok = LogRead(context, at, &action, buffer.data(), &size, &at, nullptr);
    }
    FUZZ_CHECK(ok || QKErrorCode() != 0);
    at = last;
    for (size_t n = 0; ok && n < limit; n++) {
        size = n % 2 ? buffer.size() : 3;
        ok = LogRead(context, at, &action, buffer.data(), &size, nullptr, &at);
    }
    FUZZ_CHECK(ok || QKErrorCode() != 0);
    LogReadContextDelete(context);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const std::string &dir = qkfuzz::FreshDir();
    WriteFiles(dir, data, size);
    const int descriptors = qkfuzz::OpenDescriptors();
    const size_t limit = size / LOG_HEADER_SIZE + 4;
    for (int readOnly : {1, 0}) {
        QKErrorClear();
        Log *log = LogOpen(dir.c_str(), readOnly);
        FUZZ_CHECK(log != nullptr || QKErrorCode() != 0);
        if (log == nullptr) continue;
        Walk(log, limit);
        ULong serial = 0;
        UInt length = 5;
        char back[5];
        if (!readOnly) {
            FUZZ_CHECK(LogWrite(log, 7, "fuzz!", 5, &serial));
            LogReadContext *context = LogReadContextNew(log);
            FUZZ_CHECK(LogRead(context, serial, nullptr, back, &length, nullptr, nullptr));
            LogReadContextDelete(context);
            FUZZ_CHECK(length == 5 && memcmp(back, "fuzz!", 5) == 0);
        }
        FUZZ_CHECK(LogClose(log));
        if (readOnly) continue;
        log = LogOpen(dir.c_str(), 1);
        FUZZ_CHECK(log != nullptr && LogLastSerial(log) == serial);
        LogReadContext *context = LogReadContextNew(log);
        FUZZ_CHECK(LogRead(context, serial, nullptr, back, &length, nullptr, nullptr));
        FUZZ_CHECK(length == 5 && memcmp(back, "fuzz!", 5) == 0);
        LogReadContextDelete(context);
        LogClose(log);
    }
    FUZZ_CHECK(qkfuzz::OpenDescriptors() == descriptors);
    return 0;
}
