// The process's memory counters, from /proc/self/status, under the names
// that the platform's callers know.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <trio.h>
#include <unistd.h>

#include "frame/internal.h"

namespace {

// The value in bytes of the line "<name>:  <n> kB" of `status`, or -1.
long StatusBytes(const char *status, const char *name) {
    size_t nameLength = strlen(name);
    for (const char *line = status; *line;) {
        if (strncmp(line, name, nameLength) == 0 && line[nameLength] == ':') {
            char *end = nullptr;
            long kilobytes = strtol(line + nameLength + 1, &end, 10);
            if (end == line + nameLength + 1) return -1;
            return kilobytes * 1024;
        }
        const char *next = strchr(line, '\n');
        if (next == nullptr) break;
        line = next + 1;
    }
    return -1;
}

}  // namespace

extern "C" {

QK_API void QKDumpMemStats(char *buffer, size_t size) {
    if (buffer == nullptr || size == 0) return;
    buffer[0] = '\0';
    char status[8192];
    int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    size_t length = 0;
    for (;;) {
        ssize_t n = read(fd, status + length, sizeof status - 1 - length);
        if (n <= 0) break;
        length += (size_t)n;
        if (length == sizeof status - 1) break;
    }
    close(fd);
    status[length] = '\0';

    // The nearest Linux counters: peak and current resident set for the
    // working set, page tables for the paged pool, locked memory for the
    // non-paged pool, and the virtual size for the page file.
    const char *names[] = {"VmHWM", "VmRSS", "VmPTE", "VmLck", "VmSize", "VmPeak"};
    long values[6];
    for (int i = 0; i < 6; i++) {
        values[i] = StatusBytes(status, names[i]);
        if (values[i] < 0) return;
    }
    trio_snprintf(buffer, size,
                  "PeakWorkingSetSize=%ld, WorkingSetSize=%ld, QuotaPeakPagedPoolUsage=%ld, "
                  "QuotaPagedPoolUsage=%ld, QuotaPeakNonPagedPoolUsage=%ld, "
                  "QuotaNonPagedPoolUsage=%ld, PagefileUsage=%ld, PeakPagefileUsage=%ld",
                  values[0], values[1], values[2], values[2], values[3], values[3], values[4],
                  values[5]);
}

}  // extern "C"
