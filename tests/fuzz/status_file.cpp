// Status files. The first byte of the input picks the file's name (the
// current name, or the "new" or "old" name that a read recovers, each with or
// without a serial); the rest is its content. A status that reads is written
// back and must read again to the same parameters, buckets and data lines.
#include <string.h>

#include "fuzz_util.h"

namespace {

constexpr ULong kSerial = 7;

// Data lines are kept as copies; an empty one is not kept.
void *KeepLine(const char *line, Int, void *) {
    return *line ? strdup(line) : nullptr;
}

int PrintLine(FILE *file, void *item, void *) {
    return fputs(static_cast<const char *>(item), file) >= 0;
}

void FreeLines(Status *status) {
    for (UInt i = 0; i < status->dataCount; i++) free(status->data[i]);
    status->dataCount = 0;
}

bool SameStatus(const Status &a, const Status &b) {
    if (memcmp(a.lower, b.lower, sizeof a.lower) != 0 ||
        memcmp(a.upper, b.upper, sizeof a.upper) != 0 || a.bucketCount != b.bucketCount ||
        memcmp(a.buckets, b.buckets, a.bucketCount * sizeof(ULong)) != 0 ||
        a.dataCount != b.dataCount)
        return false;
    for (UInt i = 0; i < a.dataCount; i++) {
        if (strcmp((const char *)a.data[i], (const char *)b.data[i]) != 0) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const std::string &dir = qkfuzz::FreshDir();
    static const char *const kNames[] = {"status.txt", "status.new", "status.old"};
    const bool serial = (data[0] / 3) & 1;
    std::string path = dir + "/" + kNames[data[0] % 3];
    if (serial) path += "." + std::to_string(kSerial);
    qkfuzz::WriteFile(path, data + 1, size - 1);

    static Status first, second;
    first.replication = second.replication = nullptr;
    const ULong which = serial ? kSerial : STATUS_NO_SERIAL;
    if (StatusRead(dir.c_str(), which, &first, 0, KeepLine, nullptr)) {
        FUZZ_CHECK(StatusWrite(&first, PrintLine, nullptr));
        FUZZ_CHECK(StatusRead(dir.c_str(), which, &second, 0, KeepLine, nullptr));
        FUZZ_CHECK(SameStatus(first, second));
        FreeLines(&second);
    }
    FreeLines(&first);
    return 0;
}
