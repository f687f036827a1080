// Wall-clock readings in the units the frame keeps.
#include <time.h>

#include "frame/internal.h"

namespace qk {

namespace {
// Seconds from 1601-01-01 to 1970-01-01.
constexpr ULong kEpochDelta1601 = 11644473600ull;
}  // namespace

ULong NowMicros1601() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ((ULong)ts.tv_sec + kEpochDelta1601) * 1000000ull + (ULong)ts.tv_nsec / 1000;
}

ULong NowMillis1970() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (ULong)ts.tv_sec * 1000ull + (ULong)ts.tv_nsec / 1000000;
}

}  // namespace qk
